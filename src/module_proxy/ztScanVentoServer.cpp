#include "ztScanVentoServer.h"

#include "platform/zt_log.h"
#include "platform/zt_time.h"

#include <cstring>

ztScanVentoServer::ztScanVentoServer(std::size_t maxMessage) : zt::TCPServer(true), m_maxMessage(maxMessage) {}

ztScanVentoServer::~ztScanVentoServer()
{
    stopThread();
}

void ztScanVentoServer::onData(int, std::vector<char>& bytes)
{
    std::lock_guard<std::mutex> lock(m_recvMutex);
    m_recvBuf.append(bytes.data(), bytes.size());
    bytes.clear();
}

// Connection changes need no action: the accumulation outlives connections.
void ztScanVentoServer::onConnect(int, const std::string&) {}
void ztScanVentoServer::onDisconnect(int) {}
void ztScanVentoServer::onError(int, int) {}

bool ztScanVentoServer::canReceive()
{
    std::lock_guard<std::mutex> lock(m_recvMutex);
    return m_recvBuf.size() < m_maxMessage;
}

int ztScanVentoServer::recv(char* dst, std::size_t capacity, unsigned int timeoutMs)
{
    if (dst == nullptr) {
        ZTLOG_ERROR("ztScanVentoServer::recv no destination buffer\n");
        return -1;
    }
    const std::uint64_t start = zt::tickMs();
    SPR_Sleep(15);
    for (;;) {
        if (zt::tickMs() - start > timeoutMs)
            return -1;
        bool taken = false;
        bool wasFull = false;
        {
            std::lock_guard<std::mutex> lock(m_recvMutex);
            if (const _ZT_PROXY_MSG_* msg = m_recvBuf.front(capacity)) {
                wasFull = m_recvBuf.size() >= m_maxMessage;
                std::memcpy(dst, msg, static_cast<std::size_t>(m_recvBuf.frontSize()));
                m_recvBuf.pop();
                taken = true;
            }
        }
        if (wasFull)
            resumeReceive(); // receiving paused on a full accumulation; there is room again
        if (taken)
            return 0;
        SPR_Sleep(15);
    }
}
