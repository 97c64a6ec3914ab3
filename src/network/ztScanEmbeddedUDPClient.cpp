#include "ztScanEmbeddedUDPClient.h"

#include "EmbeddedFramer.h"
#include "platform/spr_socket.h"
#include "platform/zt_log.h"
#include "platform/zt_time.h"

#include <climits>
#include <cstring>

namespace {

constexpr unsigned short kLocalPort = 32002;
constexpr unsigned int kPollMs = 15;
// The loops run while fewer than this many milliseconds have passed.
constexpr unsigned int kSendnWindowMs = 4001;
constexpr unsigned int kRecvWindowMs = 31;

static_assert(sizeof(sockaddr_in) == 16, "an IPv4 socket address is kept in 16 bytes");

zt_socket_t handleOf(std::uint64_t socket)
{
    return static_cast<zt_socket_t>(socket);
}

sockaddr_in addressOf(const unsigned char* bytes)
{
    sockaddr_in addr;
    std::memcpy(&addr, bytes, sizeof addr);
    return addr;
}

bool badBuffer(const void* buffer, unsigned int length, const char* method)
{
    if (buffer != nullptr && length > 0 && length <= INT_MAX)
        return false;
    ZTLOG_ERROR("ztScanEmbeddedUDPClient::[%s] null buffer or length out of range\n", method);
    return true;
}

} // namespace

ztScanEmbeddedUDPClient::ztScanEmbeddedUDPClient()
    : m_bConnected(false), m_socket(0), m_destAddr(), m_localAddr()
{
}

ztScanEmbeddedUDPClient::~ztScanEmbeddedUDPClient() = default;
ztScanEmbeddedUDPClient::ztScanEmbeddedUDPClient(const ztScanEmbeddedUDPClient& other) = default;
ztScanEmbeddedUDPClient& ztScanEmbeddedUDPClient::operator=(const ztScanEmbeddedUDPClient& other) = default;

int ztScanEmbeddedUDPClient::init()
{
    if (m_socket != 0)
        return 0;
    const zt_socket_t s = SPR_CreateSocket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (s == 0)
        return -1;
    SPR_SetNonBlock(s, 1);
    m_socket = static_cast<std::uint64_t>(s);
    return 0;
}

int ztScanEmbeddedUDPClient::connect(const std::string& bindIP, int port)
{
    if (m_socket == 0)
        return -1;
    const zt_socket_t s = handleOf(m_socket);
    zt::sock::setBroadcast(s, true);

    sockaddr_in dest{};
    zt::sock::makeAddress("255.255.255.255", static_cast<unsigned short>(port), dest);
    std::memcpy(m_destAddr, &dest, sizeof dest);

    sockaddr_in local{};
    // A failed bind is not reported; text that is no address is not bound at all.
    if (zt::sock::makeAddress(bindIP, kLocalPort, local))
        zt::sock::bindTo(s, local);
    std::memcpy(m_localAddr, &local, sizeof local);
    m_bindIP = bindIP;
    return 0;
}

int ztScanEmbeddedUDPClient::send(const unsigned char* data, unsigned int len)
{
    if (m_socket == 0)
        return -1;
    if (badBuffer(data, len, "send"))
        return -1;
    const int n = zt::sock::sendTo(handleOf(m_socket), data, static_cast<int>(len), addressOf(m_destAddr));
    return n < 1 ? -1 : n;
}

int ztScanEmbeddedUDPClient::sendn(const unsigned char* request, unsigned int length, unsigned char* reply,
                                   unsigned int replyCapacity)
{
    if (m_socket == 0)
        return -1;
    if (badBuffer(request, length, "sendn") || badBuffer(reply, replyCapacity, "sendn"))
        return -1;
    const std::uint32_t start = zt::tickCount();
    if (zt::sock::sendTo(handleOf(m_socket), request, static_cast<int>(length), addressOf(m_destAddr)) <= 0) {
        ZTLOG_ERROR("sendn:time = %d\r\n", static_cast<int>(zt::ticksSince(start)));
        return -1;
    }
    return collect(reply, replyCapacity, kSendnWindowMs, false);
}

int ztScanEmbeddedUDPClient::recv(unsigned char* buf, unsigned int len)
{
    if (badBuffer(buf, len, "recv"))
        return -1;
    return collect(buf, len, kRecvWindowMs, true);
}

int ztScanEmbeddedUDPClient::collect(unsigned char* buf, unsigned int len, unsigned int windowMs,
                                     bool resetOnNothing)
{
    zt::EmbeddedFramer framer(zt::EmbeddedFramer::kMinHeldUdp, len);
    const std::uint32_t start = zt::tickCount();
    SPR_Sleep(kPollMs);
    while (zt::ticksSince(start) < windowMs) {
        int n = -1;
        // Without a socket every round receives nothing.
        if (m_socket != 0) {
            sockaddr_in from = addressOf(m_localAddr);
            n = zt::sock::recvFrom(handleOf(m_socket), buf, static_cast<int>(len), from);
            std::memcpy(m_localAddr, &from, sizeof from);
        }
        if (n > 0) {
            m_connectIP = zt::sock::addressText(addressOf(m_localAddr));
            framer.append(buf, static_cast<std::size_t>(n));
        } else if (resetOnNothing) {
            m_connectIP.clear();
        }
        if (const char* msg = framer.front()) {
            std::memcpy(buf, msg, framer.frontSize());
            return 0;
        }
        SPR_Sleep(kPollMs);
    }
    return -1;
}

void ztScanEmbeddedUDPClient::deInit()
{
    if (m_socket == 0)
        return;
    SPR_ShutDown(handleOf(m_socket), 2);
    SPR_CloseSocket(handleOf(m_socket), 0);
    m_socket = 0;
}

std::string ztScanEmbeddedUDPClient::getBindIP()
{
    return m_bindIP;
}

std::string ztScanEmbeddedUDPClient::getConnectIP()
{
    return m_connectIP;
}

void ztScanEmbeddedUDPClient::resetConnectIP()
{
    m_connectIP.clear();
}

bool ztScanEmbeddedUDPClient::IsConnected()
{
    return m_bConnected;
}
