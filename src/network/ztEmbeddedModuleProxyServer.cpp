#include "ztEmbeddedModuleProxyServer.h"

#include "EmbeddedInternals.h"
#include "EmbeddedTcpSocket.h"
#include "foundation/ztDataCallback.h"
#include "foundation/ztWorker.h"
#include "platform/zt_log.h"
#include "platform/zt_time.h"
#include "codec/QlensNetProto.h"
#include "zt_embedded_msg.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr int kHeadPort = 42001;
constexpr unsigned int kHeartbeatPeriodMs = 500;
constexpr int kMaxMissedHeartbeats = 4;
constexpr unsigned int kReleaseDelayMs = 500;
constexpr unsigned short kHeartbeatType = 2;
constexpr int kLPRecvLimit = 0x20000;
constexpr std::size_t kLPScratchSize = 0xA00000;
constexpr const char* kName = "ztEmbeddedModuleProxyServer";

// Closes a connection taken out of its slot. A receive thread may still be inside a call
// on it with its own reference: the shutdown ends that call, and the descriptor itself is
// closed when the last reference goes.
void closeSocket(const std::shared_ptr<zt::EmbeddedTcpSocket>& s)
{
    if (s)
        s->shutdown();
}

} // namespace

ztEmbeddedModuleProxyServer::ztEmbeddedModuleProxyServer()
    : m_cmdTcp(std::make_unique<Slot>()), m_dataTcp(std::make_unique<Slot>()), m_cmdDataTcp(std::make_unique<Slot>()),
      m_lpTcp(std::make_unique<Slot>()), m_dataCB(std::make_unique<zt::DataCallback>()),
      m_dataVec(std::make_unique<Accumulator>(zt::embedded::kRawDataLimit)),
      m_cmd_vec(std::make_unique<Accumulator>(zt::embedded::kCommandDataLimit)),
      m_lpVec(std::make_unique<Accumulator>()), m_decoder1(std::make_unique<ztCamera::QlensNetProto>()),
      m_decoder2(std::make_unique<ztCamera::QlensNetProto>()),
      m_link(std::make_unique<CommandLink>(*this))
{
}

ztEmbeddedModuleProxyServer::~ztEmbeddedModuleProxyServer()
{
    deInit();
    zt::joinLeftBehindAtDestruction(m_leftThreads, kName);
    // The heartbeat and light-pen threads, and threads whose handles were given up, end by
    // themselves once the stop flags are set; they are joined here so that none outlives
    // the object it works on.
    m_bStop = true;
    m_bHeartBeatStop = true;
    zt::joinWorker(m_hHeartBeatThread, kName);
    zt::joinWorker(m_hLPThread, kName);
    for (auto& t : m_forgottenThreads)
        zt::joinWorker(t, kName);
}

int ztEmbeddedModuleProxyServer::init(const std::string& localIP, const std::string& remoteIP,
                                      const std::string& deviceSN)
{
    if (m_pCmdReplyBuf == nullptr && (m_pCmdReplyBuf = static_cast<char*>(std::calloc(zt::embedded::kCmdReplyBufSize, 1))) == nullptr)
        return -1;
    if (m_pAuxBuf == nullptr && (m_pAuxBuf = static_cast<char*>(std::calloc(zt::embedded::kAuxBufSize, 1))) == nullptr)
        return -1;
    m_localIP = localIP;
    m_remoteIP = remoteIP;
    m_deviceSN = deviceSN;
    m_link->tap.use([&](zt::RecorderCore& r) { r.setSerial(deviceSN); });
    // After deInit (every receiver joined and its handle cleared) init starts working
    // receivers again, so the stop flag deInit left set is cleared first. After a mere
    // release the receivers' handles stay set, nothing is restarted and the flag stays.
    if (!m_hProcessThread.joinable() && !m_hDataRecvThread.joinable() && !m_hCmdProcessThread.joinable() &&
        !m_hCmdDataRecvThread.joinable()) {
        zt::joinLeftBehind(m_leftThreads, kName);
        m_bStop = false;
    }
    if (zt::startWorker(m_hProcessThread, &onProcessThread, this, kName) != 0 ||
        zt::startWorker(m_hDataRecvThread, &onDataChannelRecvThread, this, kName) != 0 ||
        zt::startWorker(m_hCmdProcessThread, &onCMDProcessThread, this, kName) != 0 ||
        zt::startWorker(m_hCmdDataRecvThread, &onCommandChannelRecvThread, this, kName) != 0 ||
        zt::startWorker(m_hLPThread, &onLPProcessThread, this, kName) != 0)
        return -1;
    return static_cast<int>(onSocketConnectThreadFunc());
}

