// A peer written from the wire format alone: plain TCP connections, proxy and embedded
// messages built byte by byte, replies cut out of the stream by their header. The demo
// drives a module with it, and the tests use it as an independent peer of the module
// proxy, the network head and the library's sockets.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace zt::tools {

// The bytes of one proxy message: magic 0x2324, two zero bytes, type, sub type, length,
// payload, all little-endian.
std::vector<char> proxyMessage(std::int32_t type, std::uint32_t subType, const void* payload, std::int32_t length);

// Bytes written as numbers from 0 to 255.
std::vector<char> bytes(std::initializer_list<int> values);
// The low `width` bytes of value, little-endian.
std::vector<char> littleEndian(std::uint64_t value, int width);
// The parts one after the other.
std::vector<char> joined(std::initializer_list<std::vector<char>> parts);
// The bytes of one embedded message: head, 32-bit size (payload + 8), 16-bit type, payload,
// tail.
std::vector<char> embeddedMessage(std::uint16_t type, const std::vector<char>& payload = {},
                                  unsigned char head = 0xAA, unsigned char tail = 0xBB);

// Fields of a received proxy message.
struct ProxyMessage {
    std::uint16_t magic = 0;
    std::int32_t type = 0;
    std::uint32_t subType = 0;
    std::vector<char> payload;
};

class RawConnection {
public:
    RawConnection() = default;
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    // Connects to ip:port, retrying until timeoutMs has passed.
    bool connect(const std::string& ip, int port, int timeoutMs);
    bool isOpen() const { return m_fd >= 0; }
    // Takes over an accepted connection.
    void adopt(std::intptr_t fd);
    void close();
    // Closes with a reset instead of an orderly end.
    void abort();

    bool sendBytes(const void* data, std::size_t length);
    bool sendBytes(const std::vector<char>& bytes) { return sendBytes(bytes.data(), bytes.size()); }
    // Sends as much as the peer takes within timeoutMs; the number of bytes sent.
    std::size_t sendFor(const void* data, std::size_t length, int timeoutMs);
    // Reads one whole proxy message, waiting up to timeoutMs; false on time-out or close.
    bool readMessage(ProxyMessage& out, int timeoutMs);
    // n bytes, or fewer when the peer closes or timeoutMs pass (bytes left over first).
    std::vector<char> readBytes(std::size_t n, int timeoutMs);
    // Everything that arrives within timeoutMs (bytes left over from readMessage first).
    std::vector<char> readFor(int timeoutMs);
    // True when the peer closed the connection (waits up to timeoutMs to find out).
    bool peerClosed(int timeoutMs);

private:
    // Appends what arrives within timeoutMs; false when the peer closed.
    bool fill(int timeoutMs);

    // The socket (a Winsock SOCKET on Windows), -1 when there is none.
    std::intptr_t m_fd = -1;
    std::vector<char> m_pending;
};

// A listening socket on 0.0.0.0:port for playing the module's end.
class RawListener {
public:
    RawListener() = default;
    ~RawListener();
    RawListener(const RawListener&) = delete;
    RawListener& operator=(const RawListener&) = delete;

    // Port 0 takes a free port; port() tells which.
    bool listen(int port, int backlog = 16);
    int port() const { return m_port; }
    // Accepts one connection within timeoutMs.
    bool accept(RawConnection& out, int timeoutMs);
    void close();

private:
    std::intptr_t m_fd = -1;
    int m_port = 0;
};

} // namespace zt::tools
