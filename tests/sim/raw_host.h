// A host end written from the wire format alone, with plain sockets, to check the
// simulated head from the outside: embedded messages built byte by byte, connections
// opened and read with explicit time-outs.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace zt::test {

using Bytes = std::vector<unsigned char>;

inline void appendLE(Bytes& b, std::uint64_t v, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        b.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

// Head, 32-bit size (payload + 8), 16-bit type, payload, tail.
inline Bytes embedded(std::uint16_t type, const Bytes& payload = {}, unsigned char head = 0xAA, unsigned char tail = 0xBB)
{
    Bytes b{head};
    appendLE(b, payload.size() + 8, 4);
    appendLE(b, type, 2);
    b.insert(b.end(), payload.begin(), payload.end());
    b.push_back(tail);
    return b;
}

inline Bytes le32(std::uint32_t v)
{
    Bytes b;
    appendLE(b, v, 4);
    return b;
}

inline Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const auto& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

class RawHost {
public:
    RawHost() = default;
    RawHost(RawHost&& o) noexcept : m_fd(o.m_fd), m_error(o.m_error) { o.m_fd = -1; }
    RawHost& operator=(RawHost&& o) noexcept
    {
        close();
        m_fd = o.m_fd;
        m_error = o.m_error;
        o.m_fd = -1;
        return *this;
    }
    ~RawHost() { close(); }

    // Connects to 127.0.0.1:port within timeoutMs; false with error() set otherwise.
    bool connect(int port, int timeoutMs = 3000)
    {
        close();
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<unsigned short>(port));
        ::inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
        ::fcntl(m_fd, F_SETFL, O_NONBLOCK);
        m_error = 0;
        if (::connect(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
            m_error = errno;
            if (m_error == EINPROGRESS) {
                pollfd p{m_fd, POLLOUT, 0};
                if (::poll(&p, 1, timeoutMs) != 1) {
                    m_error = ETIMEDOUT;
                } else {
                    socklen_t len = sizeof m_error;
                    ::getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &m_error, &len);
                }
            }
        }
        if (m_error != 0) {
            close();
            return false;
        }
        ::fcntl(m_fd, F_SETFL, 0);
        return true;
    }
    int error() const { return m_error; }
    bool isOpen() const { return m_fd >= 0; }
    void close()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }

    bool send(const Bytes& b) const { return send(b.data(), b.size()); }
    bool send(const void* data, std::size_t n) const
    {
        const auto* p = static_cast<const unsigned char*>(data);
        for (std::size_t sent = 0; sent < n;) {
            const ssize_t r = ::send(m_fd, p + sent, n - sent, MSG_NOSIGNAL);
            if (r <= 0)
                return false;
            sent += static_cast<std::size_t>(r);
        }
        return true;
    }

    // Up to n bytes: fewer when the head closes or timeoutMs pass.
    Bytes read(std::size_t n, int timeoutMs = 3000) const
    {
        Bytes out(n);
        std::size_t got = 0;
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (got < n) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            pollfd p{m_fd, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) != 1)
                break;
            const ssize_t r = ::recv(m_fd, &out[got], n - got, 0);
            if (r <= 0)
                break;
            got += static_cast<std::size_t>(r);
        }
        out.resize(got);
        return out;
    }

    // true when no byte arrives within ms (the end of the stream counts as a byte).
    bool quiet(int ms) const
    {
        pollfd p{m_fd, POLLIN, 0};
        return ::poll(&p, 1, ms) == 0;
    }

    // true when the head ends the connection within ms (bytes before the end are skipped).
    bool closedByHead(int ms) const
    {
        unsigned char buf[4096];
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            pollfd p{m_fd, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) != 1)
                return false;
            if (::recv(m_fd, buf, sizeof buf, 0) <= 0)
                return true;
        }
    }

private:
    int m_fd = -1;
    int m_error = 0;
};

} // namespace zt::test
