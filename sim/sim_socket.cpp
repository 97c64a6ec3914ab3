#include "sim_socket.h"

#ifdef _WIN32
#  ifndef WIN32_LEAN_AND_MEAN
#    define WIN32_LEAN_AND_MEAN
#  endif
#  include <winsock2.h>
#  include <ws2tcpip.h>
#else
#  include <arpa/inet.h>
#  include <netinet/in.h>
#  include <netinet/tcp.h>
#  include <poll.h>
#  include <sys/eventfd.h>
#  include <sys/socket.h>
#  include <unistd.h>
#  include <cerrno>
#endif

#include <algorithm>
#include <climits>

namespace zt::simnet {

namespace {

#ifdef _WIN32
using Native = SOCKET;
using PollFd = WSAPOLLFD;
constexpr short kReadEvents = POLLRDNORM;
constexpr short kClosedEvents = POLLHUP | POLLERR;

void startWinsock()
{
    static const bool started = [] {
        WSADATA data;
        return WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }();
    (void)started;
}
Socket wrap(Native s) { return s == INVALID_SOCKET ? kNoSocket : static_cast<Socket>(s); }
int pollNative(PollFd* p, int n, int timeoutMs) { return ::WSAPoll(p, static_cast<ULONG>(n), timeoutMs); }
void setNonBlocking(Socket s, bool on)
{
    u_long v = on ? 1 : 0;
    ::ioctlsocket(static_cast<Native>(s), FIONBIO, &v);
}
int clampLength(std::size_t n) { return static_cast<int>(std::min<std::size_t>(n, INT_MAX)); }
#else
using Native = int;
using PollFd = pollfd;
constexpr short kReadEvents = POLLIN | POLLRDHUP;
constexpr short kClosedEvents = POLLRDHUP | POLLHUP | POLLERR;

void startWinsock() {}
Socket wrap(Native s) { return s < 0 ? kNoSocket : static_cast<Socket>(s); }
int pollNative(PollFd* p, int n, int timeoutMs) { return ::poll(p, static_cast<nfds_t>(n), timeoutMs); }
#endif

Native native(Socket s) { return static_cast<Native>(s); }

sockaddr_in toSockaddr(const Endpoint& e)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(e.address);
    a.sin_port = htons(e.port);
    return a;
}

Endpoint fromSockaddr(const sockaddr_in& a)
{
    return Endpoint{ntohl(a.sin_addr.s_addr), ntohs(a.sin_port)};
}

} // namespace

std::string Endpoint::text() const
{
    return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 0xFF) + "." +
           std::to_string((address >> 8) & 0xFF) + "." + std::to_string(address & 0xFF) + ":" + std::to_string(port);
}

bool parseIPv4(const std::string& text, std::uint32_t& address)
{
    in_addr a{};
    if (::inet_pton(AF_INET, text.c_str(), &a) != 1)
        return false;
    address = ntohl(a.s_addr);
    return true;
}

Socket openTcp(bool nonBlocking)
{
    startWinsock();
#ifdef _WIN32
    const Socket s = wrap(::socket(AF_INET, SOCK_STREAM, 0));
    if (s != kNoSocket && nonBlocking)
        setNonBlocking(s, true);
    return s;
#else
    return wrap(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0), 0));
#endif
}

void closeSocket(Socket s)
{
    if (s == kNoSocket)
        return;
#ifdef _WIN32
    ::closesocket(native(s));
#else
    ::close(native(s));
#endif
}

void resetSocket(Socket s)
{
    const linger abort{1, 0};
    ::setsockopt(native(s), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&abort), sizeof abort);
    closeSocket(s);
}

void shutdownBoth(Socket s)
{
#ifdef _WIN32
    ::shutdown(native(s), SD_BOTH);
#else
    ::shutdown(native(s), SHUT_RDWR);
#endif
}

void setNoDelay(Socket s)
{
    const int one = 1;
    ::setsockopt(native(s), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof one);
}

