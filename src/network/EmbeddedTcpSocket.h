// Non-blocking TCP socket for the links to a network-attached scanner head: a connect
// with a 3-second time-out, single sends and receives, and a request/reply operation
// framed by the embedded message.
//
// No locks: each object is used under its owner's locks. The handle and the connected
// flag are atomic all the same, since the owner's receive threads read them while its
// command thread may close the socket.
#pragma once

#include "foundation/RecorderCore.h"
#include "platform/spr_socket.h"

#include <atomic>
#include <string>

namespace zt {

class EmbeddedTcpSocket {
public:
    // Result of connect when the far end does not answer within 3 seconds.
    static constexpr int kConnectTimeout = 205;
    // Reply window of the fixed sendn, in milliseconds.
    static constexpr unsigned int kReplyWindowMs = 5000;

    EmbeddedTcpSocket() = default;
    ~EmbeddedTcpSocket();
    EmbeddedTcpSocket(const EmbeddedTcpSocket&) = delete;
    EmbeddedTcpSocket& operator=(const EmbeddedTcpSocket&) = delete;

    // A TCP socket with send and receive time-outs of 3000 ms: 0 (also when one exists
    // already), -1 when none can be had.
    int create();
    // Binds to localIP (any port), puts the socket into non-blocking mode for good and
    // connects to remoteIP:port: 0, -1, or kConnectTimeout after 3 s without an answer.
    int connect(const std::string& localIP, const std::string& remoteIP, int port);
    // Shuts both directions down and closes; the handle becomes 0.
    void close();
    // Shuts down both directions but keeps the descriptor: other threads using the socket
    // fail their next call at once, and the descriptor is closed only by close or the
    // destructor, once no call can be using it.
    void shutdown();
    // One receive / one send: the count, or -1 (connected flag cleared) when it gives
    // nothing or fails. On the non-blocking socket a receive with nothing pending fails.
    int receive(void* buffer, int length);
    // Waits up to timeoutMs for bytes (or the end of the stream) to arrive; true if so.
    bool waitReadable(int timeoutMs);
    int send(const void* buffer, int length);
    // Sends the request once, then collects bytes every 5 ms until one whole embedded
    // message of at most replyCapacity bytes is held, and copies it to the start of reply:
    // 0, or -1 when the send fails or no message arrives within 5000 ms (timeoutMs for
    // the second form). Bytes behind the first message are discarded.
    int sendn(const void* request, int requestLength, void* reply, int replyCapacity);
    int sendn(const void* request, int requestLength, void* reply, int replyCapacity, unsigned int timeoutMs);

    // Bytes sent and received from now on go to the recorder attached to tap, as this
    // connection's. Set before the socket is shared with other threads.
    void recordInto(RecordSlot* tap, unsigned connection)
    {
        m_tap = tap;
        m_connection = connection;
    }

    int isConnected() const { return m_connected.load(std::memory_order_relaxed); }
    zt_socket_t socket() const { return m_socket.load(std::memory_order_relaxed); }

private:
    // The request/reply loop: runs while the elapsed time is at most limitMs.
    int exchange(const void* request, int requestLength, void* reply, int replyCapacity, unsigned int limitMs);

    void recorded(ztRecorder::Kind kind, const void* p, int n)
    {
        if (m_tap != nullptr)
            m_tap->bytes(kind, m_connection, 0, p, static_cast<std::size_t>(n));
    }

    RecordSlot* m_tap = nullptr;
    unsigned m_connection = 0;
    std::atomic<int> m_connected{0};
    std::atomic<zt_socket_t> m_socket{0};
};

} // namespace zt
