// The module proxy when one end's process dies. The other end runs in a child
// process made by fork() before this process starts any thread; the child starts its
// library objects only after the fork, and ends with _exit on any failure.
#include "support/fault_scenario.h"
#include "support/log_capture.h"
#include "ztModuleProxyServer.h"
#include "ztSimModule.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zt::test;

namespace {

bool say(int fd, char c)
{
    return ::write(fd, &c, 1) == 1;
}

bool readBytes(int fd, void* p, std::size_t n, int timeoutMs)
{
    pollfd pfd{fd, POLLIN, 0};
    return ::poll(&pfd, 1, timeoutMs) == 1 && ::read(fd, p, n) == static_cast<ssize_t>(n);
}

// A child process with a pipe each way: it waits for go(), then runs body(in, out), which
// holds on until its input closes. It dies with the parent, or by an alarm should the parent
// never let it go.
class Child {
public:
    template <class Body>
    bool start(Body body)
    {
        int down[2], up[2];
        if (::pipe(down) != 0 || ::pipe(up) != 0)
            return false;
        m_pid = ::fork();
        if (m_pid == 0) {
            ::close(down[1]);
            ::close(up[0]);
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::alarm(120);
            char c = 0;
            if (!readBytes(down[0], &c, 1, 60000))
                ::_exit(2);
            body(down[0], up[1]);
            ::_exit(0);
        }
        ::close(down[0]);
        ::close(up[1]);
        m_out = down[1];
        m_in = up[0];
        return m_pid > 0;
    }
    bool go() { return say(m_out, 'g'); }
    // The next byte from the child is want.
    bool expect(char want, int timeoutMs)
    {
        char c = 0;
        return readBytes(m_in, &c, 1, timeoutMs) && c == want;
    }
    // The child holds its connections but does nothing; returns once every thread of it has
    // stopped (a stop only asked for may still let a running thread answer).
    void freeze()
    {
        ::kill(m_pid, SIGSTOP);
        ::waitpid(m_pid, nullptr, WUNTRACED);
    }
    void kill()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
            m_pid = -1;
        }
    }
    // Closes the child's input and returns its exit status (-1: killed after timeoutMs).
    int finish(int timeoutMs)
    {
        ::close(m_out);
        int status = 0;
        if (!waitUntil(timeoutMs, [&] { return ::waitpid(m_pid, &status, WNOHANG) == m_pid; })) {
            kill();
            return -1;
        }
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    ~Child() { kill(); }

private:
    pid_t m_pid = -1;
    int m_out = -1;
    int m_in = -1;
};

// Child body: runs a simulated module (its ports may still be held for a moment by a module
// just killed); says 'r' once it listens and 's' once a host asked to register.
void moduleProcess(int in, int out)
{
    ztSimModule module;
    if (!waitUntil(3000, [&] { return module.start() == 0; }))
        ::_exit(3);
    say(out, 'r');
    ztSimModule::Request r{};
    while (r.code != 1)
        if (!module.nextRequest(r, 10000))
            ::_exit(4);
    say(out, 's');
    char c = 0;
    readBytes(in, &c, 1, 100000);
}

