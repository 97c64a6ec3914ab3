#include "host_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace zt::tools {

namespace {

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
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
            return false;
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) {
            int one = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            m_fd = fd;
            m_pending.clear();
            return true;
        }
        ::close(fd);
        if (msLeft(deadline) == 0)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

void RawConnection::adopt(int fd)
{
    close();
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    m_fd = fd;
}

void RawConnection::close()
{
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
    m_pending.clear();
}

bool RawConnection::sendBytes(const void* data, std::size_t length)
{
    const char* p = static_cast<const char*>(data);
    while (m_fd >= 0 && length > 0) {
        const ssize_t n = ::send(m_fd, p, length, MSG_NOSIGNAL);
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
        pollfd w{m_fd, POLLOUT, 0};
        if (::poll(&w, 1, msLeft(deadline)) <= 0)
            break;
        const ssize_t n = ::send(m_fd, p + sent, length - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n <= 0 && errno != EAGAIN)
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
    pollfd p{m_fd, POLLIN, 0};
    if (::poll(&p, 1, timeoutMs) <= 0)
        return true;
    char buffer[65536];
    const ssize_t n = ::recv(m_fd, buffer, sizeof buffer, 0);
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
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0)
        return false;
    int one = 1;
    ::setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    if (::bind(m_fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 || ::listen(m_fd, backlog) != 0) {
        close();
        return false;
    }
    return true;
}

bool RawListener::accept(RawConnection& out, int timeoutMs)
{
    if (m_fd < 0)
        return false;
    pollfd p{m_fd, POLLIN, 0};
    if (::poll(&p, 1, timeoutMs) <= 0)
        return false;
    const int fd = ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
        return false;
    out.adopt(fd);
    return true;
}

void RawListener::close()
{
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

} // namespace zt::tools
