// The network head's side of the command catalogue: one exchange on the command
// connection under the command mutex.
#include "EmbeddedInternals.h"
#include "EmbeddedTcpSocket.h"
#include "platform/zt_log.h"

#include <cstdlib>
#include <memory>

using zt::commands::Command;

zt::commands::Link& ztEmbeddedModuleProxyServer::commandLink()
{
    return *m_link;
}

int ztEmbeddedModuleProxyServer::CommandLink::exchange(const Command& c, const char* msg, int size,
                                                       const std::function<int(const char*)>& judge)
{
    using namespace zt::commands;
    std::unique_lock<std::mutex> lock(server.m_cmdMutex, std::defer_lock);
    if ((c.flags & kNetUnlocked) == 0)
        lock.lock();
    const auto s = server.m_cmdTcp->get();
    if (!s)
        return -1;
    auto failed = [&c]() {
        if ((c.flags & kNetColonLog) != 0)
            ZTLOG_ERROR("ztEmbeddedModuleProxyServer::[%s] zmq_send failed!", c.netName);
        else
            ZTLOG_ERROR("ztEmbeddedModuleProxyServer [%s] zmq_send failed!\r\n", c.netName);
        return -1;
    };
    if (c.reply == Reply::NoWait)
        return s->send(msg, size) == -1 ? failed() : 0;

    const bool large = (c.flags & kLargeReply) != 0;
    char* reply = large ? server.m_pAuxBuf : server.m_pCmdReplyBuf;
    // An exchange outside the command mutex gets a reply buffer of its own, so that it
    // never writes into the one a locked exchange is reading.
    std::unique_ptr<char, decltype(&std::free)> own(nullptr, &std::free);
    if (!lock.owns_lock() || reply == nullptr) {
        own.reset(static_cast<char*>(std::calloc(large ? zt::embedded::kAuxBufSize : zt::embedded::kCmdReplyBufSize, 1)));
        reply = own.get();
        if (reply == nullptr)
            return failed();
    }
    int nret;
    if (large)
        nret = s->sendn(msg, size, reply, zt::embedded::kLargeReplyLimit, zt::embedded::kLargeReplyTimeoutMs);
    else if ((c.flags & kNetLongTimeout) != 0)
        nret = s->sendn(msg, size, reply, zt::embedded::kReplyLimit, zt::embedded::kLongReplyTimeoutMs);
    else
        nret = s->sendn(msg, size, reply, zt::embedded::kReplyLimit);
    if (nret == -1)
        return failed();
    return judge(reply);
}

void ztEmbeddedModuleProxyServer::CommandLink::programVersion(const int parts[4])
{
    // The four numbers are kept as one text with no separator; a head reporting 7.3.4.0
    // is model 7340, which streams raw messages.
    std::string model;
    for (int i = 0; i < 4; ++i)
        model += std::to_string(parts[i]);
    std::lock_guard<std::mutex> lock(server.m_modelMutex);
    server.m_deviceModel = model;
}
