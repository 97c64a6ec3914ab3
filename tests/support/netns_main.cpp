// main() of the test programs that use the protocol's fixed ports: the process first moves
// into a network namespace of its own, with only a loopback interface, so that tests
// running in parallel never meet on a port and no packet leaves the process's namespace.
// A route sends the limited broadcast address to that loopback, so UDP broadcasts made by
// a test arrive on loopback and nowhere else.
#include <gtest/gtest.h>

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>

namespace {

bool writeFile(const char* path, const std::string& text)
{
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return ok;
}

bool enterPrivateNetwork()
{
    if (::unshare(CLONE_NEWNET) != 0) {
        // Without the right to make a namespace directly, make a user namespace that
        // grants it, mapping the caller to root inside.
        const uid_t uid = ::getuid();
        const gid_t gid = ::getgid();
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
            return false;
        writeFile("/proc/self/setgroups", "deny");
        if (!writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
            !writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"))
            return false;
    }
    const int s = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0)
        return false;
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ::ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
    ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP | IFF_RUNNING);
    ok = ok && ::ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    ::close(s);
    return ok;
}

} // namespace

int main(int argc, char** argv)
{
    if (!enterPrivateNetwork()) {
        std::fprintf(stderr, "cannot enter a private network namespace: %s\n", std::strerror(errno));
        return 1;
    }
    if (std::system("ip route add 255.255.255.255/32 dev lo 2>/dev/null") != 0) {
        std::fprintf(stderr, "cannot route broadcasts to loopback in the private namespace\n");
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