bool listenOn(Socket s, const std::string& ip, int port, int backlog, int& boundPort)
{
    const int one = 1;
#ifdef _WIN32
    // Winsock's SO_REUSEADDR would let a second listener share the port.
    ::setsockopt(native(s), SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&one), sizeof one);
#else
    // Only lets a new listener past connections of an old one that linger.
    ::setsockopt(native(s), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
#endif
    Endpoint e{0, static_cast<std::uint16_t>(port)};
    if (!parseIPv4(ip, e.address))
        return false;
    sockaddr_in a = toSockaddr(e);
    socklen_t len = sizeof a;
    if (::bind(native(s), reinterpret_cast<const sockaddr*>(&a), len) != 0 || ::listen(native(s), backlog) != 0 ||
        ::getsockname(native(s), reinterpret_cast<sockaddr*>(&a), &len) != 0)
        return false;
    boundPort = ntohs(a.sin_port);
    return true;
}

bool relisten(Socket s, int backlog)
{
    return ::listen(native(s), backlog) == 0;
}

Socket acceptFrom(Socket listener, Endpoint& peer, bool nonBlocking)
{
    sockaddr_in a{};
    socklen_t len = sizeof a;
#ifdef _WIN32
    const Socket s = wrap(::accept(native(listener), reinterpret_cast<sockaddr*>(&a), &len));
    // An accepted socket inherits the listener's mode on Winsock.
    if (s != kNoSocket)
        setNonBlocking(s, nonBlocking);
#else
    const Socket s = wrap(::accept4(native(listener), reinterpret_cast<sockaddr*>(&a), &len,
                                    SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0)));
#endif
    if (s != kNoSocket)
        peer = fromSockaddr(a);
    return s;
}

