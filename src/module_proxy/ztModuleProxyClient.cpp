#include "ztModuleProxyClient.h"

#include "foundation/ztDataCallback.h"
#include "foundation/ztWorker.h"
#include "platform/zt_log.h"
#include "ModuleReplies.h"
#include "ProxyPayload.h"
#include "ztScanVentoServer.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {
constexpr std::size_t kCmdCapacity = 0xA00000;     // largest host request
constexpr std::size_t kQueryCapacity = 0xC800000;  // largest answer to a file query
constexpr std::size_t kQueryBufSize = kQueryCapacity + 16;
constexpr unsigned int kCmdRecvTimeoutMs = 1000;
constexpr unsigned int kCmdRecvPeriodMs = 5;

constexpr unsigned int kSubModuleRegister = 0x10000;
constexpr unsigned int kSubModuleUnregister = 0x10001;

// Sends one proxy message on a listener: false when the message cannot be built.
bool sendOn(ztScanVentoServer* server, int type, unsigned int subType, int length, const void* payload)
{
    _ZT_PROXY_MSG_* msg = zt_msg_create(type, subType, length, payload);
    if (msg == nullptr)
        return false;
    if (server != nullptr)
        server->sendMsg(reinterpret_cast<const char*>(msg), zt_msg_get_full_size(msg));
    zt_msg_release(msg);
    return true;
}
} // namespace

ztModuleProxyClient::ztModuleProxyClient() : m_dataCB(std::make_unique<zt::DataCallback>()) {}

ztModuleProxyClient::~ztModuleProxyClient()
{
    deInit();
    zt::joinLeftBehindAtDestruction(m_leftThreads, "ztModuleProxyClient");
}

int ztModuleProxyClient::init()
{
    {
        // Senders on other threads read these under the data and command mutexes.
        std::scoped_lock lock(m_dataMutex, m_cmdMutex);
        if (m_pQueryBuf == nullptr) {
            // Zeroed (pages are still committed only as answers fill them): before the first
            // file query the buffer holds no message.
            m_pQueryBuf = static_cast<char*>(std::calloc(kQueryBufSize, 1));
            if (m_pQueryBuf == nullptr) {
                ZTLOG_ERROR("ztModuleProxyClient::init cannot allocate the query buffer\n");
                return -1;
            }
        }
        if (m_pDataServer == nullptr)
            m_pDataServer = new (std::nothrow) ztScanVentoServer(kQueryCapacity);
        if (m_pCmdServer == nullptr)
            m_pCmdServer = new (std::nothrow) ztScanVentoServer(kCmdCapacity);
    }
    if (m_pDataServer == nullptr || m_pCmdServer == nullptr) {
        ZTLOG_ERROR("ztModuleProxyClient::init cannot create the listeners\n");
        return -1;
    }
    // A listener already listening (init called twice) keeps serving.
    if (m_pDataServer->port() == 0 && m_pDataServer->startThread(ZT_MODULE_DATA_PORT) != 0)
        return -1;
    if (m_pCmdServer->port() == 0 && m_pCmdServer->startThread(ZT_MODULE_CMD_PORT) != 0)
        return -1;
    // A receive thread that stopped the module from its own callback ends on the stop flag:
    // it is joined before the flag is cleared for the new one.
    zt::joinLeftBehind(m_leftThreads, "ztModuleProxyClient");
    m_bStop = false;
    if (zt::startWorker(m_hCmdRecvThread, &ztModuleProxyClient::onCMDChannelRecvThread, this,
                        "ztModuleProxyClient") != 0)
        return -1;
    return 0;
}

void ztModuleProxyClient::deInit()
{
    m_bStop = true;
    // Senders on other threads use the listeners and the query buffer under the data and
    // command mutexes. Stopping the listeners first ends what those senders wait for: a
    // send to a host that stopped reading fails, and a file query stops waiting for its
    // answer (it fails as on a time-out), so that teardown never waits on the host.
    // (Only init and deInit change the two pointers, on the caller's thread.)
    for (ztScanVentoServer* server : {m_pDataServer, m_pCmdServer})
        if (server != nullptr)
            server->stop();
    zt::joinWorker(m_hCmdRecvThread, "ztModuleProxyClient", m_leftThreads);
    {
        std::lock_guard<std::mutex> lock(m_dataMutex);
        delete m_pDataServer;
        m_pDataServer = nullptr;
    }
    {
        std::lock_guard<std::mutex> lock(m_cmdMutex);
        delete m_pCmdServer;
        m_pCmdServer = nullptr;
    }
    std::lock_guard<std::mutex> lock(m_dataMutex);
    std::free(m_pQueryBuf);
    m_pQueryBuf = nullptr;
}

void ztModuleProxyClient::registerModuleClientDataCB(void (*cb)(int, char*, int, void*), void* user)
{
    m_dataCB->set(cb, user);
}

int ztModuleProxyClient::registerModule(const std::string& name)
{
    std::lock_guard<std::mutex> lock(m_dataMutex);
    sendOn(m_pDataServer, ZT_MSG_TYPE_NOTIFY, kSubModuleRegister, static_cast<int>(name.size()), name.data());
    return 0;
}

int ztModuleProxyClient::unregisterModule()
{
    std::lock_guard<std::mutex> lock(m_dataMutex);
    sendOn(m_pDataServer, ZT_MSG_TYPE_NOTIFY, kSubModuleUnregister, 0, nullptr);
    return 0;
}

unsigned int ztModuleProxyClient::onCMDChannelRecvThread(void* self)
{
    return static_cast<ztModuleProxyClient*>(self)->onCMDChannelRecvThreadFunc();
}

