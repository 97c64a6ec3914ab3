#include "ztUsbCommandLink.h"

#include "codec/QlensNetProto.h"
#include "foundation/ByteQueue.h"
#include "foundation/ztDataCallback.h"
#include "foundation/ztWorker.h"
#include "platform/zt_log.h"
#include "platform/zt_time.h"
#include "zt_embedded_msg.h"
#include "ztBufferPool.h"

#include <libusb.h>

#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr std::size_t kCtrlReplyBufSize = 0xA00000;
constexpr std::size_t kFileReplyBufSize = 0x6400000;
constexpr int kStreamFrames = 64;
constexpr unsigned long long kStreamFrameSize = 0x4B0400;
constexpr int kEventFrames = 16;
constexpr unsigned long long kEventFrameSize = 0x100000;
constexpr unsigned int kTransferTimeoutMs = 1500;
constexpr unsigned int kHeartbeatPeriodMs = 500;
constexpr int kMaxMissedHeartbeats = 4;
constexpr unsigned int kReleaseDelayMs = 500;
constexpr unsigned int kPollMs = 10;
constexpr unsigned int kIdleWaitMs = 50;
constexpr unsigned short kHeartbeatType = 2;
constexpr const char* kName = "ztUsbProxyServer";

// The three IN paths and the index of their stop flag; the heartbeat's flag is the fourth.
enum Path { Stream = 0, Control = 1, Event = 2 };
constexpr int kHeartbeatStop = 3;

struct PathSetup {
    int transfers;
    unsigned int packetFactor;
    const char* startLog;
    const char* submitErrorLog;
    const char* allocErrorLog;
    const char* stopLog;
};

const PathSetup kPaths[3] = {
    {32, 64, "usb stream receive loop start", "allocateBuffer_stream::libusb_submit_transfer error, status = %d",
     "allocateBuffer_stream::failed to allocate buffers and transfer structures", "usb stream receive loop stop"},
    {1, 4, "usb control receive loop start", "allocateBuffer_ctrl::libusb_submit_transfer error, status = %d",
     "allocateBuffer_ctrl::failed to allocate buffers and transfer structures", "usb control receive loop stop"},
    {1, 4, "event receive loop start", "allocateBuffer_event::libusb_submit_transfer error, status = %d",
     "allocateBuffer_event::failed to allocate buffers and transfer structures", "usb event receive loop stop"},
};

// A finished IN transfer as the recorder keeps it: the ones that brought bytes, and the
// failures; transfers that only timed out or were cancelled by the library are left out.
void recordCompletion(zt::RecordSlot& tap, const libusb_transfer* t)
{
    if (!tap.active())
        return;
    const bool quiet = t->status == LIBUSB_TRANSFER_COMPLETED || t->status == LIBUSB_TRANSFER_TIMED_OUT ||
                       t->status == LIBUSB_TRANSFER_CANCELLED;
    if (t->actual_length > 0 || !quiet)
        tap.bytes(ztRecorder::BytesIn, t->endpoint, t->status, t->buffer,
                  static_cast<std::size_t>(t->actual_length > 0 ? t->actual_length : 0));
}

bool carriesData(const libusb_transfer* t)
{
    return t->status == LIBUSB_TRANSFER_COMPLETED || t->status == LIBUSB_TRANSFER_TIMED_OUT;
}

} // namespace

// The stream path copies every finished packet into a free stream frame. Lending the
// decoder a free frame when a packet starts lets the packet be written there directly and
// saves that copy of each frame. A packet that finds no free frame at its start takes a
// buffer of its own and is copied as before, so no packet is dropped that a frame free at
// its end would have taken. Only the decoder's thread (under the decoder's lock) uses it.
struct ztUsbProxyServer::StreamStorage final : ztCamera::PacketStorage {
    explicit StreamStorage(ztCamera::ztBufferPool& pool) : pool(pool) {}

