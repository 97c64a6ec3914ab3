#include "EmbeddedTcpSocket.h"

#include "EmbeddedFramer.h"
#include "platform/zt_log.h"
#include "platform/zt_time.h"

#include <cstring>

namespace zt {

namespace {

constexpr unsigned int kSocketTimeoutMs = 3000;
constexpr unsigned int kPollMs = 5;

// Milliseconds between two 32-bit tick counts, whichever is larger: after a wrap of the
// counter the difference is large and the reply loop ends.
std::uint32_t tickDistance(std::uint32_t a, std::uint32_t b)
{
    return a >= b ? a - b : b - a;
}

bool badBuffer(const void* buffer, int length, const char* method)
{
    if (buffer != nullptr && length > 0)
        return false;
    ZTLOG_ERROR("EmbeddedTcpSocket::[%s] null buffer or length below 1\n", method);
    return true;
}

} // namespace

EmbeddedTcpSocket::~EmbeddedTcpSocket()
{
    close();
}

int EmbeddedTcpSocket::create()
{
    if (socket() != 0)
        return 0;
    const zt_socket_t s = SPR_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s == 0)
        return -1;
    sock::setSendTimeout(s, kSocketTimeoutMs);
    sock::setRecvTimeout(s, kSocketTimeoutMs);
    m_socket.store(s, std::memory_order_relaxed);
    return 0;
}

int EmbeddedTcpSocket::connect(const std::string& localIP, const std::string& remoteIP, int port)
{
    const zt_socket_t s = socket();
    if (s == 0)
        return -1;
    if (sock::startup() != 0) {
        ZTLOG_ERROR("WSAStartup function failed\n");
        return -1;
    }
    if (SPR_SetNonBlock(s, 1) != 0) {
        ZTLOG_ERROR("ioctlsocket failed\n");
        return -1;
    }
    sockaddr_in local{};
    if (!sock::makeAddress(localIP, 0, local) || sock::bindTo(s, local) != 0)
        return -1;
    sockaddr_in remote{};
    if (!sock::makeAddress(remoteIP, static_cast<unsigned short>(port), remote)) {
        ZTLOG_ERROR("EmbeddedTcpSocket::[connect] remote IP \"%s\" is no IPv4 address\n", remoteIP.c_str());
        return -1;
    }
    if (sock::connectTo(s, remote) == 0) {
        m_connected.store(1, std::memory_order_relaxed);
        return 0;
    }
    const int error = sock::lastError();
    if (!sock::isConnectPending(error)) {
        ZTLOG_ERROR("connect failed with error: %ld\n", static_cast<long>(error));
        return -1;
    }
    // A connect that failed counts as one that never completed: a connect time-out.
    const int ready = sock::waitConnected(s, 3, 0);
    if (ready == 0) {
        ZTLOG_ERROR("connect timeout, localIP: %s, remoteIP: %s", localIP.c_str(), remoteIP.c_str());
        return kConnectTimeout;
    }
    if (ready < 0) {
        ZTLOG_ERROR("connect failed with error: %ld\n", static_cast<long>(sock::lastError()));
        return -1;
    }
    m_connected.store(1, std::memory_order_relaxed);
    return 0;
}

void EmbeddedTcpSocket::close()
{
    const zt_socket_t s = m_socket.exchange(0, std::memory_order_relaxed);
    if (s == 0)
        return;
    SPR_ShutDown(s, 2);
    SPR_CloseSocket(s, 0);
}

void EmbeddedTcpSocket::shutdown()
{
    const zt_socket_t s = socket();
    if (s != 0)
        SPR_ShutDown(s, 2);
}

int EmbeddedTcpSocket::receive(void* buffer, int length)
{
    const zt_socket_t s = socket();
    if (s == 0)
        return -1;
    if (badBuffer(buffer, length, "receive"))
        return -1;
    const int n = sock::recvOnce(s, buffer, length);
    if (n > 0) {
        recorded(ztRecorder::BytesIn, buffer, n);
        return n;
    }
    m_connected.store(0, std::memory_order_relaxed);
    return -1;
}

int EmbeddedTcpSocket::send(const void* buffer, int length)
{
    const zt_socket_t s = socket();
    if (s == 0)
        return -1;
    if (badBuffer(buffer, length, "send"))
        return -1;
    const int n = sock::sendOnce(s, buffer, length);
    if (n > 0) {
        recorded(ztRecorder::BytesOut, buffer, n);
        return n;
    }
    m_connected.store(0, std::memory_order_relaxed);
    return -1;
}

bool EmbeddedTcpSocket::waitReadable(int timeoutMs)
{
    const zt_socket_t s = socket();
    return s != 0 && sock::waitReadable(s, timeoutMs) == 1;
}

int EmbeddedTcpSocket::sendn(const void* request, int requestLength, void* reply, int replyCapacity)
{
    return exchange(request, requestLength, reply, replyCapacity, kReplyWindowMs);
}

int EmbeddedTcpSocket::sendn(const void* request, int requestLength, void* reply, int replyCapacity,
                             unsigned int timeoutMs)
{
    return exchange(request, requestLength, reply, replyCapacity, timeoutMs);
}

int EmbeddedTcpSocket::exchange(const void* request, int requestLength, void* reply, int replyCapacity,
                                unsigned int limitMs)
{
    const zt_socket_t s = socket();
    if (s == 0)
        return -1;
    if (badBuffer(request, requestLength, "sendn") || badBuffer(reply, replyCapacity, "sendn"))
        return -1;

    // Bytes already waiting are a stale reply. Then the first read comes after the 5 ms
    // pause, so that it takes the stale reply with whatever has come behind it and drops
    // the rest, as the exchange always has; otherwise the reply is read as soon as it is there.
    const bool stale = sock::waitReadable(s, 0) == 1;
    const std::uint32_t sendStart = tickCount();
    const int sent = sock::sendOnce(s, request, requestLength);
    if (sent <= 0) {
        m_connected.store(0, std::memory_order_relaxed);
        ZTLOG_ERROR("sendn: time = %d\r\n", static_cast<int>(ticksSince(sendStart)));
        return -1;
    }
    recorded(ztRecorder::BytesOut, request, sent);

    // A socket that has ended or fails is looked at again every 5 ms until the window closes.
    const std::uint32_t replyStart = tickCount();
    if (stale)
        SPR_Sleep(kPollMs);
    EmbeddedFramer framer(EmbeddedFramer::kMinHeldRequestReply, static_cast<std::size_t>(replyCapacity));
    for (;;) {
        const std::uint32_t elapsed = tickDistance(tickCount(), replyStart);
        if (elapsed > limitMs)
            break;
        const int n = sock::recvOnce(s, reply, replyCapacity);
        if (n > 0) {
            recorded(ztRecorder::BytesIn, reply, n);
            framer.append(reply, static_cast<std::size_t>(n));
        }
        if (const char* msg = framer.front()) {
            std::memcpy(reply, msg, framer.frontSize());
            return 0;
        }
        if (n > 0)
            continue;
        if (n < 0 && sock::isWouldBlock(sock::lastError()))
            sock::waitReadable(s, static_cast<int>(limitMs - elapsed) + 1);
        else
            SPR_Sleep(kPollMs);
    }
    return -1;
}

} // namespace zt
