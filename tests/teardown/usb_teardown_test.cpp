// Teardown under load of the USB device server on real libusb against the emulated head:
// frames stream and commands run from another thread when deInit (or the destructor
// alone) is called, with the process's threads and descriptors counted after each one.
//
// One process emulates one head, and each teardown waits out the transfer time-outs, so
// the 100 teardowns run in worker processes of this program (each with its own emulated
// head), started at once by the test and checked by their exit status.
#include "census.h"
#include "ztSimUsbHead.h"
#include "ztUsbProxyServer.h"

#include <gtest/gtest.h>
#include <libusb.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

using zt::test::Clock;
using zt::test::kAllowanceMs;
using zt::test::msSince;
using zt::test::runRounds;
using Head = ztSimUsbHead;

namespace {

constexpr char kWorkerRounds[] = "ZT_TEARDOWN_WORKER_ROUNDS";
constexpr int kWorkers = 5;
constexpr int kRoundsPerWorker = 20; // kWorkers x kRoundsPerWorker = 100 teardowns

// releaseClient waits 500 ms; the libusb event thread then leaves its 1 s event wait and
// lets the transfers still pending drain (their time-out is 1500 ms); the processing
// threads notice their flags within 10 ms; the buffers go once a command in flight has
// had its 3000 ms reply wait, since no reply can come once the control transfers stop.
constexpr long kUsbStopMs = 500 + 1000 + 1500 + 10 + 3000 + kAllowanceMs;
// Without a command in flight the destructor has the release, the event wait and the
// drain only.
constexpr long kUsbDestroyMs = 500 + 1000 + 1500 + 10 + kAllowanceMs;

// One worker's share: its figures go to standard output as "figures <deInit> <destroy>
// <commands>", its verdict is its exit status.
TEST(TeardownWorker, UsbServerRounds)
{
    const int rounds = std::atoi(std::getenv(kWorkerRounds));
    Head head;
    ASSERT_EQ(head.start(), 0);
    ASSERT_EQ(libusb_init(nullptr), 0);
    long longestDeInit = 0;
    long longestDestroy = 0;
    int commands = 0;
    const std::string body(4096, 'f');
    auto cycle = [&](int, int round) {
        libusb_device_handle* handle = libusb_open_device_with_vid_pid(nullptr, Head::kVendor, Head::kProduct);
        ASSERT_NE(handle, nullptr);
        ASSERT_EQ(libusb_claim_interface(handle, Head::kInterface), 0);
        std::atomic<int> frames{0};
        auto server = std::make_unique<ztUsbProxyServer>(Head::deviceInfo(), handle);
        server->registerModuleServerDataCB(
            [](int type, char*, int, void* user) {
                if (type == 1280)
                    ++*static_cast<std::atomic<int>*>(user);
            },
            &frames);
        ASSERT_EQ(server->init(), 0);
        head.startStream(Head::extendedPacket(1280, 1, body.data(), body.size()), 0, 5e5);
        const auto t0 = Clock::now();
        while (frames < 5 && msSince(t0) < 10000)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        EXPECT_GE(frames, 5);

        std::atomic<bool> stop{false};
        std::atomic<int> ok{0};
        std::atomic<int> calls{0};
        // Commands that wait for their reply, or, in every other deInit round, control
        // messages sent without a reply (each deInit that meets a command waiting for its
        // reply lasts the 3000 ms of that wait).
        const bool awaitReplies = round % 4 != 2;
        std::thread cmds([&] {
            int mode = 0;
            std::string text = "teardown";
            while (!stop) {
                ok += (awaitReplies ? server->getTriggerMode(&mode) : server->sendData(text)) == 0 ? 1 : 0;
                ++calls;
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        while (calls < 1)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));

        const auto t = Clock::now();
        if (round % 2 == 0) {
            server->deInit();
            longestDeInit = std::max(longestDeInit, msSince(t));
            EXPECT_LT(msSince(t), kUsbStopMs);
            stop = true;
            cmds.join();
            server.reset();
        } else {
            // Nobody may call into an object while it is destroyed: the commands stop
            // first, the stream keeps coming.
            stop = true;
            cmds.join();
            const auto d = Clock::now();
            server.reset();
            longestDestroy = std::max(longestDestroy, msSince(d));
            EXPECT_LT(msSince(d), kUsbDestroyMs);
        }
        commands += ok;
        head.stopStream();
        libusb_release_interface(handle, Head::kInterface);
        libusb_close(handle);
    };
    // The emulator starts some threads and descriptors of its own only once the device
    // has been used (and keeps them): one untimed cycle first, so that the counts start
    // from there.
    cycle(0, 1);
    runRounds(1, rounds, cycle);
    libusb_exit(nullptr);
    head.stop();
    std::printf("figures %ld %ld %d\n", longestDeInit, longestDestroy, commands);
    std::fflush(stdout);
}

TEST(Teardown, UsbServerWithStreamAndCommandsInFlight)
{
    const std::string rounds = std::string(kWorkerRounds) + "=" + std::to_string(kRoundsPerWorker);
    std::vector<char*> env;
    for (char** e = environ; *e != nullptr; ++e)
        env.push_back(*e);
    env.push_back(const_cast<char*>(rounds.c_str()));
    env.push_back(nullptr);
    char program[] = "/proc/self/exe";
    char filter[] = "--gtest_filter=TeardownWorker.UsbServerRounds";
    char* argv[] = {program, filter, nullptr};

    struct Worker {
        pid_t pid = -1;
        int out = -1;
        std::string text;
    };
    std::vector<Worker> workers(kWorkers);
    for (auto& w : workers) {
        int p[2];
        ASSERT_EQ(::pipe2(p, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, p[1], STDOUT_FILENO);
        ASSERT_EQ(::posix_spawn(&w.pid, program, &actions, nullptr, argv, env.data()), 0);
        posix_spawn_file_actions_destroy(&actions);
        ::close(p[1]);
        w.out = p[0];
    }

    // Every worker's output until it closes, within a bound for the whole set.
    const auto start = Clock::now();
    constexpr long kAllowedMs = 280000;
    for (auto& w : workers) {
        char buf[4096];
        for (;;) {
            pollfd pfd{w.out, POLLIN, 0};
            const long left = kAllowedMs - msSince(start);
            if (left <= 0 || ::poll(&pfd, 1, static_cast<int>(left)) <= 0)
                break;
            const ssize_t n = ::read(w.out, buf, sizeof buf);
            if (n <= 0)
                break;
            w.text.append(buf, static_cast<std::size_t>(n));
        }
        ::close(w.out);
    }
    long deInit = 0;
    long destroy = 0;
    long commands = 0;
    for (auto& w : workers) {
        // Its output closes as it exits; it is reaped a moment later.
        int status = 0;
        pid_t done = 0;
        while ((done = ::waitpid(w.pid, &status, WNOHANG)) == 0 && msSince(start) < kAllowedMs + 10000)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (done == 0) {
            ADD_FAILURE() << "worker " << w.pid << " still running after " << msSince(start) << " ms";
            ::kill(w.pid, SIGKILL);
            ::waitpid(w.pid, &status, 0);
        }
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << w.text;
        const auto at = w.text.find("figures ");
        long a = 0, b = 0, c = 0;
        ASSERT_NE(at, std::string::npos) << w.text;
        ASSERT_EQ(std::sscanf(w.text.c_str() + at, "figures %ld %ld %ld", &a, &b, &c), 3);
        deInit = std::max(deInit, a);
        destroy = std::max(destroy, b);
        commands += c;
    }
    EXPECT_GT(commands, 100);
    std::printf("ztUsbProxyServer: %d teardowns in %ld ms, longest deInit %ld ms, longest destructor %ld ms, "
                "%ld commands\n",
                kWorkers * kRoundsPerWorker, msSince(start), deInit, destroy, commands);
}

// A head that stops completing every transfer: deInit waits out the release, the event
// wait and the transfers' own time-out, and no more.
TEST(SilentPeer, UsbHead)
{
    Head head;
    ASSERT_EQ(head.start(), 0);
    ASSERT_EQ(libusb_init(nullptr), 0);
    libusb_device_handle* handle = libusb_open_device_with_vid_pid(nullptr, Head::kVendor, Head::kProduct);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(libusb_claim_interface(handle, Head::kInterface), 0);
    {
        ztUsbProxyServer server(Head::deviceInfo(), handle);
        ASSERT_EQ(server.init(), 0);
        head.setSilent(true);
        const auto t = Clock::now();
        server.deInit();
        EXPECT_LT(msSince(t), kUsbDestroyMs);
        std::printf("ztUsbProxyServer::deInit with a silent head returned in %ld ms (bound %ld ms)\n", msSince(t),
                    kUsbDestroyMs);
    }
    libusb_release_interface(handle, Head::kInterface);
    libusb_close(handle);
    libusb_exit(nullptr);
    head.stop();
}

} // namespace

// As the other USB test programs: without the umockdev preload the emulation cannot
// exist, and the program exits with 77 (skipped), or fails when ZT_REQUIRE_USB_EMULATION
// is set. The worker test runs only in the
// processes the test starts.
int main(int argc, char** argv)
{
    bool listing = false;
    for (int i = 1; i < argc; ++i)
        listing = listing || std::strncmp(argv[i], "--gtest_list_tests", 18) == 0;
    if (!listing && !ztSimUsbHead::emulationAvailable()) {
        const char* required = std::getenv("ZT_REQUIRE_USB_EMULATION");
        const bool fail = required != nullptr && *required != '\0';
        std::fprintf(stderr, "the umockdev preload is not active (LD_PRELOAD=libumockdev-preload.so.0)%s\n",
                     fail ? "" : ": skipped");
        return fail ? 1 : 77;
    }
    ::testing::InitGoogleTest(&argc, argv);
    if (std::getenv(kWorkerRounds) == nullptr) {
        std::string f = GTEST_FLAG_GET(filter);
        GTEST_FLAG_SET(filter, f + (f.find('-') == std::string::npos ? "-" : ":") + "TeardownWorker.*");
    }
    return RUN_ALL_TESTS();
}