unsigned int ztEmbeddedModuleProxyServer::onSocketConnectThread(void* self)
{
    return static_cast<ztEmbeddedModuleProxyServer*>(self)->onSocketConnectThreadFunc();
}

unsigned int ztEmbeddedModuleProxyServer::onSocketConnectThreadFunc()
{
    if (m_bReleaseRequest) {
        releaseClient();
        m_bReleaseRequest = false;
    }
    Slot* const slots[] = {m_cmdTcp.get(), m_dataTcp.get(), m_cmdDataTcp.get(), m_lpTcp.get()};
    {
        std::lock_guard<std::mutex> lock(m_connectMutex);
        bool all = true;
        for (Slot* s : slots)
            all = all && !s->empty();
        if (all)
            return 0;
    }
    // The result of the last connect made in this call: 0 after a connect succeeded, -1
    // while none was made.
    int lastConnect = -1;
    for (std::size_t i = 0; i < 4; ++i) {
        std::lock_guard<std::mutex> lock(m_connectMutex);
        if (!slots[i]->empty())
            continue;
        auto s = std::make_shared<zt::EmbeddedTcpSocket>();
        s->recordInto(&m_link->tap, static_cast<unsigned>(i));
        if (s->create() != 0) {
            s->close();
            forgetThread(m_hHeartBeatThread);
            return static_cast<unsigned int>(i == 0 ? -1 : lastConnect);
        }
        const int rc = s->connect(m_localIP, m_remoteIP, kHeadPort);
        if (rc != 0) {
            s->close();
            forgetThread(m_hHeartBeatThread);
            return static_cast<unsigned int>(rc);
        }
        lastConnect = 0;
        slots[i]->set(std::move(s));
    }
    for (Slot* s : slots)
        if (s->empty())
            return 0;
    if (!m_hHeartBeatThread.joinable()) {
        m_bHeartBeatStop = false;
        if (zt::startWorker(m_hHeartBeatThread, &onCMDHeartBeatSendThread, this, kName) != 0)
            return static_cast<unsigned int>(lastConnect);
    }
    m_bConnected = true;
    DeviceAbilityInfo ability = getCurDeviceAbilityInfo();
    getDeviceAbilityInfo(&ability);
    keepAbilityInfo(ability);
    ZTLOG_INFO("ztEmbeddedModuleProxyServer::device %s online get device ablility info, product type: %d",
               m_deviceSN, static_cast<int>(ability.productType));
    getSETFile(SET_FILE_DATA_0);
    getSETFile(SET_FILE_DATA_1);
    getSETFile(SET_FILE_DATA_2);
    raiseDataCB(ZT_CODE_DEVICE_ONLINE, nullptr, 0);
    ZTLOG_INFO("All TCP threads are established,and the device goes online !!!");
    return 0;
}

void ztEmbeddedModuleProxyServer::forgetThread(std::thread& handle)
{
    if (handle.joinable())
        m_forgottenThreads.push_back(std::move(handle));
}

void ztEmbeddedModuleProxyServer::deInit()
{
    m_bStop = true;
    m_bConnected = false;
    m_bReleaseRequest = false;
    // A worker that stops the server from its own callback is joined later, by the next
    // init or the destructor.
    zt::joinWorker(m_hProcessThread, kName, m_leftThreads);
    zt::joinWorker(m_hDataRecvThread, kName, m_leftThreads);
    zt::joinWorker(m_hCmdDataRecvThread, kName, m_leftThreads);
    zt::joinWorker(m_hCmdProcessThread, kName, m_leftThreads);
    releaseClient();
    // A command still in flight holds the command mutex while it uses the buffers.
    std::lock_guard<std::mutex> lock(m_cmdMutex);
    std::free(m_pCmdReplyBuf);
    m_pCmdReplyBuf = nullptr;
    std::free(m_pAuxBuf);
    m_pAuxBuf = nullptr;
}

bool ztEmbeddedModuleProxyServer::isConnected()
{
    return m_bConnected;
}

int ztEmbeddedModuleProxyServer::getDataPort()
{
    return m_dataPort;
}

std::string ztEmbeddedModuleProxyServer::getDeviceSN()
{
    return m_deviceSN;
}

void ztEmbeddedModuleProxyServer::describeForRecording(zt::RecorderCore& recorder)
{
    recorder.setLink(ztRecorder::NetworkLink);
    recorder.setSerial(m_deviceSN);
    if (m_bConnected)
        recorder.setAbility(getCurDeviceAbilityInfo());
}

void ztEmbeddedModuleProxyServer::setHeartBeatAlive(bool alive)
{
    m_bHeartBeatAlive = alive;
}

