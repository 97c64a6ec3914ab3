#include "TThreadC.h"
#include "foundation/ztWorker.h"

#include <gtest/gtest.h>

#ifndef _WIN32
#  include <sys/resource.h>
#endif

#include <atomic>
#include <chrono>
#include <thread>

namespace {

class Counter : public TThreadC<void> {
public:
    std::atomic<int> runs{0};
    std::atomic<bool> afterExit{false};
    std::atomic<int> selfId{0};
    bool exitEarly = false;
    void Run() override
    {
        selfId = Self();
        ++runs;
        if (exitEarly) {
            Exit();
            afterExit = true; // never reached
        }
    }
};

TEST(TThreadC, CreateRunsTheBodyAndJoinClosesAnEndedThread)
{
    Counter c;
    unsigned long id = 0;
    void* handle = reinterpret_cast<void*>(0x1); // cleared by Create
    void** out = &handle;
    ASSERT_EQ(c.Create(id, out, false, 0, false, false), 0);
    EXPECT_NE(handle, nullptr);
    EXPECT_NE(id, 0ul);
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // let it end first
    EXPECT_EQ(TThreadC<void>::Join(handle), 0);
    EXPECT_EQ(c.runs, 1);
    // The id Create hands back is the one the thread sees as its own, as on Windows.
    EXPECT_EQ(static_cast<unsigned long>(c.selfId.load()), id);
    EXPECT_NE(c.selfId, TThreadC<void>::Self());

    // Exit ends the body where it is called.
    Counter early;
    early.exitEarly = true;
    void* h2 = nullptr;
    void** out2 = &h2;
    ASSERT_EQ(early.Create(out2, false, 64 * 1024, false, false), 0);
    EXPECT_EQ(TThreadC<void>::Join(h2), 0);
    EXPECT_EQ(early.runs, 1);
    EXPECT_FALSE(early.afterExit);

    // Without a place for the handle the thread still runs.
    Counter anonymous;
    void** none = nullptr;
    ASSERT_EQ(anonymous.Create(none, true, 0, false, false), 0);
    for (int i = 0; i < 200 && anonymous.runs == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(anonymous.runs, 1);
}

std::atomic<int> plainRuns{0};
void plainFunction()
{
    ++plainRuns;
}

TEST(TThreadC, StaticCreateAndDetachedThreads)
{
    void* handle = nullptr;
    void** out = &handle;
    ASSERT_EQ(TThreadC<void>::Create(&plainFunction, out, false, 0, false, false), 0);
    EXPECT_EQ(TThreadC<void>::Join(handle), 0);
    EXPECT_EQ(plainRuns, 1);

    // Detached: 0, the handle is stored, and the thread runs to its end by itself.
    void* detached = nullptr;
    void** dout = &detached;
    ASSERT_EQ(TThreadC<void>::Create(&plainFunction, dout, true, 0, false, false), 0);
    EXPECT_NE(detached, nullptr);
    for (int i = 0; i < 200 && plainRuns < 2; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(plainRuns, 2);

    // Detach of a running thread's handle.
    Counter c;
    void* h = nullptr;
    void** hout = &h;
    ASSERT_EQ(c.Create(hout, false, 0, false, false), 0);
    EXPECT_EQ(TThreadC<void>::Detach(h), 0);
    for (int i = 0; i < 200 && c.runs == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(c.runs, 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(5)); // let it leave Run before c goes
}

class SelfJoiner : public TThreadC<void> {
public:
    void* handle = nullptr;
    std::atomic<bool> started{false};
    std::atomic<int> selfJoin{-1};
    void Run() override
    {
        while (!started)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        selfJoin = Join(handle);
    }
};

class Sleeper : public TThreadC<void> {
public:
    std::atomic<bool> finished{false};
    void Run() override
    {
        for (int i = 0; i < 1000; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10)); // a cancellation point
        finished = true;
    }
};

TEST(TThreadC, FailureCodes)
{
    // 22: no thread behind a null handle, and a thread that waits for itself.
    EXPECT_EQ(TThreadC<void>::Join(nullptr), 22);
    EXPECT_EQ(TThreadC<void>::Detach(nullptr), 22);
    EXPECT_EQ(TThreadC<void>::Kill(nullptr), 22);

    SelfJoiner s;
    void** out = &s.handle;
    ASSERT_EQ(s.Create(out, false, 0, false, false), 0);
    s.started = true;
    EXPECT_EQ(TThreadC<void>::Join(s.handle), 0);
    EXPECT_EQ(s.selfJoin, 22);

    // Kill ends a running thread, which can then be joined.
    Sleeper sleeper;
    void* h = nullptr;
    void** hout = &h;
    ASSERT_EQ(sleeper.Create(hout, false, 0, false, false), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(TThreadC<void>::Kill(h), 0);
    EXPECT_EQ(TThreadC<void>::Join(h), 0);
    EXPECT_FALSE(sleeper.finished);

    TThreadC<void>::TestCancel(); // yields, nothing more
}

#ifndef _WIN32
TEST(TThreadCDeathTest, CreateReportsThePlatformErrorWhenNoThreadCanBeMade)
{
    // With no address space left for a thread stack the platform refuses with EAGAIN,
    // which Create hands back as 11, leaving the handle null.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's runtime cannot live within the address-space limit this test sets";
#endif
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            rlimit limit{};
            getrlimit(RLIMIT_AS, &limit);
            limit.rlim_cur = 64ull << 20;
            setrlimit(RLIMIT_AS, &limit);
            Counter c;
            void* handle = reinterpret_cast<void*>(0x1);
            void** out = &handle;
            const int rc = c.Create(out, false, 512u << 20, false, false);
            std::_Exit(rc == 11 && handle == nullptr ? 0 : 100 + rc);
        },
        ::testing::ExitedWithCode(0), "");
}
#endif

// The worker convention: a static entry calling the member ...Func, a loop that sleeps,
// works and tests the stop flag, and a join that clears the handle.
class Worker {
public:
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    std::thread thread;
    int limit = -1; // a round past this number ends the loop

    static unsigned int onWorkThread(void* self) { return static_cast<Worker*>(self)->onWorkThreadFunc(); }
    unsigned int onWorkThreadFunc()
    {
        zt::workerLoop(stop, 2, [this] { return ++rounds != limit; });
        return 0;
    }
};

TEST(WorkerConvention, StartStopAndEarlyEnd)
{
    Worker w;
    ASSERT_EQ(zt::startWorker(w.thread, &Worker::onWorkThread, &w, "test"), 0);
    const auto first = w.thread.get_id();
    // A worker that runs is not started again.
    ASSERT_EQ(zt::startWorker(w.thread, &Worker::onWorkThread, &w, "test"), 0);
    EXPECT_EQ(w.thread.get_id(), first);
    // A running worker holds the timer at 1 ms, so that its short sleeps are not stretched
    // to a coarse system tick; the last one to end gives it back.
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(zt::FineTimer::holders(), 1);
    w.stop = true;
    zt::joinWorker(w.thread, "test");
    EXPECT_FALSE(w.thread.joinable());
    EXPECT_EQ(zt::FineTimer::holders(), 0);
    const int seen = w.rounds;
    EXPECT_GT(seen, 2);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(w.rounds, seen);
    zt::joinWorker(w.thread, "test"); // nothing left to join

    // A round may end the loop before the flag is set.
    Worker once;
    once.limit = 3;
    ASSERT_EQ(zt::startWorker(once.thread, &Worker::onWorkThread, &once, "test"), 0);
    zt::joinWorker(once.thread, "test");
    EXPECT_EQ(once.rounds, 3);
}

} // namespace
