#include "ztModuleProxyServer.h"

#include "ModuleRequests.h"
#include "ProxyPayload.h"
#include "ProxyTcpSocket.h"
#include "foundation/ProxyFramer.h"
#include "foundation/SharedSlot.h"
#include "foundation/ztDataCallback.h"
#include "foundation/ztWorker.h"
#include "platform/zt_log.h"

#include <chrono>
#include <cstdlib>
#include <cstring>

using zt::PayloadWriter;
using zt::module_proxy::Answer;
using zt::module_proxy::Req;
using zt::module_proxy::RequestRow;

namespace {
constexpr int kReplyCapacity = 0xA00000;
constexpr std::size_t kReplyBufSize = 0xA00010;
constexpr int kScratchSize = 0xA00000;
// The receive queue stops taking bytes while it holds this much: the largest message
// the module proxy carries anywhere (200 MiB and a header).
constexpr std::size_t kRecvQueueLimit = 0xC800010;
constexpr unsigned int kConnectPeriodMs = 200;
constexpr unsigned int kRegisterDelayMs = 2000;
constexpr unsigned int kRecvPeriodMs = 1;
constexpr unsigned int kProcessPeriodMs = 1;
} // namespace

// One channel's socket: shared, so that a thread using it keeps it alive while the
// connect thread drops it; dropping shuts it down, which ends any receive on it.
class ztModuleProxyServer::SocketSlot : public zt::SharedSlot<zt::ProxyTcpSocket> {
public:
    void drop()
    {
        if (auto old = take())
            old->shutdown();
    }
};

ztModuleProxyServer::ztModuleProxyServer()
    : m_dataSocket(std::make_unique<SocketSlot>()), m_cmdSocket(std::make_unique<SocketSlot>()),
      m_recvQueue(std::make_unique<zt::ProxyFramer>()), m_dataCB(std::make_unique<zt::DataCallback>())
{
    m_recvQueue->setLimit(kRecvQueueLimit);
}

ztModuleProxyServer::~ztModuleProxyServer()
{
    deInit();
    // Threads that stopped the host from their own callback end by themselves: they are
    // joined here so that none outlives the object it works on.
    zt::joinLeftBehindAtDestruction(m_leftThreads, "ztModuleProxyServer");
}

int ztModuleProxyServer::init(const std::string& address)
{
    if (m_pReplyBuf == nullptr) {
        m_pReplyBuf = static_cast<char*>(std::calloc(kReplyBufSize, 1));
        if (m_pReplyBuf == nullptr) {
            ZTLOG_ERROR("ztModuleProxyServer::init cannot allocate the reply buffer\n");
            return -1;
        }
    }
    {
        // The connect thread of an earlier init reads the address under these.
        std::scoped_lock lock(m_cmdMutex, m_dataMutex);
        m_address = address;
    }
    // A worker that stopped the host from its own callback ends on the stop flag: it is
    // joined before the flag is cleared for the new workers.
    zt::joinLeftBehind(m_leftThreads, "ztModuleProxyServer");
    m_bStop = false;
    if (zt::startWorker(m_hProcessThread, &ztModuleProxyServer::onProcessThread, this, "ztModuleProxyServer") != 0 ||
        zt::startWorker(m_hDataRecvThread, &ztModuleProxyServer::onDataChannelRecvThread, this,
                        "ztModuleProxyServer") != 0 ||
        zt::startWorker(m_hConnectThread, &ztModuleProxyServer::onSocketConnectThread, this,
                        "ztModuleProxyServer") != 0)
        return -1;
    return 0;
}