bool startConnect(Socket s, const Endpoint& to)
{
    const sockaddr_in a = toSockaddr(to);
    if (::connect(native(s), reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0)
        return true;
#ifdef _WIN32
    return ::WSAGetLastError() == WSAEWOULDBLOCK;
#else
    return errno == EINPROGRESS;
#endif
}

bool localEndpoint(Socket s, Endpoint& out)
{
    sockaddr_in a{};
    socklen_t len = sizeof a;
    if (::getsockname(native(s), reinterpret_cast<sockaddr*>(&a), &len) != 0)
        return false;
    out = fromSockaddr(a);
    return true;
}

Socket openUdp(const std::string& ip, int port)
{
    startWinsock();
    Endpoint e{0, static_cast<std::uint16_t>(port)};
    if (!parseIPv4(ip, e.address))
        return kNoSocket;
    const Socket s = wrap(::socket(AF_INET, SOCK_DGRAM, 0));
    const sockaddr_in a = toSockaddr(e);
    if (s == kNoSocket || ::bind(native(s), reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) {
        closeSocket(s);
        return kNoSocket;
    }
    return s;
}

long sendTo(Socket s, const char* p, std::size_t n, const Endpoint& to)
{
    const sockaddr_in a = toSockaddr(to);
#ifdef _WIN32
    return ::sendto(native(s), p, clampLength(n), 0, reinterpret_cast<const sockaddr*>(&a), sizeof a);
#else
    return ::sendto(native(s), p, n, 0, reinterpret_cast<const sockaddr*>(&a), sizeof a);
#endif
}

long recvFrom(Socket s, char* p, std::size_t n, Endpoint& from)
{
    sockaddr_in a{};
    socklen_t len = sizeof a;
#ifdef _WIN32
    const long r = ::recvfrom(native(s), p, clampLength(n), 0, reinterpret_cast<sockaddr*>(&a), &len);
#else
    const long r = ::recvfrom(native(s), p, n, 0, reinterpret_cast<sockaddr*>(&a), &len);
#endif
    if (r >= 0)
        from = fromSockaddr(a);
    return r;
}

long sendSome(Socket s, const char* p, std::size_t n)
{
#ifdef _WIN32
    return ::send(native(s), p, clampLength(n), 0);
#else
    // MSG_NOSIGNAL: a peer that has gone away gives EPIPE, not a signal.
    return ::send(native(s), p, n, MSG_NOSIGNAL);
#endif
}

long recvSome(Socket s, char* p, std::size_t n)
{
#ifdef _WIN32
    return ::recv(native(s), p, clampLength(n), 0);
#else
    return ::recv(native(s), p, n, 0);
#endif
}

long sendNow(Socket s, const char* p, std::size_t n)
{
#ifdef _WIN32
    setNonBlocking(s, true);
    const long r = sendSome(s, p, n);
    const int e = ::WSAGetLastError();
    setNonBlocking(s, false);
    ::WSASetLastError(e);
    return r;
#else
    return ::send(native(s), p, n, MSG_NOSIGNAL | MSG_DONTWAIT);
#endif
}

bool tryAgain()
{
#ifdef _WIN32
    const int e = ::WSAGetLastError();
    return e == WSAEWOULDBLOCK || e == WSAEINTR;
#else
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
#endif
}

int waitFor(Wait* w, int n, int timeoutMs)
{
    PollFd p[4] = {};
    n = std::clamp(n, 0, 4);
    for (int i = 0; i < n; ++i) {
        p[i].fd = native(w[i].s);
        p[i].events = static_cast<short>(((w[i].events & kReadable) ? kReadEvents : 0) |
                                         ((w[i].events & kWritable) ? POLLOUT : 0));
    }
    const int r = pollNative(p, n, timeoutMs);
    for (int i = 0; i < n; ++i) {
        const short got = r > 0 ? p[i].revents : 0;
        w[i].revents = static_cast<short>(((got & (POLLIN | POLLRDNORM)) ? kReadable : 0) |
                                          ((got & POLLOUT) ? kWritable : 0) | ((got & kClosedEvents) ? kClosed : 0));
    }
    return r;
}

bool peerGone(Socket s)
{
    Wait w{s, kReadable, 0};
    if (waitFor(&w, 1, 0) != 1)
        return false;
    if (w.revents & kClosed)
        return true;
#ifdef _WIN32
    // Winsock has no event for a half-closed peer: a readable socket with no byte to peek
    // at is one.
    char c = 0;
    return ::recv(native(s), &c, 1, MSG_PEEK) == 0;
#else
    return false;
#endif
}

#ifdef _WIN32
// Winsock cannot poll an event object: a UDP socket connected to itself over loopback
// carries the wake-ups instead.
Signal::Signal()
{
    startWinsock();
    const Native r = ::socket(AF_INET, SOCK_DGRAM, 0);
    const Native w = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a = toSockaddr(Endpoint{INADDR_LOOPBACK, 0});
    int len = sizeof a;
    if (r == INVALID_SOCKET || w == INVALID_SOCKET || ::bind(r, reinterpret_cast<sockaddr*>(&a), len) != 0 ||
        ::getsockname(r, reinterpret_cast<sockaddr*>(&a), &len) != 0 ||
        ::connect(w, reinterpret_cast<sockaddr*>(&a), len) != 0) {
        closeSocket(wrap(r));
        closeSocket(wrap(w));
        return;
    }
    m_read = wrap(r);
    m_write = wrap(w);
    setNonBlocking(m_read, true);
}

Signal::~Signal()
{
    closeSocket(m_read);
    closeSocket(m_write);
}

void Signal::raise()
{
    const char one = 1;
    ::send(native(m_write), &one, 1, 0);
}

void Signal::clear()
{
    char b[64];
    while (::recv(native(m_read), b, sizeof b, 0) > 0) {
    }
}
#else
Signal::Signal()
{
    m_read = wrap(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    m_write = m_read;
}

Signal::~Signal()
{
    closeSocket(m_read);
}

void Signal::raise()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t r = ::write(native(m_write), &one, sizeof one);
}

void Signal::clear()
{
    std::uint64_t v = 0;
    while (::read(native(m_read), &v, sizeof v) > 0) {
    }
}
#endif

} // namespace zt::simnet
