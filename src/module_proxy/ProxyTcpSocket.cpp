#include "ProxyTcpSocket.h"

#include "foundation/ProxyFramer.h"
#include "platform/zt_log.h"
#include "platform/zt_time.h"

#include <cstring>

namespace zt {

namespace {
constexpr unsigned int kCreateSendTimeoutMs = 3000;
constexpr unsigned int kSendTimeoutMs = 300000;
constexpr unsigned int kRequestSendTimeoutMs = 2000;
constexpr unsigned int kReplyRecvTimeoutMs = 600;
constexpr std::uint64_t kReplyWindowMs = 4001;
constexpr unsigned int kPollMs = 15;
constexpr int kShutdownCheckMs = 50;
} // namespace

ProxyTcpSocket::~ProxyTcpSocket()
{
    if (m_socket != 0)
        SPR_CloseSocket(m_socket, 0);
}

int ProxyTcpSocket::create()
{
    if (m_socket != 0)
        return 0;
    m_socket = SPR_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (m_socket == 0)
        return -1;
    sock::setSendTimeout(m_socket, kCreateSendTimeoutMs);
    return 0;
}

int ProxyTcpSocket::connect(const std::string& address, int port)
{
    if (m_socket == 0)
        return -1;
    sock::startup();
    sockaddr_in addr{};
    if (!sock::makeAddress(address, static_cast<unsigned short>(port), addr))
        return -1;
    return sock::connectTo(m_socket, addr) == 0 ? 0 : -1;
}

bool ProxyTcpSocket::sendWhole(const void* data, int length)
{
    const int n = sock::sendOnce(m_socket, data, length);
    // The send time-out ended it part-way: what follows on this connection would be read
    // as the rest of the message, so nothing more may follow.
    if (n > 0 && n < length) {
        ZTLOG_ERROR("ProxyTcpSocket: only %d of %d bytes sent before the time-out, the connection is shut down\n", n,
                    length);
        m_cutShort = true;
        shutdown();
    }
#ifdef _WIN32
    // Winsock does not tell how much of a timed-out send went: the socket's state is
    // unknown, and it is treated as cut short.
    if (n < 0 && sock::lastError() == WSAETIMEDOUT) {
        ZTLOG_ERROR("ProxyTcpSocket: the send of %d bytes timed out, the connection is shut down\n", length);
        m_cutShort = true;
        shutdown();
    }
#endif
    return n == length && length > 0;
}

int ProxyTcpSocket::send(const void* data, int length)
{
    if (m_socket == 0)
        return -1;
    sock::setSendTimeout(m_socket, kSendTimeoutMs);
    return sendWhole(data, length) ? length : -1;
}

int ProxyTcpSocket::receive(void* buffer, int length)
{
    if (m_socket == 0)
        return -1;
    // Shutting a socket down ends a receive blocked on it on Linux but not on Windows, so
    // the receive waits for bytes in short steps and gives up once the socket is shut
    // down. Without a shutdown it waits as long as a blocking receive would.
    for (;;) {
        if (m_shutDown.load(std::memory_order_relaxed))
            return -1;
        const int ready = sock::waitReadable(m_socket, kShutdownCheckMs);
        if (ready < 0)
            return -1;
        if (ready > 0)
            break;
    }
    const int n = sock::recvOnce(m_socket, buffer, length);
    return n < 1 ? -1 : n;
}

void ProxyTcpSocket::shutdown()
{
    m_shutDown = true;
    if (m_socket != 0)
        SPR_ShutDown(m_socket, 2);
}

int ProxyTcpSocket::sendn(const void* request, int requestLength, char* reply, int replyCapacity)
{
    if (m_socket == 0)
        return -1;
    if (reply == nullptr || replyCapacity <= 0) {
        ZTLOG_ERROR("ProxyTcpSocket::sendn no reply buffer\n");
        return -1;
    }
    // Bytes already waiting are a stale reply. Then the first read comes after the 15 ms
    // pause, so that it takes the stale reply with whatever has come behind it and drops
    // the rest, as the exchange always has; otherwise the reply is read as soon as it is there.
    const bool stale = sock::waitReadable(m_socket, 0) == 1;
    const std::uint64_t sendStart = tickMs();
    sock::setSendTimeout(m_socket, kRequestSendTimeoutMs);
    if (!sendWhole(request, requestLength)) {
        ZTLOG_ERROR("sendn: time = %d\r\n", static_cast<int>(tickMs() - sendStart));
        return -1;
    }
    // Each receive waits for the reply's bytes itself; the 15 ms pause follows only a
    // receive that brought nothing (its time-out, or an ended connection).
    ProxyFramer held;
    const std::uint64_t start = tickMs();
    if (stale)
        SPR_Sleep(kPollMs);
    while (tickMs() - start < kReplyWindowMs) {
        sock::setRecvTimeout(m_socket, kReplyRecvTimeoutMs);
        const int n = sock::recvOnce(m_socket, reply, replyCapacity);
        if (n > 0)
            held.append(reply, static_cast<std::size_t>(n));
        // More than a bare header must be held before the front message is looked at.
        if (const _ZT_PROXY_MSG_* msg = held.front(static_cast<std::size_t>(replyCapacity), ZT_MSG_HEADER_SIZE + 1)) {
            std::memcpy(reply, msg, static_cast<std::size_t>(held.frontSize()));
            return 0;
        }
        if (n <= 0)
            SPR_Sleep(kPollMs);
    }
    return -1;
}

} // namespace zt