void ztModuleProxyServer::deInit()
{
    m_bStop = true;
    zt::joinWorker(m_hProcessThread, "ztModuleProxyServer", m_leftThreads);
    zt::joinWorker(m_hConnectThread, "ztModuleProxyServer", m_leftThreads);
    // The data channel's receive waits for the module's next bytes without a time-out; a
    // module that is up but silent would hold teardown for ever. Shutting the socket down
    // (the connect thread, which could make a new one, has ended) wakes the receive.
    if (const auto s = m_dataSocket->get())
        s->shutdown();
    zt::joinWorker(m_hDataRecvThread, "ztModuleProxyServer", m_leftThreads);
    // A request still in flight on another thread holds the command mutex while it
    // receives into the reply buffer: it ends with its reply before the sockets go.
    std::lock_guard<std::mutex> lock(m_cmdMutex);
    setRegistered(false);
    m_dataSocket->drop();
    m_cmdSocket->drop();
    std::free(m_pReplyBuf);
    m_pReplyBuf = nullptr;
}

void ztModuleProxyServer::registerModuleServerDataCB(void (*cb)(int, char*, int, void*), void* user)
{
    m_dataCB->set(cb, user);
}

void ztModuleProxyServer::releaseClientSignal()
{
    m_bReleaseRequest = true;
}

void ztModuleProxyServer::releaseClient()
{
    setRegistered(false);
    m_dataSocket->drop();
    m_cmdSocket->drop();
}

bool ztModuleProxyServer::isRegistered()
{
    std::lock_guard<std::mutex> lock(m_registeredMutex);
    return m_registered;
}

bool ztModuleProxyServer::waitRegistered(unsigned int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_registeredMutex);
    return m_registeredChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return m_registered; });
}

void ztModuleProxyServer::setRegistered(bool registered)
{
    std::lock_guard<std::mutex> lock(m_registeredMutex);
    m_registered = registered;
    m_registeredChanged.notify_all();
}

int ztModuleProxyServer::getDataPort()
{
    return m_dataPort;
}

int ztModuleProxyServer::getState(_ZT_DEVICE_STATUS_*)
{
    return 0;
}

void ztModuleProxyServer::dropSockets()
{
    setRegistered(false);
    m_cmdSocket->drop();
    m_dataSocket->drop();
}

unsigned int ztModuleProxyServer::onSocketConnectThread(void* self)
{
    return static_cast<ztModuleProxyServer*>(self)->onSocketConnectThreadFunc();
}

unsigned int ztModuleProxyServer::onSocketConnectThreadFunc()
{
    zt::workerLoop(m_bStop, kConnectPeriodMs, [this] {
        if (m_bReleaseRequest) {
            releaseClient();
            m_bReleaseRequest = false;
        }
        bool madeCommand = false;
        {
            std::lock_guard<std::mutex> lock(m_cmdMutex);
            if (!m_cmdSocket->get()) {
                auto s = std::make_shared<zt::ProxyTcpSocket>();
                if (s->create() != 0 || s->connect(m_address, ZT_MODULE_CMD_PORT) != 0) {
                    dropSockets();
                    return zt::Round::Idle;
                }
                m_cmdSocket->set(std::move(s));
                madeCommand = true;
            }
        }
        if (!m_dataSocket->get()) {
            // A new connection starts with an empty receive state: the start of a
            // notification that the lost connection cut off goes. No bytes come in while
            // there is no data socket; this is done before the data mutex is taken, since a
            // callback holds the queue's mutex when it takes the data mutex.
            std::lock_guard<std::mutex> queueLock(m_recvQueueMutex);
            if (const std::size_t dropped = m_recvQueue->dropIncompleteTail())
                ZTLOG_WARN("ztModuleProxyServer: %u bytes of a message cut off by a lost connection discarded\n",
                           static_cast<unsigned int>(dropped));
        }
        {
            std::lock_guard<std::mutex> lock(m_dataMutex);
            if (!m_dataSocket->get()) {
                auto s = std::make_shared<zt::ProxyTcpSocket>();
                if (s->create() != 0 || s->connect(m_address, ZT_MODULE_DATA_PORT) != 0) {
                    dropSockets();
                    return zt::Round::Idle;
                }
                m_dataSocket->set(std::move(s));
            }
        }
        // The register exchange belongs to a round that made the command socket anew.
        if (madeCommand) {
            SPR_Sleep(kRegisterDelayMs);
            if (sendRegister() != 0)
                dropSockets();
            else
                setRegistered(true);
        }
        return zt::Round::Idle;
    });
    return 0;
}

