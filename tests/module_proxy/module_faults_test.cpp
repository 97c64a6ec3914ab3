// The host when the module's process dies. The module runs in a child process made by
// fork() before this process starts any thread; the child starts its library objects only
// after the fork, and ends with _exit on any failure.
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

bool readByte(int fd, int timeoutMs)
{
    pollfd pfd{fd, POLLIN, 0};
    char c = 0;
    return ::poll(&pfd, 1, timeoutMs) == 1 && ::read(fd, &c, 1) == 1;
}

// A child process that waits for go(), then runs a simulated module (its ports may still be
// held for a moment by a module just killed) until its input closes. It dies with the
// parent, or by an alarm should the parent never let it go.
class ModuleProcess {
public:
    bool start()
    {
        int down[2];
        if (::pipe(down) != 0)
            return false;
        m_pid = ::fork();
        if (m_pid == 0) {
            ::close(down[1]);
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::alarm(120);
            if (!readByte(down[0], 60000))
                ::_exit(2);
            ztSimModule module;
            if (!waitUntil(3000, [&] { return module.start() == 0; }))
                ::_exit(3);
            readByte(down[0], 100000);
            module.stop();
            ::_exit(0);
        }
        ::close(down[0]);
        m_out = down[1];
        return m_pid > 0;
    }
    bool go() { return ::write(m_out, "g", 1) == 1; }
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
    ~ModuleProcess() { kill(); }

private:
    pid_t m_pid = -1;
    int m_out = -1;
};

TEST(ModuleFaults, ModuleProcessKilledMidRequestAndStartedAgain)
{
    ModuleProcess first, second;
    // Both module processes are made now, while this process has no thread.
    ASSERT_TRUE(first.start() && second.start());
    ASSERT_TRUE(first.go());
    LogCapture log;
    ztModuleProxyServer host;
    ASSERT_EQ(host.init("127.0.0.1"), 0);
    ASSERT_TRUE(host.waitRegistered(8000));
    _ZT_HEARTBEAT_INFO_ hb{};
    EXPECT_EQ(host.heartbeat(&hb), 0);
    EXPECT_EQ(hb.deviceCount, 1);

    // The module process, stopped so that it cannot answer, dies while a request waits:
    // the request fails at the end of its 4001 ms reply window, and the failing heartbeat
    // releases the session (the host's receive threads do not notice the reset).
    first.freeze();
    // The request is under way (its send takes no time) before the process dies.
    std::thread killer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        first.kill();
    });
    const auto t = Clock::now();
    EXPECT_EQ(host.heartbeat(&hb), -1);
    const long took = msSince(t);
    killer.join();
    EXPECT_GE(took, 3900);
    EXPECT_LT(took, 4001 + 600 + 1000);
    EXPECT_EQ(log.count("req-send failed: nret:-1"), 1);
    hb.deviceCount = 42;
    EXPECT_EQ(host.heartbeat(&hb), -1); // the dead session, or no session at all
    EXPECT_EQ(hb.deviceCount, 42);

    // The session is released; with a new module process the host connects again and
    // registers after 2000 ms.
    ASSERT_TRUE(waitUntil(2000, [&] { return !host.isRegistered(); }));
    const auto restarted = Clock::now();
    ASSERT_TRUE(second.go() && host.waitRegistered(8000));
    EXPECT_GE(msSince(restarted), 1900);
    EXPECT_EQ(host.heartbeat(&hb), 0);
    EXPECT_EQ(hb.deviceCount, 1);
    // The module ends first, so that the host's data receive sees the connection close.
    EXPECT_EQ(second.finish(5000), 0);
}

} // namespace
