// Blocking TCP socket of the host side of the module proxy, with a request/reply
// operation framed by the proxy message.
#pragma once

#include "platform/spr_socket.h"

#include <atomic>
#include <string>

namespace zt {

class ProxyTcpSocket {
public:
    ProxyTcpSocket() = default;
    // Closes the socket.
    ~ProxyTcpSocket();
    ProxyTcpSocket(const ProxyTcpSocket&) = delete;
    ProxyTcpSocket& operator=(const ProxyTcpSocket&) = delete;

    // A TCP socket with a 3000 ms send time-out: 0, or -1 when none can be made. Nothing
    // to do when the socket exists.
    int create();
    // Blocking connect to address:port: 0 or -1.
    int connect(const std::string& address, int port);
    // One send with a 300000 ms send time-out: the count, or -1. A send that times out
    // part-way fails (see cutShort).
    int send(const void* data, int length);
    // One receive, waiting without limit for bytes: the count, or -1 on a closed or shut
    // down connection or an error.
    int receive(void* buffer, int length);
    // Shuts down both directions: a receive blocked on another thread returns.
    void shutdown();

    // Sends request once (2000 ms send time-out), then collects for up to 4000 ms, in
    // 15 ms steps with 600 ms receives, until more than 16 bytes are held and the proxy
    // message at their front is whole and not larger than replyCapacity; that message is
    // copied to the start of reply. 0 on success, -1 on failure or time-out.
    int sendn(const void* request, int requestLength, char* reply, int replyCapacity);
    // True once a send timed out part-way: the rest of that message never went, so the
    // socket was shut down and the connection must be made anew.
    bool cutShort() const { return m_cutShort; }

private:
    // One send of all length bytes: true when they all went.
    bool sendWhole(const void* data, int length);

    zt_socket_t m_socket = 0;
    std::atomic<bool> m_cutShort{false};
    std::atomic<bool> m_shutDown{false};
};

} // namespace zt
