#include "netns.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

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

} // namespace

namespace zt::test {

namespace {

// Brings up the loopback interface of the caller's network namespace.
bool loopbackUp()
{
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
    return loopbackUp() && std::system("ip route add 255.255.255.255/32 dev lo 2>/dev/null") == 0;
}

bool enterThreadNetwork()
{
    return ::unshare(CLONE_NEWNET) == 0 && loopbackUp();
}

} // namespace zt::test
