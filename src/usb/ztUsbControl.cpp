// The USB control exchange: a command goes out on the control OUT endpoint and its reply
// is the next whole message that the control IN transfer gathers.
#include "ztUsbCommandLink.h"

#include "foundation/ByteQueue.h"
#include "platform/zt_log.h"
#include "platform/zt_time.h"
#include "zt_embedded_msg.h"

#include <libusb.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {
constexpr unsigned int kTransferTimeoutMs = 1500;
constexpr int kCtrlReplyLimit = 0xA00000;
constexpr std::size_t kClearedReplyBytes = 1024;
constexpr int kReplyTimeoutMs = 3000;
// Large replies (the whole log) go to the file buffer.
constexpr int kFileReplyLimit = 0x6400000;
constexpr int kLargeReplyTimeoutMs = 20000;
} // namespace

int ztUsbProxyServer::sendCtrlCmd(char* cmd, int cmdLength, char* reply, bool waitReply, int timeoutMs)
{
    return exchange("sendCtrlCmd", cmd, cmdLength, reply, kCtrlReplyLimit, waitReply, timeoutMs);
}

int ztUsbProxyServer::sendCtrlCmd_2(char* cmd, int cmdLength, char* reply, int replyLimit, bool waitReply, int timeoutMs)
{
    return exchange("sendCtrlCmd_2", cmd, cmdLength, reply, replyLimit, waitReply, timeoutMs);
}

int ztUsbProxyServer::exchange(const char* name, char* cmd, int cmdLength, char* reply, int replyLimit, bool waitReply,
                               int timeoutMs)
{
    std::lock_guard<std::mutex> commandLock(m_cmdMutex);
    if (m_handle == nullptr)
        return -1;
    if (cmd == nullptr || cmdLength <= 0 || (waitReply && reply == nullptr)) {
        ZTLOG_ERROR("ztUsbProxyServer::[%s] no command or no reply buffer", name);
        return -1;
    }
    {
        // Late replies to earlier commands must not pass for this one's.
        std::lock_guard<std::mutex> lock(m_recvMutex);
        m_ctrlRecv->clear();
    }
    int sent = 0;
    const int rc = libusb_bulk_transfer(m_handle, m_info.ctrlOutEndpoint, reinterpret_cast<unsigned char*>(cmd), cmdLength,
                                        &sent, kTransferTimeoutMs);
    m_link->tap.bytes(ztRecorder::BytesOut, m_info.ctrlOutEndpoint, rc, cmd, static_cast<std::size_t>(cmdLength));
    if (rc != 0) {
        ZTLOG_ERROR("ztUsbProxyServer::%s libusb_bulk_transfer failed, ret = %d", name, rc);
        return -1;
    }
    if (!waitReply)
        return 0;
    // The elapsed time is the absolute 32-bit difference of the tick counts, so a wrap of
    // the counter does not end the wait early.
    const std::uint32_t t0 = zt::tickCount();
    auto elapsed = [t0] {
        const auto d = static_cast<std::int32_t>(zt::tickCount() - t0);
        return d < 0 ? -static_cast<std::int64_t>(d) : static_cast<std::int64_t>(d);
    };
    // The exchange wakes as soon as the control transfer adds bytes. As before, the
    // time-out is tested on every wake-up before the buffer is looked at.
    std::unique_lock<std::mutex> lock(m_recvMutex);
    for (;;) {
        const std::int64_t waited = elapsed();
        if (waited > timeoutMs) {
            lock.unlock();
            ZTLOG_ERROR("ztUsbProxyServer::%s timeout", name);
            return -1;
        }
        if (m_ctrlRecv->size() > 7) {
            const auto full = static_cast<std::uint32_t>(zt_embedded_msg_get_full_size(m_ctrlRecv->data()));
            if (full <= m_ctrlRecv->size() && full < static_cast<std::uint32_t>(replyLimit)) {
                std::memcpy(reply, m_ctrlRecv->data(), full);
                m_ctrlRecv->consume(full);
                return 0;
            }
        }
        m_ctrlArrived.wait_for(lock, std::chrono::milliseconds(timeoutMs - waited + 1));
    }
}