    unsigned char* lend(std::uint64_t size) override
    {
        if (size >= kStreamFrameSize) // left to the size check of the stream path
            return nullptr;
        lent = pool.getOneFramefromPool();
        return lent != nullptr ? lent->data : nullptr;
    }

    void giveBack(unsigned char* block) override
    {
        if (lent != nullptr && lent->data == block)
            pool.returnFrame(std::exchange(lent, nullptr));
    }

    // The lent frame when packet was written into it (the frame then leaves the storage).
    ztCamera::ztPoolFrame* takeFrameOf(const ztCamera::QlensNetCmd& packet)
    {
        if (lent == nullptr || lent->data != packet.buffer)
            return nullptr;
        return std::exchange(lent, nullptr);
    }

    ztCamera::ztBufferPool& pool;
    ztCamera::ztPoolFrame* lent = nullptr;
};

ztUsbProxyServer::ztUsbProxyServer(_ZT_USB3_DEVICE_INFO_ info, libusb_device_handle* handle)
    : m_ctrlRecv(std::make_unique<zt::ByteQueue>()), m_eventRecv(std::make_unique<zt::ByteQueue>()),
      m_streamPool(std::make_unique<ztCamera::ztBufferPool>()), m_eventPool(std::make_unique<ztCamera::ztBufferPool>()),
      m_streamStorage(std::make_unique<StreamStorage>(*m_streamPool)), m_decoder(std::make_unique<ztCamera::QlensNetProto>()),
      m_dataCB(std::make_unique<zt::DataCallback>()), m_link(std::make_unique<CommandLink>(*this)), m_handle(handle), m_info(info), m_extra(info.extra)
{
    // The serial number is read as text: make sure it ends inside its field.
    m_info.serialNumber[sizeof m_info.serialNumber - 1] = '\0';
    for (auto& s : m_stop)
        s = false;
    m_decoder->setPacketStorage(m_streamStorage.get());
}

ztUsbProxyServer::~ztUsbProxyServer()
{
    if (onFrameThread()) {
        // Nothing safe is left to do: the thread would go on with freed pools.
        ZTLOG_ERROR("ztUsbProxyServer destroyed from the data callback of a frame: not supported");
        std::abort();
    }
    deInit();
    // The heartbeat thread is let go by deInit; it ends on its stop flag and is joined here
    // so that it never outlives the object.
    zt::joinWorker(m_hHeartBeatThread, kName);
    for (auto& t : m_forgottenThreads)
        zt::joinWorker(t, kName);
}

int ztUsbProxyServer::allocateReplyBuffers()
{
    if (m_pDataRecv_ctrl == nullptr && (m_pDataRecv_ctrl = static_cast<char*>(std::calloc(kCtrlReplyBufSize, 1))) == nullptr) {
        ZTLOG_ERROR("ztUsbProxyServer::malloc m_pDataRecv_ctrl buffer failed");
        return -1;
    }
    if (m_pFileRecv_ctrl == nullptr && (m_pFileRecv_ctrl = static_cast<char*>(std::calloc(kFileReplyBufSize, 1))) == nullptr) {
        ZTLOG_ERROR("ztUsbProxyServer::malloc m_pFileRecv_ctrl buffer failed");
        return -1;
    }
    return 0;
}

int ztUsbProxyServer::init()
{
    if (m_handle == nullptr) {
        ZTLOG_ERROR("ztUsbProxyServer::[init] no device handle");
        return -1;
    }
    if (m_hDataRecvThread.joinable() || m_hStreamProcessThread.joinable() || m_hEventProcessThread.joinable() ||
        m_hHeartBeatThread.joinable()) {
        // A second init must not make the pools and transfers anew under the running
        // threads: it gives the first one's result and touches nothing.
        ZTLOG_WARN("ztUsbProxyServer::[init] already running (deInit first for a new start)");
        return m_initResult;
    }
    // A new start after deInit: the heartbeat thread that deInit let go ends first, then
    // the stop flags are cleared for the new threads.
    for (auto& t : m_forgottenThreads)
        zt::joinWorker(t, kName);
    m_forgottenThreads.clear();
    for (auto& s : m_stop)
        s = false;
    m_initResult = -1;
    return startUp();
}

