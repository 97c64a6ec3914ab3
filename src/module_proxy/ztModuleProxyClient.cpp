#include "ztModuleProxyClient.h"

#include "foundation/ztWorker.h"
#include "platform/zt_log.h"
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

constexpr unsigned int kSubRegister = 0x00001;
constexpr unsigned int kSubUnregister = 0x00002;
constexpr unsigned int kSubModuleRegister = 0x10000;
constexpr unsigned int kSubModuleUnregister = 0x10001;

// Sends one proxy message on a listener; a message that cannot be built sends nothing.
void sendOn(ztScanVentoServer* server, int type, unsigned int subType, int length, const void* payload)
{
    _ZT_PROXY_MSG_* msg = zt_msg_create(type, subType, length, payload);
    if (msg == nullptr)
        return;
    if (server != nullptr)
        server->sendMsg(reinterpret_cast<const char*>(msg), zt_msg_get_full_size(msg));
    zt_msg_release(msg);
}
} // namespace

ztModuleProxyClient::ztModuleProxyClient() = default;

ztModuleProxyClient::~ztModuleProxyClient()
{
    deInit();
}

int ztModuleProxyClient::init()
{
    if (m_pQueryBuf == nullptr) {
        // Reserved, not touched: pages are committed only as a file answer fills them.
        m_pQueryBuf = static_cast<char*>(std::malloc(kQueryBufSize));
        if (m_pQueryBuf == nullptr) {
            ZTLOG_ERROR("ztModuleProxyClient::init cannot allocate the query buffer\n");
            return -1;
        }
    }
    if (m_pDataServer == nullptr)
        m_pDataServer = new (std::nothrow) ztScanVentoServer(kQueryCapacity);
    if (m_pCmdServer == nullptr)
        m_pCmdServer = new (std::nothrow) ztScanVentoServer(kCmdCapacity);
    if (m_pDataServer == nullptr || m_pCmdServer == nullptr) {
        ZTLOG_ERROR("ztModuleProxyClient::init cannot create the listeners\n");
        return -1;
    }
    // A listener already listening (init called twice) keeps serving.
    if (m_pDataServer->port() == 0 && m_pDataServer->startThread(ZT_MODULE_DATA_PORT) != 0)
        return -1;
    if (m_pCmdServer->port() == 0 && m_pCmdServer->startThread(ZT_MODULE_CMD_PORT) != 0)
        return -1;
    m_bStop = false;
    if (zt::startWorker(m_hCmdRecvThread, &ztModuleProxyClient::onCMDChannelRecvThread, this,
                        "ztModuleProxyClient") != 0)
        return -1;
    return 0;
}

void ztModuleProxyClient::deInit()
{
    m_bStop = true;
    zt::joinWorker(m_hCmdRecvThread, "ztModuleProxyClient");
    delete m_pDataServer;
    m_pDataServer = nullptr;
    delete m_pCmdServer;
    m_pCmdServer = nullptr;
    std::free(m_pQueryBuf);
    m_pQueryBuf = nullptr;
}

void ztModuleProxyClient::registerModuleClientDataCB(void (*cb)(int, char*, int, void*), void* user)
{
    std::lock_guard<std::mutex> lock(m_cbMutex);
    m_pDataCB = cb;
    m_pUser = user;
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

int ztModuleProxyClient::sendReply(unsigned int subType, const void* payload, int length)
{
    std::lock_guard<std::mutex> lock(m_cmdMutex);
    sendOn(m_pCmdServer, ZT_MSG_TYPE_REPLY, subType, length, payload);
    return 0;
}

int ztModuleProxyClient::sendRegisterRep(bool ok)
{
    const std::int32_t value = ok ? 1 : 0;
    return sendReply(kSubRegister, &value, sizeof value);
}

int ztModuleProxyClient::sendUnRegisterRep(bool ok)
{
    const std::int32_t value = ok ? 1 : 0;
    return sendReply(kSubUnregister, &value, sizeof value);
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
    zt::workerLoop(m_bStop, kCmdRecvPeriodMs, [&] {
        // Only the part the last message wrote needs clearing.
        std::memset(buffer, 0, used);
        used = 0;
        if (m_pCmdServer == nullptr)
            return false;
        if (m_pCmdServer->recv(buffer, kCmdCapacity, kCmdRecvTimeoutMs) == 0) {
            auto* msg = reinterpret_cast<_ZT_PROXY_MSG_*>(buffer);
            used = static_cast<std::size_t>(zt_msg_get_full_size(msg));
            processMsg(msg);
        }
        return true;
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
    void (*cb)(int, char*, int, void*);
    void* user;
    {
        std::lock_guard<std::mutex> lock(m_cbMutex);
        cb = m_pDataCB;
        user = m_pUser;
    }
    if (cb != nullptr)
        cb(code, data, length, user);
}
