#include "host_peer.h"

#include "sim_socket.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

namespace zt::tools {

namespace {

using namespace zt::simnet;

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
    Endpoint to{0, static_cast<std::uint16_t>(port)};
    if (!parseIPv4(ip, to.address))
        return false;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const Socket fd = openTcp(false);
        if (fd == kNoSocket)
            return false;
        if (startConnect(fd, to)) {
            m_fd = fd;
            setNoDelay(m_fd);
            m_pending.clear();
            return true;
        }
        closeSocket(fd);
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

void RawConnection::abort()
{
    if (m_fd >= 0)
        resetSocket(m_fd);
    m_fd = -1;
    m_pending.clear();
}

bool RawConnection::sendBytes(const void* data, std::size_t length)
{
    const char* p = static_cast<const char*>(data);
    while (m_fd >= 0 && length > 0) {
        const long n = sendSome(m_fd, p, length);
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
        Wait w{m_fd, kWritable, 0};
        if (waitFor(&w, 1, msLeft(deadline)) <= 0)
            break;
        const long n = sendNow(m_fd, p + sent, length - sent);
        if (n <= 0 && !(n < 0 && tryAgain()))
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
    Wait w{m_fd, kReadable, 0};
    if (waitFor(&w, 1, timeoutMs) <= 0)
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
    m_fd = openTcp(false);
    if (m_fd == kNoSocket || !listenOn(m_fd, "0.0.0.0", port, backlog, m_port)) {
        close();
        return false;
    }
    return true;
}

bool RawListener::accept(RawConnection& out, int timeoutMs)
{
    if (m_fd < 0)
        return false;
    Wait w{m_fd, kReadable, 0};
    if (waitFor(&w, 1, timeoutMs) <= 0)
        return false;
    Endpoint peer;
    const Socket fd = acceptFrom(m_fd, peer, false);
    if (fd == kNoSocket)
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