int ztUsbProxyServer::startUp()
{
    {
        // Commands read the buffers under the command set's lock, sendData under the
        // receive lock.
        std::scoped_lock lock(m_link->mutex, m_recvMutex);
        if (allocateReplyBuffers() != 0)
            return -1;
    }
    if (initPools() != 0)
        return -1;
    if (zt::startWorker(m_hStreamProcessThread, &onStreamProcessThread, this, kName) != 0 ||
        zt::startWorker(m_hEventProcessThread, &onEventProcessThread, this, kName) != 0 ||
        zt::startWorker(m_hDataRecvThread, &onDataRecvThread, this, kName) != 0 ||
        zt::startWorker(m_hHeartBeatThread, &onHeartBeatSendThread, this, kName) != 0)
        return -1;
    DeviceAbilityInfo ability = getCurDeviceAbilityInfo();
    getDeviceAbilityInfo(&ability);
    keepAbilityInfo(ability);
    ZTLOG_INFO("ztUsbProxyServer::device %s online get device ablility info, product type: %d", m_info.serialNumber,
               static_cast<int>(ability.productType));
    for (int i = 0; i < 5; ++i) {
        if (getSETFile(SET_FILE_DATA_1) == 0)
            break;
        ZTLOG_INFO("ztUsbProxyServer::device %s get SET file failed, time = %d", m_info.serialNumber, i);
        SPR_Sleep(1000);
    }
    m_initResult = 0;
    // The callback may destroy the object: nothing of it is touched afterwards.
    const std::string sn = m_info.serialNumber;
    raiseDataCB(ZT_CODE_DEVICE_ONLINE, nullptr, 0);
    ZTLOG_INFO("ztUsbProxyServer::all usb comunicate threads are established, the device %s goes online.", sn);
    return 0;
}

int ztUsbProxyServer::initPools()
{
    dropLentFrame();
    if (m_streamPool->initResource(kStreamFrames, kStreamFrameSize) != 0 ||
        m_eventPool->initResource(kEventFrames, kEventFrameSize) != 0)
        return -1;
    return 0;
}

bool ztUsbProxyServer::onFrameThread() const
{
    const std::thread::id self = std::this_thread::get_id();
    return self == m_hStreamProcessThread.get_id() || self == m_hEventProcessThread.get_id() ||
           self == m_hDataRecvThread.get_id();
}

void ztUsbProxyServer::deInit()
{
    // The stream and event threads hand their frame back to its pool after the callback:
    // a deInit from there would free the pools under them. It is refused; the 283 callback
    // (on the heartbeat thread) may stop or destroy the object.
    if (onFrameThread()) {
        ZTLOG_ERROR("ztUsbProxyServer::[deInit] called from the data callback of a frame: refused, call it from "
                    "another thread");
        return;
    }
    releaseClient();
    zt::joinWorker(m_hDataRecvThread, kName);
    if (m_hHeartBeatThread.joinable())
        m_forgottenThreads.push_back(std::move(m_hHeartBeatThread));
    zt::joinWorker(m_hStreamProcessThread, kName);
    zt::joinWorker(m_hEventProcessThread, kName);
    dropLentFrame();
    m_streamPool->releaseResource();
    m_eventPool->releaseResource();
    // A command still running holds the command set's lock while it uses the buffers;
    // sendData clears the control buffer under the receive lock.
    std::scoped_lock lock(m_link->mutex, m_recvMutex);
    std::free(m_pDataRecv_ctrl);
    m_pDataRecv_ctrl = nullptr;
    std::free(m_pFileRecv_ctrl);
    m_pFileRecv_ctrl = nullptr;
}

