#include "ztScanVentoServer.h"

#include "platform/zt_log.h"

#include <chrono>
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
    m_arrived.notify_all();
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
    // Rather than polling every 15 ms, the receive wakes as soon as bytes arrive and takes
    // the front message once it is whole; the time-out is the same.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::unique_lock<std::mutex> lock(m_recvMutex);
    for (;;) {
        if (const _ZT_PROXY_MSG_* msg = m_recvBuf.front(capacity)) {
            const bool wasFull = m_recvBuf.size() >= m_maxMessage;
            std::memcpy(dst, msg, static_cast<std::size_t>(m_recvBuf.frontSize()));
            m_recvBuf.pop();
            lock.unlock();
            if (wasFull)
                resumeReceive(); // receiving paused on a full accumulation; there is room again
            return 0;
        }
        if (m_arrived.wait_until(lock, deadline) == std::cv_status::timeout && !m_recvBuf.front(capacity))
            return -1;
    }
}
