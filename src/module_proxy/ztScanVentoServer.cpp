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

// A new connection starts with an empty receive state: the start of a message that a lost
// connection cut off would otherwise be read as the head of the new session's first one.
void ztScanVentoServer::onConnect(int, const std::string&)
{
    std::lock_guard<std::mutex> lock(m_recvMutex);
    if (const std::size_t dropped = m_recvBuf.dropIncompleteTail())
        ZTLOG_WARN("ztScanVentoServer: %u bytes of a message cut off by a lost connection discarded\n",
                   static_cast<unsigned int>(dropped));
}

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
        if (m_stopped)
            return -1;
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

void ztScanVentoServer::stop()
{
    stopThread();
    std::lock_guard<std::mutex> lock(m_recvMutex);
    m_stopped = true;
    m_arrived.notify_all();
}