TEST(ModuleFaults, ModuleProcessKilledMidRequestAndStartedAgain)
{
    Child first, second;
    // Both module processes are made now, while this process has no thread.
    ASSERT_TRUE(first.start(&moduleProcess) && second.start(&moduleProcess));
    ASSERT_TRUE(first.go() && first.expect('r', 5000));
    LogCapture log;
    ztModuleProxyServer host;
    ASSERT_EQ(host.init("127.0.0.1"), 0);
    ASSERT_TRUE(first.expect('s', 6000) && host.waitRegistered(2000));
    _ZT_HEARTBEAT_INFO_ hb{};
    EXPECT_EQ(host.heartbeat(&hb), 0);
    EXPECT_EQ(hb.deviceCount, 1);

    // The module process, stopped so that it cannot answer, dies while a request waits:
    // the request fails at the end of its 4001 ms reply window, and the failing heartbeat
    // releases the session (the host's receive threads do not notice the reset).
    first.freeze();
    // The request is under way (its send takes no time) before the process dies.
    std::atomic<bool> asked{false};
    std::thread killer([&] {
        waitUntil(5000, [&] { return asked.load(); });
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        first.kill();
    });
    const long took = returnsWithin(10000 + kSanitizerSlackMs, "heartbeat", [&] {
        asked = true;
        EXPECT_EQ(host.heartbeat(&hb), -1);
    });
    killer.join();
    EXPECT_GE(took, 3900);
    EXPECT_LT(took, 4001 + 600 + 1000);
    EXPECT_EQ(log.count("req-send failed: nret:-1"), 1);
    hb.deviceCount = 42;
    EXPECT_EQ(host.heartbeat(&hb), -1); // the dead session, or no session at all
    EXPECT_EQ(hb.deviceCount, 42);

    // A new module process: the host connects again and registers after 2000 ms.
    ASSERT_TRUE(second.go() && second.expect('r', 5000));
    const auto restarted = Clock::now();
    ASSERT_TRUE(second.expect('s', 8000));
    EXPECT_GE(msSince(restarted), 1900);
    ASSERT_TRUE(host.waitRegistered(2000));
    EXPECT_EQ(host.heartbeat(&hb), 0);
    EXPECT_EQ(hb.deviceCount, 1);
    std::string version;
    EXPECT_EQ(host.getFirmwareVersion(version), 0);
    EXPECT_EQ(version, "ZT-MOD 2.4.1");
    // The module ends first, so that the host's data receive sees the connection close.
    EXPECT_EQ(second.finish(5000), 0);
}

// Child body: runs a host and says 'r' once it has registered and a request succeeded.
// With answer set, it answers SET file size queries with 4242.
void hostProcess(int in, int out, bool answer)
{
    ztModuleProxyServer host;
    if (answer)
        host.registerModuleServerDataCB(
            [](int code, char*, int, void* h) {
                if (code == 0x20002)
                    static_cast<ztModuleProxyServer*>(h)->sendSETFileSizeRep(4242);
            },
            &host);
    _ZT_HEARTBEAT_INFO_ hb{};
    if (host.init("127.0.0.1") != 0 || !host.waitRegistered(8000) || host.heartbeat(&hb) != 0)
        ::_exit(3);
    say(out, 'r');
    char c = 0;
    readBytes(in, &c, 1, 100000);
}

TEST(ModuleFaults, HostProcessKilledWhileTheModuleWaitsForAFile)
{
    Child silent, answering;
    ASSERT_TRUE(silent.start([](int in, int out) { hostProcess(in, out, false); }));
    ASSERT_TRUE(answering.start([](int in, int out) { hostProcess(in, out, true); }));
    LogCapture log;
    ztSimModule module;
    ASSERT_EQ(module.start(), 0);
    ASSERT_TRUE(silent.go() && silent.expect('r', 10000));

    // The host process dies while the module waits for the size: the query still waits
    // out its whole 5000 ms and fails with its log line.
    unsigned int size = 7;
    std::atomic<bool> asked{false};
    std::thread killer([&] {
        waitUntil(5000, [&] { return asked.load(); });
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        silent.kill();
        EXPECT_TRUE(answering.go()); // connects and registers while the query waits
    });
    const long took = returnsWithin(10000 + kSanitizerSlackMs, "getSETFileSize", [&] {
        asked = true;
        EXPECT_EQ(module.client().getSETFileSize("scanner", "set-1", &size), -1);
    });
    killer.join();
    EXPECT_GE(took, 4950);
    EXPECT_LT(took, 5000 + 1000);
    EXPECT_EQ(size, 7u);
    EXPECT_EQ(log.count("getSETFileSize m_data_server->recv failed\r\n"), 1);

    // The module side goes on: the next host answers the module's query.
    ASSERT_TRUE(answering.expect('r', 10000));
    EXPECT_EQ(module.client().getSETFileSize("scanner", "set-1", &size), 0);
    EXPECT_EQ(size, 4242u);
    module.stop(); // the host's data receive sees the connection close
    EXPECT_EQ(answering.finish(5000), 0);
}

} // namespace