unsigned int ztModuleProxyClient::onCMDChannelRecvThreadFunc()
{
    char* buffer = static_cast<char*>(std::calloc(kCmdCapacity, 1));
    if (buffer == nullptr) {
        ZTLOG_ERROR("ztModuleProxyClient::onCMDChannelRecvThreadFunc cannot allocate its buffer\n");
        return static_cast<unsigned int>(-1);
    }
    std::size_t used = 0; // bytes of the buffer written by the last message
    // The receive waits for a request itself; the 5 ms pause follows only a round that
    // received nothing, so that a request behind another is served at once.
    zt::workerLoop(m_bStop, kCmdRecvPeriodMs, [&] {
        // Only the part the last message wrote needs clearing.
        std::memset(buffer, 0, used);
        used = 0;
        if (m_pCmdServer == nullptr)
            return zt::Round::Stop;
        if (m_pCmdServer->recv(buffer, kCmdCapacity, kCmdRecvTimeoutMs) != 0)
            return zt::Round::Idle;
        auto* msg = reinterpret_cast<_ZT_PROXY_MSG_*>(buffer);
        used = static_cast<std::size_t>(zt_msg_get_full_size(msg));
        processMsg(msg);
        return zt::Round::Busy;
    });
    std::free(buffer);
    return 0;
}

void ztModuleProxyClient::processMsg(_ZT_PROXY_MSG_* msg)
{
    if (msg == nullptr || zt_msg_is_avalible(msg) != 0 || zt_msg_get_msg_type(msg) != ZT_MSG_TYPE_REQUEST)
        return;
    raiseDataCB(static_cast<int>(zt_msg_get_sub_type(msg)), static_cast<char*>(zt_msg_get_data(msg)),
                zt_msg_get_data_len(msg));
}

void ztModuleProxyClient::raiseDataCB(int code, char* data, int length)
{
    m_dataCB->raise(code, data, length);
}

// A payload the caller's arguments could not make: logged under the method's name, and
// nothing is sent.
bool ztModuleProxyClient::refused(const char* method, const zt::PayloadWriter& payload)
{
    if (payload.refusal() == nullptr)
        return false;
    ZTLOG_ERROR("ztModuleProxyClient::[%s] %s, nothing sent\n", method, payload.refusal());
    return true;
}

int ztModuleProxyClient::reply(zt::module_proxy::Rep id, const zt::PayloadWriter& payload)
{
    if (refused(zt::module_proxy::replyRow(id).name, payload))
        return -1;
    std::lock_guard<std::mutex> lock(m_cmdMutex);
    sendOn(m_pCmdServer, ZT_MSG_TYPE_REPLY, zt::module_proxy::replyRow(id).sub, payload.size(), payload.data());
    return 0;
}

int ztModuleProxyClient::notify(zt::module_proxy::Event id, const zt::PayloadWriter& payload)
{
    if (refused(zt::module_proxy::eventRow(id).name, payload))
        return -1;
    std::lock_guard<std::mutex> lock(m_dataMutex);
    return sendOn(m_pDataServer, ZT_MSG_TYPE_NOTIFY, zt::module_proxy::eventRow(id).sub, payload.size(),
                  payload.data())
               ? 0
               : -1;
}

int ztModuleProxyClient::query(zt::module_proxy::Query id, const zt::PayloadWriter& payload, const AnswerFn& onAnswer)
{
    const zt::module_proxy::QueryRow& row = zt::module_proxy::queryRow(id);
    if (refused(row.name, payload))
        return -1;
    // The data mutex is held across the wait: events sent meanwhile queue behind it.
    std::lock_guard<std::mutex> lock(m_dataMutex);
    sendOn(m_pDataServer, ZT_MSG_TYPE_NOTIFY, row.sub, payload.size(), payload.data());
    if (m_pDataServer == nullptr || m_pQueryBuf == nullptr ||
        m_pDataServer->recv(m_pQueryBuf, kQueryCapacity, row.waitMs) != 0) {
        if (row.logsFailures)
            ZTLOG_ERROR("%s m_data_server->recv failed\r\n", row.name);
        return -1;
    }
    const int available = zt_msg_is_avalible(m_pQueryBuf);
    const int type = zt_msg_get_msg_type(m_pQueryBuf);
    const unsigned int sub = zt_msg_get_sub_type(m_pQueryBuf);
    if (available != 0 || type != ZT_MSG_TYPE_ANSWER || sub != row.sub) {
        if (row.logsFailures)
            ZTLOG_ERROR("%s zt_msg_is_avalible failed[%d][%d][%d]\r\n", row.name, available, type, sub);
        return -1;
    }
    onAnswer(static_cast<const char*>(zt_msg_get_data(m_pQueryBuf)), zt_msg_get_data_len(m_pQueryBuf));
    return 0;
}

int ztModuleProxyClient::sendDevicePreTrigger(unsigned long long time)
{
    std::lock_guard<std::mutex> lock(m_dataMutex);
    sendOn(m_pDataServer, ZT_MSG_TYPE_NOTIFY, zt::module_proxy::eventRow(zt::module_proxy::Event::sendDevicePreTrigger).sub,
           sizeof(std::uint64_t), &time);
    // The host's answer to this pre-trigger is not read here: the result tells whether the
    // last file query's receive left a pre-trigger answer in the query reply buffer.
    const char* held = m_pQueryBuf;
    if (held == nullptr || zt_msg_is_avalible(held) != 0 || zt_msg_get_msg_type(held) != ZT_MSG_TYPE_ANSWER ||
        zt_msg_get_sub_type(held) != zt::module_proxy::eventRow(zt::module_proxy::Event::sendDevicePreTrigger).sub)
        return -1;
    return 0;
}