void ztEmbeddedModuleProxyServer::releaseClientSignal()
{
    m_bReleaseRequest = true;
}

void ztEmbeddedModuleProxyServer::releaseClient()
{
    m_bConnected = false;
    m_bStop = true;
    m_bHeartBeatStop = true;
    SPR_Sleep(kReleaseDelayMs);
    closeSocket(m_dataTcp->take());
    closeSocket(m_cmdTcp->take());
    closeSocket(m_cmdDataTcp->take());
    closeSocket(m_lpTcp->take());
}

unsigned int ztEmbeddedModuleProxyServer::onCMDHeartBeatSendThread(void* self)
{
    return static_cast<ztEmbeddedModuleProxyServer*>(self)->onCMDHeartBeatSendThreadFunc();
}

unsigned int ztEmbeddedModuleProxyServer::onCMDHeartBeatSendThreadFunc()
{
    do {
        m_bHeartBeatAlive = false;
        sendHeartbeat();
        SPR_Sleep(kHeartbeatPeriodMs);
        if (!m_bHeartBeatAlive) {
            if (++m_missedHeartBeats > kMaxMissedHeartbeats) {
                m_missedHeartBeats = 0;
                releaseClient();
                // The owner may destroy the object in this callback (and build a new one):
                // nothing of it is touched afterwards, and the thread ends, as the release
                // has asked it to.
                const std::string remoteIP = m_remoteIP;
                raiseDataCB(ZT_CODE_DEVICE_OFFLINE, nullptr, 0);
                ZTLOG_WARN("Heartbeat timeout = %s", remoteIP);
                return 0;
            }
        } else {
            m_missedHeartBeats = 0;
        }
    } while (!m_bHeartBeatStop);
    return 0;
}

int ztEmbeddedModuleProxyServer::sendHeartbeat()
{
    const auto s = m_cmdDataTcp->get();
    if (!s)
        return -1;
    void* msg = zt_embedded_msg_create(8, kHeartbeatType, nullptr);
    if (msg == nullptr)
        return -1;
    const int n = s->send(msg, 8);
    if (n == -1)
        ZTLOG_ERROR("ztEmbeddedModuleProxyServer [sendHeartbeat] zmq_send failed!\r\n");
    zt_embedded_msg_release(msg);
    return n >= 0 ? 0 : -1;
}

int ztEmbeddedModuleProxyServer::sendData(std::string& data)
{
    std::lock_guard<std::mutex> lock(m_cmdMutex);
    const auto s = m_lpTcp->get();
    if (!s || data.empty() || s->send(data.data(), static_cast<int>(data.size())) < 0) {
        ZTLOG_ERROR("ztEmbeddedModuleProxyServer [sendData] zmq_send failed!\r\n");
        return -1;
    }
    return 0;
}

int ztEmbeddedModuleProxyServer::recvOnceData(std::string& out)
{
    const auto s = m_lpTcp->get();
    if (!s)
        return -1;
    std::unique_ptr<char, decltype(&std::free)> scratch(static_cast<char*>(std::calloc(kLPScratchSize, 1)), &std::free);
    if (!scratch)
        return -1;
    const int n = s->receive(scratch.get(), kLPRecvLimit);
    if (n == 0 || n == -1)
        return -1;
    // The scratch is zeroed and larger than any receive, so the text always ends in it.
    out.assign(scratch.get(), std::strlen(scratch.get()));
    return 0;
}

void ztEmbeddedModuleProxyServer::registerModuleServerDataCB(void (*cb)(int, char*, int, void*), void* user)
{
    m_dataCB->set(cb, user);
}

void ztEmbeddedModuleProxyServer::raiseDataCB(int type, void* data, int len)
{
    m_dataCB->raise(type, static_cast<char*>(data), len);
}

int ztEmbeddedModuleProxyServer::processMsg(char* msg)
{
    if (msg == nullptr)
        return -2;
    if (zt_embedded_msg_is_avalible(msg) != 0) {
        ZTLOG_ERROR("processMsg::package head error");
        return -1;
    }
    raiseDataCB(zt_embedded_msg_get_msg_type(msg), zt_embedded_msg_get_data(msg), zt_embedded_msg_get_data_len(msg));
    return 0;
}

void ztEmbeddedModuleProxyServer::processMsg_Cmd(char* msg)
{
    if (msg == nullptr || zt_embedded_msg_is_avalible(msg) != 0)
        return;
    raiseDataCB(zt_embedded_msg_get_msg_type(msg), zt_embedded_msg_get_data(msg), zt_embedded_msg_get_data_len(msg));
}