unsigned int ztModuleProxyServer::onDataChannelRecvThread(void* self)
{
    return static_cast<ztModuleProxyServer*>(self)->onDataChannelRecvThreadFunc();
}

unsigned int ztModuleProxyServer::onDataChannelRecvThreadFunc()
{
    char* scratch = static_cast<char*>(std::calloc(kScratchSize, 1));
    if (scratch == nullptr) {
        ZTLOG_ERROR("ztModuleProxyServer::onDataChannelRecvThreadFunc cannot allocate its buffer\n");
        return static_cast<unsigned int>(-1);
    }
    int used = 0; // bytes of the scratch written by the last receive
    zt::workerLoop(m_bStop, kRecvPeriodMs, [&] {
        // Only what the last receive wrote needs clearing.
        std::memset(scratch, 0, static_cast<std::size_t>(used));
        used = 0;
        {
            // A queue that holds the largest possible message unprocessed takes no more
            // bytes until it drains, so a flooding module cannot exhaust memory.
            std::lock_guard<std::mutex> lock(m_recvQueueMutex);
            if (m_recvQueue->size() >= kRecvQueueLimit)
                return zt::Round::Idle;
        }
        if (auto s = m_dataSocket->get()) {
            const int n = s->receive(scratch, kScratchSize);
            if (n >= 1) {
                used = n;
                std::lock_guard<std::mutex> lock(m_recvQueueMutex);
                m_recvQueue->append(scratch, static_cast<std::size_t>(n));
            }
        }
        return zt::Round::Idle;
    });
    std::free(scratch);
    return 0;
}

unsigned int ztModuleProxyServer::onProcessThread(void* self)
{
    return static_cast<ztModuleProxyServer*>(self)->onProcessThreadFunc();
}

unsigned int ztModuleProxyServer::onProcessThreadFunc()
{
    // Each message is copied out of the queue and handled with the queue's lock released:
    // the data callback runs under no library lock, so it may call requests or deInit,
    // which waits for the receive thread that appends to the queue.
    std::vector<char> held;
    zt::workerLoop(m_bStop, kProcessPeriodMs, [this, &held] {
        // Every whole message waiting is handled in this round, in order, rather than one
        // per millisecond: a burst of notifications does not pile up.
        for (;;) {
            {
                std::lock_guard<std::mutex> lock(m_recvQueueMutex);
                const _ZT_PROXY_MSG_* msg = m_recvQueue->front(SIZE_MAX);
                if (msg == nullptr)
                    return zt::Round::Idle;
                const auto* bytes = reinterpret_cast<const char*>(msg);
                held.assign(bytes, bytes + m_recvQueue->frontSize());
                m_recvQueue->pop();
            }
            processMsg(reinterpret_cast<_ZT_PROXY_MSG_*>(held.data()));
        }
    });
    return 0;
}

void ztModuleProxyServer::processMsg(_ZT_PROXY_MSG_* msg)
{
    if (msg == nullptr || zt_msg_is_avalible(msg) != 0 || zt_msg_get_msg_type(msg) != ZT_MSG_TYPE_NOTIFY)
        return;
    raiseDataCB(static_cast<int>(zt_msg_get_sub_type(msg)), static_cast<char*>(zt_msg_get_data(msg)),
                zt_msg_get_data_len(msg));
}

void ztModuleProxyServer::raiseDataCB(int code, char* data, int length)
{
    m_dataCB->raise(code, data, length);
}