int ztUsbProxyServer::sendData(std::string& data)
{
    {
        // Under the receive lock, which nothing holds for long: sendData never waits
        // behind a command that waits for its reply.
        std::lock_guard<std::mutex> lock(m_recvMutex);
        if (m_pDataRecv_ctrl != nullptr)
            std::memset(m_pDataRecv_ctrl, 0, kClearedReplyBytes);
    }
    int sent = 0;
    const int rc = m_handle == nullptr ? -1
                                       : libusb_bulk_transfer(m_handle, m_info.ctrlOutEndpoint,
                                                              reinterpret_cast<unsigned char*>(data.data()),
                                                              static_cast<int>(data.size()), &sent, kTransferTimeoutMs);
    if (m_handle != nullptr)
        m_link->tap.bytes(ztRecorder::BytesOut, m_info.ctrlOutEndpoint, rc, data.data(), data.size());
    if (rc != 0) {
        // The logged value is -1, not libusb's code.
        ZTLOG_ERROR("ztUsbProxyServer::[sendData] libusb_bulk_transfer failed, ret = %d", -1);
        return -1;
    }
    return 0;
}

zt::commands::Link& ztUsbProxyServer::commandLink()
{
    return *m_link;
}

int ztUsbProxyServer::CommandLink::exchange(const zt::commands::Command& c, const char* msg, int size,
                                            const std::function<int(const char*)>& judge)
{
    using namespace zt::commands;
    const bool wait = c.reply != Reply::NoWait && (c.flags & kUsbNoWait) == 0;
    // The reply is judged (and handed to the data callback) from a copy, after the lock is
    // let go: a callback may issue commands of its own, and no lock is held while it runs.
    std::vector<char> reply;
    {
        // One catalogue command at a time uses the shared reply buffers.
        std::lock_guard<std::mutex> lock(mutex);
        // Before init there are no reply buffers, and so no device to talk to.
        if (server.m_pDataRecv_ctrl == nullptr || server.m_pFileRecv_ctrl == nullptr) {
            ZTLOG_ERROR("ztUsbProxyServer::[%s] send cmd failed", c.name);
            return -1;
        }
        {
            std::lock_guard<std::mutex> recvLock(server.m_recvMutex);
            std::memset(server.m_pDataRecv_ctrl, 0, kClearedReplyBytes);
        }
        char* request = const_cast<char*>(msg);
        const bool large = (c.flags & kLargeReply) != 0;
        char* buffer = large ? server.m_pFileRecv_ctrl : server.m_pDataRecv_ctrl;
        const int rc = large ? server.sendCtrlCmd_2(request, size, buffer, kFileReplyLimit, true, kLargeReplyTimeoutMs)
                             : server.sendCtrlCmd(request, size, buffer, wait, kReplyTimeoutMs);
        if (rc == -1) {
            ZTLOG_ERROR("ztUsbProxyServer::[%s] send cmd failed", c.name);
            return -1;
        }
        if (!wait)
            return 0;
        // The whole reply, and at least the cleared head of the control buffer that a
        // short reply is read from.
        std::lock_guard<std::mutex> recvLock(server.m_recvMutex);
        const std::size_t full = static_cast<std::uint32_t>(zt_embedded_msg_get_full_size(buffer));
        // The file buffer is not cleared: behind a large reply the copy holds zeros.
        reply.assign(std::max(full, kClearedReplyBytes), '\0');
        std::memcpy(reply.data(), buffer, large ? full : reply.size());
    }
    return judge(reply.data());
}

int ztUsbProxyServer::CommandLink::readablePayload(int payloadLength) const
{
    // The payload starts 7 bytes into the cleared head; the copy judged holds all of it.
    constexpr int kClearedPayload = static_cast<int>(kClearedReplyBytes) - 7;
    return std::max(payloadLength, kClearedPayload);
}