void ztUsbProxyServer::registerModuleServerDataCB(void (*cb)(int, char*, int, void*), void* user)
{
    m_dataCB->set(cb, user);
}

void ztUsbProxyServer::raiseDataCB(int type, void* data, int length)
{
    m_dataCB->raise(type, static_cast<char*>(data), length);
}

void ztUsbProxyServer::releaseClient()
{
    for (auto& s : m_stop)
        s.exchange(true);
    m_bConnected = false;
    SPR_Sleep(kReleaseDelayMs);
}

bool ztUsbProxyServer::isConnected()
{
    return m_bConnected;
}

void ztUsbProxyServer::setHeartBeatAlive(bool alive)
{
    m_bHeartBeatAlive = alive;
}

void ztUsbProxyServer::dropLentFrame()
{
    // A packet cut short by a stop may still be written into a stream frame; the frames
    // are about to be freed or made anew.
    std::lock_guard<std::mutex> lock(m_decoderMutex);
    m_decoder->discardPacket();
}

void ztUsbProxyServer::resetQlensNetProto()
{
    std::lock_guard<std::mutex> lock(m_decoderMutex);
    m_decoder->reset();
}

unsigned int ztUsbProxyServer::allocateBuffer_stream()
{
    return allocateTransfers(Stream);
}

unsigned int ztUsbProxyServer::allocateBuffer_ctrl()
{
    return allocateTransfers(Control);
}

unsigned int ztUsbProxyServer::allocateBuffer_event()
{
    return allocateTransfers(Event);
}

unsigned int ztUsbProxyServer::allocateTransfers(int path)
{
    const PathSetup& setup = kPaths[path];
    m_stop[path] = false;
    const unsigned char endpoints[3] = {m_info.streamInEndpoint, m_info.ctrlInEndpoint, m_info.eventInEndpoint};
    const unsigned int maxPackets[3] = {m_info.streamMaxPacket, m_info.ctrlMaxPacket, m_info.eventMaxPacket};
    const libusb_transfer_cb_fn callbacks[3] = {&xfer_callback_stream, &xfer_callback_ctrl, &xfer_callback_event};
    const int length = static_cast<int>(setup.packetFactor * maxPackets[path]);
    auto** buffers = static_cast<unsigned char**>(std::calloc(static_cast<std::size_t>(setup.transfers), sizeof(unsigned char*)));
    auto** transfers = static_cast<libusb_transfer**>(std::calloc(static_cast<std::size_t>(setup.transfers), sizeof(libusb_transfer*)));
    bool ok = buffers != nullptr && transfers != nullptr && length > 0;
    for (int i = 0; ok && i < setup.transfers; ++i) {
        buffers[i] = static_cast<unsigned char*>(std::calloc(static_cast<std::size_t>(length), 1));
        transfers[i] = libusb_alloc_transfer(0);
        ok = buffers[i] != nullptr && transfers[i] != nullptr;
    }
    if (!ok) {
        ZTLOG_ERROR(setup.allocErrorLog);
        free_transfer_buffers(buffers, transfers, setup.transfers);
        return 0xFFFFFFFF;
    }
    m_buffers[path] = buffers;
    m_transfers[path] = transfers;
    for (int i = 0; i < setup.transfers; ++i) {
        libusb_fill_bulk_transfer(transfers[i], m_handle, endpoints[path], buffers[i], length, callbacks[path], this,
                                  kTransferTimeoutMs);
        const int rc = libusb_submit_transfer(transfers[i]);
        if (rc == 0)
            ++m_pending[path];
        else
            ZTLOG_ERROR(setup.submitErrorLog, rc);
    }
    ZTLOG_INFO(setup.startLog);
    return 0;
}

