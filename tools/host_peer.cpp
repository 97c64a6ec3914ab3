#include "host_peer.h"

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
#  include <sys/socket.h>
#  include <unistd.h>
#  include <cerrno>
#endif

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

namespace zt::tools {

namespace {

// The few socket calls that differ between BSD sockets and Winsock.
#ifdef _WIN32
using Socket = SOCKET;
struct WinsockUp {
    WinsockUp()
    {
        WSADATA data;
        WSAStartup(MAKEWORD(2, 2), &data);
    }
};

Socket openTcp()
{
    static const WinsockUp up;
    return ::socket(AF_INET, SOCK_STREAM, 0);
}
bool valid(Socket s) { return s != INVALID_SOCKET; }
void closeSocket(std::intptr_t s) { ::closesocket(static_cast<Socket>(s)); }
int pollOne(std::intptr_t s, short events, int timeoutMs)
{
    WSAPOLLFD p{static_cast<Socket>(s), events, 0};
    return ::WSAPoll(&p, 1, timeoutMs);
}
long sendBlocking(std::intptr_t s, const char* p, std::size_t n)
{
    return ::send(static_cast<Socket>(s), p, static_cast<int>(std::min<std::size_t>(n, 1 << 30)), 0);
}
// A send that takes only what fits now: -1 with wouldBlock set when nothing did.
long sendNow(std::intptr_t s, const char* p, std::size_t n, bool& wouldBlock)
{
    u_long on = 1, off = 0;
    ::ioctlsocket(static_cast<Socket>(s), FIONBIO, &on);
    const long r = sendBlocking(s, p, n);
    wouldBlock = r < 0 && ::WSAGetLastError() == WSAEWOULDBLOCK;
    ::ioctlsocket(static_cast<Socket>(s), FIONBIO, &off);
    return r;
}
long recvSome(std::intptr_t s, char* p, std::size_t n)
{
    return ::recv(static_cast<Socket>(s), p, static_cast<int>(n), 0);
}
std::intptr_t acceptOne(std::intptr_t s)
{
    const Socket fd = ::accept(static_cast<Socket>(s), nullptr, nullptr);
    return fd == INVALID_SOCKET ? -1 : static_cast<std::intptr_t>(fd);
}
#else
using Socket = int;
Socket openTcp() { return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }
bool valid(Socket s) { return s >= 0; }
void closeSocket(std::intptr_t s) { ::close(static_cast<int>(s)); }
int pollOne(std::intptr_t s, short events, int timeoutMs)
{
    pollfd p{static_cast<int>(s), events, 0};
    return ::poll(&p, 1, timeoutMs);
}
long sendBlocking(std::intptr_t s, const char* p, std::size_t n)
{
    return ::send(static_cast<int>(s), p, n, MSG_NOSIGNAL);
}
long sendNow(std::intptr_t s, const char* p, std::size_t n, bool& wouldBlock)
{
    const long r = ::send(static_cast<int>(s), p, n, MSG_NOSIGNAL | MSG_DONTWAIT);
    wouldBlock = r < 0 && errno == EAGAIN;
    return r;
}
long recvSome(std::intptr_t s, char* p, std::size_t n)
{
    return ::recv(static_cast<int>(s), p, n, 0);
}
std::intptr_t acceptOne(std::intptr_t s)
{
    return ::accept4(static_cast<int>(s), nullptr, nullptr, SOCK_CLOEXEC);
}
#endif

void setNoDelay(std::intptr_t s)
{
    int one = 1;
    ::setsockopt(static_cast<Socket>(s), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof one);
}

using Clock = std::chrono::steady_clock;

int msLeft(Clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

template <class T>
T get(const char* p)
{
    T value;
    std::memcpy(&value, p, sizeof(T));
    return value;
}

} // namespace

std::vector<char> proxyMessage(std::int32_t type, std::uint32_t subType, const void* payload, std::int32_t length)
{
    const std::size_t n = payload != nullptr && length > 0 ? static_cast<std::size_t>(length) : 0;
    std::vector<char> out(16 + n, 0);
    const std::uint16_t magic = 0x2324;
    // The host byte order is little-endian: the fields are copied as they are.
    std::memcpy(out.data(), &magic, 2);
    std::memcpy(out.data() + 4, &type, 4);
    std::memcpy(out.data() + 8, &subType, 4);
    std::memcpy(out.data() + 12, &length, 4);
    if (n > 0)
        std::memcpy(out.data() + 16, payload, n);
    return out;
}

std::vector<char> bytes(std::initializer_list<int> values)
{
    std::vector<char> out;
    for (const int v : values)
        out.push_back(static_cast<char>(v));
    return out;
}

std::vector<char> littleEndian(std::uint64_t value, int width)
{
    std::vector<char> out;
    for (int i = 0; i < width; ++i)
        out.push_back(static_cast<char>(value >> (8 * i)));
    return out;
}

std::vector<char> joined(std::initializer_list<std::vector<char>> parts)
{
    std::vector<char> out;
    for (const auto& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

std::vector<char> embeddedMessage(std::uint16_t type, const std::vector<char>& payload, unsigned char head,
                                  unsigned char tail)
{
    return joined({bytes({head}), littleEndian(payload.size() + 8, 4), littleEndian(type, 2), payload, bytes({tail})});
}

RawConnection::~RawConnection()
{
    close();
}

bool RawConnection::connect(const std::string& ip, int port, int timeoutMs)
{
    close();
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    if (::inet_pton(AF_INET, ip.c_str(), &addr.sin_addr) != 1)
        return false;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const Socket fd = openTcp();
        if (!valid(fd))
            return false;
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) {
            m_fd = static_cast<std::intptr_t>(fd);
            setNoDelay(m_fd);
            m_pending.clear();
            return true;
        }
        closeSocket(static_cast<std::intptr_t>(fd));
        if (msLeft(deadline) == 0)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

void RawConnection::adopt(std::intptr_t fd)
{
    close();
    setNoDelay(fd);
    m_fd = fd;
}

void RawConnection::close()
{
    if (m_fd >= 0) {
        closeSocket(m_fd);
        m_fd = -1;
    }
    m_pending.clear();
}

bool RawConnection::sendBytes(const void* data, std::size_t length)
{
    const char* p = static_cast<const char*>(data);
    while (m_fd >= 0 && length > 0) {
        const long n = sendBlocking(m_fd, p, length);
        if (n <= 0)
            return false;
        p += n;
        length -= static_cast<std::size_t>(n);
    }
    return m_fd >= 0;
}

std::size_t RawConnection::sendFor(const void* data, std::size_t length, int timeoutMs)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    const char* p = static_cast<const char*>(data);
    std::size_t sent = 0;
    while (m_fd >= 0 && sent < length) {
        if (pollOne(m_fd, POLLOUT, msLeft(deadline)) <= 0)
            break;
        bool wouldBlock = false;
        const long n = sendNow(m_fd, p + sent, length - sent, wouldBlock);
        if (n <= 0 && !wouldBlock)
            break;
        if (n > 0)
            sent += static_cast<std::size_t>(n);
    }
    return sent;
}

bool RawConnection::fill(int timeoutMs)
{
    if (m_fd < 0)
        return false;
    if (pollOne(m_fd, POLLIN, timeoutMs) <= 0)
        return true;
    char buffer[65536];
    const long n = recvSome(m_fd, buffer, sizeof buffer);
    if (n <= 0)
        return false;
    m_pending.insert(m_pending.end(), buffer, buffer + n);
    return true;
}

bool RawConnection::readMessage(ProxyMessage& out, int timeoutMs)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (m_pending.size() >= 16) {
            const auto length = get<std::int32_t>(m_pending.data() + 12);
            const std::size_t full = 16 + static_cast<std::size_t>(length < 0 ? 0 : length);
            if (m_pending.size() >= full) {
                out.magic = get<std::uint16_t>(m_pending.data());
                out.type = get<std::int32_t>(m_pending.data() + 4);
                out.subType = get<std::uint32_t>(m_pending.data() + 8);
                out.payload.assign(m_pending.begin() + 16, m_pending.begin() + static_cast<std::ptrdiff_t>(full));
                m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(full));
                return true;
            }
        }
        const int left = msLeft(deadline);
        if (left == 0 || !fill(left))
            return false;
    }
}

