// Listener of the device-module side: accepts the host's connection on one port and
// collects the proxy messages that arrive there.
#pragma once

#include "foundation/ProxyFramer.h"
#include "platform/TCPServer.h"

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

class ztScanVentoServer : public zt::TCPServer {
public:
    // maxMessage: the largest message that a receive on this listener takes (the largest
    // capacity passed to recv). Receiving from the peer pauses while that much is held
    // and not taken, so an unread or oversize front message cannot make memory grow.
    explicit ztScanVentoServer(std::size_t maxMessage);
    ~ztScanVentoServer() override;

    // Takes the front proxy message into dst when it has fully arrived and is not larger
    // than capacity: 0 when one message was delivered, -1 when timeoutMs ran out. A front
    // message larger than capacity is never taken and blocks the stream.
    int recv(char* dst, std::size_t capacity, unsigned int timeoutMs);
    // Closes the listener and its connections (a send waiting on the peer fails) and
    // wakes every receive, which returns -1 at once from then on.
    void stop();

protected:
    // Bytes of every connection go into the one accumulation.
    void onData(int connection, std::vector<char>& bytes) override;
    void onConnect(int connection, const std::string& peer) override;
    void onDisconnect(int connection) override;
    void onError(int connection, int error) override;
    bool canReceive() override;

private:
    const std::size_t m_maxMessage;
    std::mutex m_recvMutex;
    std::condition_variable m_arrived;
    zt::ProxyFramer m_recvBuf;
    bool m_stopped = false; // guarded by m_recvMutex
};