void ztUsbProxyServer::free_transfer_buffers(unsigned char** buffers, libusb_transfer** transfers, int count)
{
    if (transfers != nullptr) {
        for (int i = 0; i < count; ++i)
            if (transfers[i] != nullptr)
                libusb_free_transfer(transfers[i]);
        std::free(transfers);
    }
    if (buffers != nullptr) {
        for (int i = 0; i < count; ++i)
            std::free(buffers[i]);
        std::free(buffers);
    }
}

void ztUsbProxyServer::resubmit(libusb_transfer* transfer, int path)
{
    --m_pending[path];
    if (m_stop[path])
        return;
    if (libusb_submit_transfer(transfer) == 0)
        ++m_pending[path];
}

void ztUsbProxyServer::xfer_callback_ctrl(libusb_transfer* transfer)
{
    auto* self = static_cast<ztUsbProxyServer*>(transfer->user_data);
    recordCompletion(self->m_link->tap, transfer);
    if (carriesData(transfer)) {
        const int n = transfer->actual_length;
        // Short reads are noise, except a lone tail byte that completes a split reply.
        if (n >= 7 || (n == 1 && transfer->buffer[0] == 0xBB)) {
            {
                std::lock_guard<std::mutex> lock(self->m_recvMutex);
                self->m_ctrlRecv->append(transfer->buffer, static_cast<std::size_t>(n));
            }
            self->m_ctrlArrived.notify_all();
        }
    }
    self->resubmit(transfer, Control);
}

void ztUsbProxyServer::xfer_callback_event(libusb_transfer* transfer)
{
    auto* self = static_cast<ztUsbProxyServer*>(transfer->user_data);
    recordCompletion(self->m_link->tap, transfer);
    if (carriesData(transfer)) {
        // Any completion, even an empty one at the transfer time-out, shows the device is
        // there.
        self->m_bHeartBeatAlive = true;
        zt::ByteQueue& held = *self->m_eventRecv;
        held.append(transfer->buffer, static_cast<std::size_t>(transfer->actual_length));
        if (held.size() >= 8) {
            const auto full = static_cast<std::uint32_t>(zt_embedded_msg_get_full_size(held.data()));
            if (full < 8) {
                // Smaller than an empty message: nothing can be cut from this stream.
                ZTLOG_WARN("xfer_callback_event::frame len %d below a whole message, %d bytes dropped",
                           static_cast<int>(full), static_cast<int>(held.size()));
                held.clear();
            } else if (full > held.size()) {
                ZTLOG_ERROR("xfer_callback_event::single frame len %d > buffer vector size %d", static_cast<int>(full),
                            static_cast<int>(held.size()));
                held.clear();
            } else {
                if (ztCamera::ztPoolFrame* frame = self->m_eventPool->getOneFramefromPool()) {
                    if (full >= kEventFrameSize) {
                        ZTLOG_ERROR("xfer_callback_event::event data Len %d > poolbuffersize %d", static_cast<int>(full),
                                    static_cast<int>(kEventFrameSize));
                        self->m_eventPool->returnFrame(frame);
                    } else {
                        std::memcpy(frame->data, held.data(), full);
                        frame->length = full;
                        self->m_eventPool->pushReady(frame);
                    }
                } else {
                    ZTLOG_WARN("xfer_callback_event::getOneFramefromPool is nullptr");
                }
                held.consume(full);
            }
        } else if (!self->m_stop[Event]) {
            // Once stopping, the event transfer ends at its time-out with no bytes: that is
            // the library's own doing, not a short message from the head.
            ZTLOG_ERROR("xfer_callback_event::buffer vector size %d < packet minimum sise %d", static_cast<int>(held.size()), 7);
        }
    }
    self->resubmit(transfer, Event);
}