std::vector<char> RawConnection::readBytes(std::size_t n, int timeoutMs)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (m_pending.size() < n && msLeft(deadline) > 0 && fill(msLeft(deadline))) {
    }
    const auto end = m_pending.begin() + static_cast<std::ptrdiff_t>(std::min(n, m_pending.size()));
    std::vector<char> out(m_pending.begin(), end);
    m_pending.erase(m_pending.begin(), end);
    return out;
}

std::vector<char> RawConnection::readFor(int timeoutMs)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (msLeft(deadline) > 0 && fill(msLeft(deadline))) {
    }
    std::vector<char> out;
    out.swap(m_pending);
    return out;
}

bool RawConnection::peerClosed(int timeoutMs)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (!fill(msLeft(deadline)))
            return true;
        if (msLeft(deadline) == 0)
            return false;
    }
}

RawListener::~RawListener()
{
    close();
}

bool RawListener::listen(int port, int backlog)
{
    close();
    const Socket fd = openTcp();
    if (!valid(fd))
        return false;
    m_fd = static_cast<std::intptr_t>(fd);
#ifndef _WIN32
    // Windows would let a second listener share the port with this option.
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
#endif
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    socklen_t length = sizeof addr;
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, backlog) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) != 0) {
        close();
        return false;
    }
    m_port = ntohs(addr.sin_port);
    return true;
}

bool RawListener::accept(RawConnection& out, int timeoutMs)
{
    if (m_fd < 0)
        return false;
    if (pollOne(m_fd, POLLIN, timeoutMs) <= 0)
        return false;
    const std::intptr_t fd = acceptOne(m_fd);
    if (fd < 0)
        return false;
    out.adopt(fd);
    return true;
}

void RawListener::close()
{
    if (m_fd >= 0) {
        closeSocket(m_fd);
        m_fd = -1;
    }
}

} // namespace zt::tools
