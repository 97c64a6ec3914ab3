#include "TThreadC.h"
#include "foundation/ztWorker.h"
#include "support/fault_scenario.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using zt::test::waitUntil;

// Counts its runs; may end itself with Exit, or wait for its own handle and join it.
class Body : public TThreadC<void> {
public:
    std::atomic<int> runs{0}, polls{0}, selfId{0}, selfJoin{-1};
    std::atomic<bool> afterExit{false}, joinSelf{false};
    bool exitEarly = false;
    void* handle = nullptr;
    void Run() override
    {
        selfId = Self();
        // A detached body may be gone once runs counts: nothing of it is touched after.
        if (exitEarly) {
            ++runs;
            Exit();
            afterExit = true; // never reached
        }
        ++runs;
        if (waitUntil(2000, [this] {
                ++polls;
                return joinSelf.load();
            }))
            selfJoin = Join(handle);
    }
};

std::atomic<int> plainRuns{0};
void plainFunction()
{
    ++plainRuns;
}

TEST(TThreadC, CreateJoinDetachKillExitAndTheirFailures)
{
    // The id Create hands back is the one the thread sees as its own; a thread that joins
    // itself gets 22 (as with a null handle), then it is joined.
    Body a;
    unsigned long id = 0;
    a.handle = reinterpret_cast<void*>(0x1); // cleared by Create
    ASSERT_EQ(a.Create(id, &a.handle, false, 0, false, false), 0);
    a.joinSelf = true;
    EXPECT_EQ(TThreadC<void>::Join(a.handle), 0);
    EXPECT_EQ(a.runs, 1);
    EXPECT_EQ(a.selfJoin, 22);
    EXPECT_EQ(static_cast<unsigned long>(a.selfId.load()), id);
    EXPECT_NE(a.selfId, TThreadC<void>::Self());
    EXPECT_EQ(TThreadC<void>::Join(nullptr), 22);
    EXPECT_EQ(TThreadC<void>::Detach(nullptr), 22);
    EXPECT_EQ(TThreadC<void>::Kill(nullptr), 22);

    // Exit ends the body where it is called.
    Body early;
    early.exitEarly = true;
    void* h = nullptr;
    ASSERT_EQ(early.Create(&h, false, 64 * 1024, false, false), 0);
    EXPECT_EQ(TThreadC<void>::Join(h), 0);
    EXPECT_FALSE(early.afterExit);

    // A plain function, joined; then detached at creation (the handle is stored anyway).
    ASSERT_EQ(TThreadC<void>::Create(&plainFunction, &h, false, 0, false, false), 0);
    EXPECT_EQ(TThreadC<void>::Join(h), 0);
    EXPECT_EQ(plainRuns, 1);
    h = nullptr;
    ASSERT_EQ(TThreadC<void>::Create(&plainFunction, &h, true, 0, false, false), 0);
    EXPECT_NE(h, nullptr);
    EXPECT_TRUE(waitUntil(2000, [] { return plainRuns == 2; }));

    // Kill ends a running thread, which can then be joined; Detach lets one go.
    Body waiting;
    ASSERT_EQ(waiting.Create(&h, false, 0, false, false), 0);
    // Killed once it has slept: a Windows thread terminated inside the first sleep of its
    // life may hold the thread library's own lock, and every thread call after would wait.
    ASSERT_TRUE(waitUntil(2000, [&] { return waiting.polls >= 2; }));
    EXPECT_EQ(TThreadC<void>::Kill(h), 0);
    EXPECT_EQ(TThreadC<void>::Join(h), 0);
    EXPECT_EQ(waiting.selfJoin, -1);
    Body detached;
    detached.exitEarly = true;
    ASSERT_EQ(detached.Create(&h, false, 0, false, false), 0);
    EXPECT_EQ(TThreadC<void>::Detach(h), 0);
    EXPECT_TRUE(waitUntil(2000, [&] { return detached.runs == 1; }));
}

// A worker's static entry calls its member ...Func, whose loop sleeps, works and tests
// the stop flag. A running worker holds the timer at 1 ms, so that its short sleeps are
// not stretched to a coarse system tick; the last one to end gives it back.
struct Worker {
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    std::thread thread;
    int limit = -1; // a round past this number ends the loop

    static unsigned int onWorkThread(void* self) { return static_cast<Worker*>(self)->onWorkThreadFunc(); }
    unsigned int onWorkThreadFunc()
    {
        zt::workerLoop(stop, 2, [this] { return ++rounds != limit ? zt::Round::Idle : zt::Round::Stop; });
        return 0;
    }
};

TEST(WorkerConvention, StartStopAndEarlyEnd)
{
    Worker w;
    ASSERT_EQ(zt::startWorker(w.thread, &Worker::onWorkThread, &w, "test"), 0);
    const auto first = w.thread.get_id();
    ASSERT_EQ(zt::startWorker(w.thread, &Worker::onWorkThread, &w, "test"), 0); // not started again
    EXPECT_EQ(w.thread.get_id(), first);
    ASSERT_TRUE(waitUntil(2000, [&] { return w.rounds > 2; }));
    EXPECT_EQ(zt::FineTimer::holders(), 1);
    w.stop = true;
    zt::joinWorker(w.thread, "test");
    EXPECT_FALSE(w.thread.joinable());
    EXPECT_EQ(zt::FineTimer::holders(), 0);

    // A round may end the loop before the flag is set.
    Worker once;
    once.limit = 3;
    ASSERT_EQ(zt::startWorker(once.thread, &Worker::onWorkThread, &once, "test"), 0);
    zt::joinWorker(once.thread, "test");
    EXPECT_EQ(once.rounds, 3);
}

} // namespace