void ztUsbProxyServer::xfer_callback_stream(libusb_transfer* transfer)
{
    auto* self = static_cast<ztUsbProxyServer*>(transfer->user_data);
    recordCompletion(self->m_link->tap, transfer);
    if (carriesData(transfer) && transfer->actual_length > 0) {
        const unsigned char* data = transfer->buffer;
        std::uint64_t left = static_cast<std::uint64_t>(transfer->actual_length);
        std::lock_guard<std::mutex> lock(self->m_decoderMutex);
        while (left > 0) {
            std::shared_ptr<ztCamera::QlensNetCmd> packet = self->m_decoder->decode(data, left);
            if (!packet)
                break;
            self->m_cmd = packet;
            if (ztCamera::ztPoolFrame* written = self->m_streamStorage->takeFrameOf(*packet)) {
                written->length = packet->bufSize;
                self->m_streamPool->pushReady(written);
                continue;
            }
            ztCamera::ztPoolFrame* frame = self->m_streamPool->getOneFramefromPool();
            if (frame == nullptr)
                continue; // no free frame: the packet is dropped
            if (packet->bufSize >= kStreamFrameSize) {
                ZTLOG_ERROR("xfer_callback_stream::m_cmd->bufSize %d > poolbuffersize %d",
                            static_cast<int>(packet->bufSize), static_cast<int>(kStreamFrameSize));
                self->m_streamPool->returnFrame(frame);
                continue;
            }
            std::memcpy(frame->data, packet->buffer, packet->bufSize);
            frame->length = packet->bufSize;
            self->m_streamPool->pushReady(frame);
        }
    }
    self->resubmit(transfer, Stream);
}

unsigned int ztUsbProxyServer::onDataRecvThread(void* self)
{
    return static_cast<ztUsbProxyServer*>(self)->onDataRecvThreadFunc();
}

unsigned int ztUsbProxyServer::onDataRecvThreadFunc()
{
    allocateBuffer_stream();
    allocateBuffer_ctrl();
    allocateBuffer_event();
    timeval tv{1, 0};
    while (!m_stop[Stream] && !m_stop[Control] && !m_stop[Event])
        libusb_handle_events_timeout(nullptr, &tv);
    // Transfers are not resubmitted any more; wait until every one has come back.
    while (m_pending[Stream] > 0 || m_pending[Control] > 0 || m_pending[Event] > 0) {
        timeval drain{0, 10000};
        libusb_handle_events_timeout(nullptr, &drain);
        SPR_Sleep(kPollMs);
    }
    for (int path = Stream; path <= Event; ++path) {
        free_transfer_buffers(m_buffers[path], m_transfers[path], kPaths[path].transfers);
        m_buffers[path] = nullptr;
        m_transfers[path] = nullptr;
        ZTLOG_WARN(kPaths[path].stopLog);
    }
    return 0;
}

void ztUsbProxyServer::processFrames(ztCamera::ztBufferPool& pool, std::atomic<bool>& stop)
{
    while (!stop) {
        // An idle consumer sleeps until a frame is pushed rather than looking every
        // millisecond; it still looks at the stop flag several times a second.
        if (!pool.waitReady(kIdleWaitMs))
            continue;
        processFrame(pool, pool.popReady());
    }
}

void ztUsbProxyServer::processFrame(ztCamera::ztBufferPool& pool, ztCamera::ztPoolFrame* frame)
{
    preProcessMsg(reinterpret_cast<char*>(frame->data));
    pool.returnFrame(frame);
}

unsigned int ztUsbProxyServer::onStreamProcessThread(void* self)
{
    return static_cast<ztUsbProxyServer*>(self)->onStreamProcessThreadFunc();
}

unsigned int ztUsbProxyServer::onStreamProcessThreadFunc()
{
    ZTLOG_INFO("ztUsbProxyServer::stream process thread start");
    processFrames(*m_streamPool, m_stop[Stream]);
    return 0;
}

unsigned int ztUsbProxyServer::onEventProcessThread(void* self)
{
    return static_cast<ztUsbProxyServer*>(self)->onEventProcessThreadFunc();
}