int ztModuleProxyServer::request(Req id, const PayloadWriter& payload, const ReplyFn& onReply)
{
    const RequestRow& row = zt::module_proxy::requestRow(id);
    if (payload.refusal() != nullptr) {
        ZTLOG_ERROR("ztModuleProxyServer::[%s] %s, nothing sent\n", row.name, payload.refusal());
        return -1;
    }
    std::unique_lock<std::mutex> lock(m_cmdMutex, std::defer_lock);
    if (row.locked)
        lock.lock();
    const std::shared_ptr<zt::ProxyTcpSocket> s = m_cmdSocket->get();
    if (!s)
        return -1;
    _ZT_PROXY_MSG_* msg = zt_msg_create(ZT_MSG_TYPE_REQUEST, row.sub, payload.size(), payload.data());
    if (msg == nullptr)
        return -1;

    // The exchanges outside the command mutex get a reply buffer of their own, so that
    // they never write into the one a locked exchange is reading.
    std::unique_ptr<char, decltype(&std::free)> own(nullptr, &std::free);
    char* reply = row.locked ? m_pReplyBuf : nullptr;
    if (reply == nullptr) {
        own.reset(static_cast<char*>(std::calloc(kReplyBufSize, 1)));
        reply = own.get();
    }
    int result = -1;
    const int nret = reply == nullptr ? -1 : s->sendn(msg, zt_msg_get_full_size(msg), reply, kReplyCapacity);
    zt_msg_release(msg);
    if (nret != 0) {
        if (row.failLog != nullptr)
            ZTLOG_ERROR(row.failLog, nret);
    } else {
        const int length = zt::module_proxy::acceptedReplyLength(row, reply);
        if (length >= 0) {
            if (onReply)
                onReply(static_cast<const char*>(zt_msg_get_data(reply)), length);
            result = 0;
        }
    }
    // A request cut short on the wire leaves the module mid-message: the session is
    // rebuilt rather than letting the stream misalign.
    if (result != 0 && (row.releaseOnFailure || s->cutShort()))
        releaseClientSignal();
    return result;
}

int ztModuleProxyServer::answer(Answer id, const PayloadWriter& payload)
{
    if (payload.refusal() != nullptr) {
        ZTLOG_ERROR("ztModuleProxyServer::[answer 0x%05X] %s, nothing sent\n", zt::module_proxy::answerSub(id),
                    payload.refusal());
        return -1;
    }
    std::lock_guard<std::mutex> lock(m_dataMutex);
    const std::shared_ptr<zt::ProxyTcpSocket> s = m_dataSocket->get();
    if (!s)
        return -1;
    _ZT_PROXY_MSG_* msg = zt_msg_create(ZT_MSG_TYPE_ANSWER, zt::module_proxy::answerSub(id), payload.size(),
                                        payload.data());
    if (msg != nullptr) {
        s->send(msg, zt_msg_get_full_size(msg));
        zt_msg_release(msg);
    }
    if (s->cutShort())
        releaseClientSignal();
    return 0;
}

int ztModuleProxyServer::sendTrackPose(void* data, unsigned int length)
{
    // Poses stream out as they come: no command mutex and no reply awaited.
    const PayloadWriter payload = PayloadWriter().bytes(data, length);
    if (payload.refusal() != nullptr) {
        ZTLOG_ERROR("ztModuleProxyServer::[sendTrackPose] %s, nothing sent\n", payload.refusal());
        return -1;
    }
    const std::shared_ptr<zt::ProxyTcpSocket> s = m_cmdSocket->get();
    if (!s)
        return -1;
    const RequestRow& row = zt::module_proxy::requestRow(Req::sendTrackPose);
    _ZT_PROXY_MSG_* msg = zt_msg_create(ZT_MSG_TYPE_REQUEST, row.sub, payload.size(), payload.data());
    if (msg == nullptr)
        return -1;
    const int n = s->send(msg, zt_msg_get_full_size(msg));
    zt_msg_release(msg);
    if (s->cutShort())
        releaseClientSignal();
    return n > 0 ? 0 : -1;
}
