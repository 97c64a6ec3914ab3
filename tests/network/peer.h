// Plain BSD-socket helpers for the network tests, written without the library so that
// they check it from the outside.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace zt::test {

using Bytes = std::vector<unsigned char>;

// An embedded message built byte by byte: head, 32-bit size, 16-bit type, payload, tail.
inline Bytes embedded(std::uint16_t type, const std::string& payload, unsigned char head = 0xAA)
{
    const std::uint32_t size = static_cast<std::uint32_t>(payload.size() + 8);
    Bytes b(size);
    b[0] = head;
    std::memcpy(&b[1], &size, 4);
    std::memcpy(&b[5], &type, 2);
    std::memcpy(b.data() + 7, payload.data(), payload.size());
    b[size - 1] = 0xBB;
    return b;
}

inline sockaddr_in ipv4(const char* ip, unsigned short port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    inet_pton(AF_INET, ip, &a.sin_addr);
    return a;
}

// A listening TCP socket on a free loopback port.
struct TcpListener {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    unsigned short port = 0;
    explicit TcpListener(int backlog = 4)
    {
        sockaddr_in a = ipv4("127.0.0.1", 0);
        socklen_t len = sizeof a;
        ::bind(fd, reinterpret_cast<sockaddr*>(&a), len);
        ::listen(fd, backlog);
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
        port = ntohs(a.sin_port);
    }
    ~TcpListener() { ::close(fd); }
    // The next connection, or -1 when none comes within 2 s.
    int accept() const
    {
        pollfd p{fd, POLLIN, 0};
        return ::poll(&p, 1, 2000) == 1 ? ::accept(fd, nullptr, nullptr) : -1;
    }
};

// n bytes, or fewer when the peer closes or 3 s pass without data.
inline Bytes readBytes(int fd, std::size_t n)
{
    Bytes out(n);
    std::size_t got = 0;
    pollfd p{fd, POLLIN, 0};
    ssize_t r = 1;
    while (got < n && r > 0 && ::poll(&p, 1, 3000) == 1)
        got += static_cast<std::size_t>(r = std::max<ssize_t>(0, ::recv(fd, &out[got], n - got, 0)));
    out.resize(got);
    return out;
}

inline void sendBytes(int fd, const Bytes& b)
{
    for (std::size_t sent = 0; sent < b.size();) {
        const ssize_t r = ::send(fd, b.data() + sent, b.size() - sent, MSG_NOSIGNAL);
        if (r <= 0)
            return;
        sent += static_cast<std::size_t>(r);
    }
}

} // namespace zt::test