unsigned int ztUsbProxyServer::onEventProcessThreadFunc()
{
    ZTLOG_INFO("ztUsbProxyServer::event process thread start");
    processFrames(*m_eventPool, m_stop[Event]);
    return 0;
}

void ztUsbProxyServer::preProcessMsg(char* msg)
{
    if (msg == nullptr)
        return;
    if (zt_embedded_msg_is_avalible(msg) != 0) {
        ZTLOG_ERROR("processMsg::package head error");
        return;
    }
    raiseDataCB(zt_embedded_msg_get_msg_type(msg), zt_embedded_msg_get_data(msg), zt_embedded_msg_get_data_len(msg));
}

unsigned int ztUsbProxyServer::onHeartBeatSendThread(void* self)
{
    return static_cast<ztUsbProxyServer*>(self)->onHeartBeatSendThreadFunc();
}

unsigned int ztUsbProxyServer::onHeartBeatSendThreadFunc()
{
    ZTLOG_INFO("ztUsbProxyServer::heartbeat send thread start");
    while (!m_stop[kHeartbeatStop]) {
        m_bHeartBeatAlive = false;
        if (sendHeartbeat() != 0)
            ZTLOG_WARN("ztUsbProxyServer::send heartbeat failed, device %s", m_info.serialNumber);
        SPR_Sleep(kHeartbeatPeriodMs);
        if (m_bHeartBeatAlive) {
            m_missedHeartBeats = 0;
            // Set, then looked at the stop flag again: a release that began meanwhile (it
            // sets the flag before it clears connected) always has the last word.
            m_bConnected = true;
            if (m_stop[kHeartbeatStop])
                m_bConnected = false;
        } else if (++m_missedHeartBeats > kMaxMissedHeartbeats) {
            m_missedHeartBeats = 0;
            releaseClient();
            // The owner may destroy the object in this callback (and build a new one):
            // nothing of it is touched afterwards, and the thread ends, as the release has
            // asked it to.
            const std::string sn = m_info.serialNumber;
            raiseDataCB(ZT_CODE_DEVICE_OFFLINE, nullptr, 0);
            ZTLOG_WARN("ztUsbProxyServer::heartbeat timeout, usbdevice sn : %s", sn);
            return 0;
        }
    }
    return 0;
}

int ztUsbProxyServer::sendHeartbeat()
{
    std::lock_guard<std::mutex> lock(m_cmdMutex);
    if (m_handle == nullptr)
        return -1;
    void* msg = zt_embedded_msg_create(8, kHeartbeatType, nullptr);
    if (msg == nullptr)
        return -1;
    int sent = 0;
    const int rc = libusb_bulk_transfer(m_handle, m_info.heartbeatOutEndpoint, static_cast<unsigned char*>(msg), 8,
                                        &sent, kTransferTimeoutMs);
    m_link->tap.bytes(ztRecorder::BytesOut, m_info.heartbeatOutEndpoint, rc, msg, 8);
    zt_embedded_msg_release(msg);
    if (rc != 0) {
        // The logged value is -1, not libusb's code.
        ZTLOG_ERROR("ztUsbProxyServer::[sendHeartbeat] libusb_bulk_transfer failed, ret = %d", -1);
        return -1;
    }
    return 0;
}

std::string ztUsbProxyServer::getDeviceSN()
{
    return m_info.serialNumber;
}

void ztUsbProxyServer::describeForRecording(zt::RecorderCore& recorder)
{
    recorder.setLink(ztRecorder::UsbLink);
    recorder.setSerial(m_info.serialNumber);
    const unsigned char endpoints[5] = {m_info.streamInEndpoint, m_info.ctrlInEndpoint, m_info.eventInEndpoint,
                                        m_info.ctrlOutEndpoint, m_info.heartbeatOutEndpoint};
    recorder.setEndpoints(endpoints);
    if (m_bConnected)
        recorder.setAbility(getCurDeviceAbilityInfo());
}
