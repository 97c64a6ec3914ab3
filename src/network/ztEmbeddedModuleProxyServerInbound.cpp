// What the head sends unasked: the receive threads of the data, command-data and
// light-pen connections, the processors that cut embedded messages out of them, and the
// parsers of callback payloads.
#include "ztEmbeddedModuleProxyServer.h"

#include "EmbeddedInternals.h"
#include "EmbeddedTcpSocket.h"
#include "foundation/SharedSlot.h"
#include "foundation/ztWorker.h"
#include "platform/zt_log.h"
#include "codec/QlensNetProto.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <vector>

namespace {

constexpr int kCmdDataBlock = 0xA00000;
constexpr unsigned int kCmdDataPeriodMs = 30;
constexpr unsigned int kCmdProcessPeriodMs = 1;
constexpr int kPacketBlock = 0x10000;
constexpr int kRawBlock = 0x20000;
constexpr unsigned int kPacketPeriodMs = 1;
constexpr unsigned int kRawPeriodMs = 5;
constexpr unsigned int kProcessIdleMs = 5;
constexpr unsigned int kIdleWaitMs = 50;
constexpr std::size_t kLPBlock = 0xA00000;
constexpr int kLPRecvLimit = 0x20000;
constexpr unsigned int kLPPeriodMs = 30;
const char* const kRawModel = "7340";

using Buffer = std::unique_ptr<char, decltype(&std::free)>;

Buffer allocate(std::size_t size)
{
    return Buffer(static_cast<char*>(std::calloc(size, 1)), &std::free);
}

template <class T>
T readAt(const char* data, std::size_t offset)
{
    T v;
    std::memcpy(&v, data + offset, sizeof v);
    return v;
}

} // namespace

bool ztEmbeddedModuleProxyServer::rawMode()
{
    std::lock_guard<std::mutex> lock(m_modelMutex);
    return m_deviceModel == kRawModel;
}

unsigned int ztEmbeddedModuleProxyServer::onCommandChannelRecvThread(void* self)
{
    return static_cast<ztEmbeddedModuleProxyServer*>(self)->onCommandChannelRecvThreadFunc();
}

unsigned int ztEmbeddedModuleProxyServer::onCommandChannelRecvThreadFunc()
{
    Buffer block = allocate(kCmdDataBlock);
    if (!block)
        return static_cast<unsigned int>(-1);
    zt::workerLoop(m_bStop, kCmdDataPeriodMs, [&] {
        const auto s = m_cmdDataTcp->get();
        if (!s)
            return zt::Round::Idle;
        const int n = s->receive(block.get(), kCmdDataBlock);
        if (n < 1)
            return zt::Round::Idle;
        m_bHeartBeatAlive = true;
        std::lock_guard<std::mutex> lock(m_cmd_vec->mutex);
        if (n == 160) {
            ZTLOG_WARN("m_cmdData_tcp_client recv data len = 160, clear m_cmd_vec");
            m_cmd_vec->stream.clear();
        }
        m_cmd_vec->stream.append(block.get(), static_cast<std::size_t>(n));
        m_cmd_vec->arrived.notify_one();
        return zt::Round::Idle;
    });
    return 0;
}

unsigned int ztEmbeddedModuleProxyServer::onCMDProcessThread(void* self)
{
    return static_cast<ztEmbeddedModuleProxyServer*>(self)->onCMDProcessThreadFunc();
}

unsigned int ztEmbeddedModuleProxyServer::onCMDProcessThreadFunc()
{
    std::vector<char> message;
    zt::workerLoop(m_bStop, kCmdProcessPeriodMs, [&] {
        {
            std::unique_lock<std::mutex> lock(m_cmd_vec->mutex);
            const char* front = m_cmd_vec->stream.front();
            if (front == nullptr) {
                // Idle: sleep until the receiver adds bytes instead of every round.
                m_cmd_vec->arrived.wait_for(lock, std::chrono::milliseconds(kIdleWaitMs));
                return zt::Round::Idle;
            }
            message.assign(front, front + m_cmd_vec->stream.frontSize());
            m_cmd_vec->stream.pop();
        }
        // Raised after the lock is given up, one message per round.
        processMsg_Cmd(message.data());
        return zt::Round::Idle;
    });
    return 0;
}

unsigned int ztEmbeddedModuleProxyServer::onDataChannelRecvThread(void* self)
{
    return static_cast<ztEmbeddedModuleProxyServer*>(self)->onDataChannelRecvThreadFunc();
}

unsigned int ztEmbeddedModuleProxyServer::onDataChannelRecvThreadFunc()
{
    bool raw = rawMode();
    Buffer block = allocate(raw ? kRawBlock : kPacketBlock);
    if (!block) {
        ZTLOG_ERROR("onDataChannelRecvThreadFunc::malloc memory error.");
        return static_cast<unsigned int>(-1);
    }
    // Hands every packet a decoder finishes to processMsg; true when there was one.
    auto feed = [this](ztCamera::QlensNetProto& decoder, const unsigned char* data, std::uint64_t left) {
        bool any = false;
        while (left > 0) {
            std::shared_ptr<ztCamera::QlensNetCmd> packet = decoder.decode(data, left);
            if (!packet)
                break;
            any = true;
            std::lock_guard<std::mutex> lock(m_dataVec->mutex);
            processMsg(reinterpret_cast<char*>(packet->buffer));
        }
        return any;
    };
    // The receiver goes on at once after bytes came; without bytes it waits until some
    // arrive (or a moment passes, for the stop flag) rather than looking again every period.
    // Only without a connection, or when a socket said it was readable and then gave
    // nothing (it has ended or fails), does the round's period pass before the next look.
    bool pause = true;
    bool wokeForNothing = false;
    for (;;) {
        if (pause)
            SPR_Sleep(raw ? kRawPeriodMs : kPacketPeriodMs);
        pause = true;
        if (m_bStop)
            break;
        if (!raw && rawMode()) {
            block = allocate(kRawBlock);
            if (!block)
                return static_cast<unsigned int>(-1);
            raw = true;
        }
        const auto s = m_dataTcp->get();
        if (!s)
            continue;
        const int limit = raw ? kRawBlock : kPacketBlock;
        // Deep inside a packet's body the bytes go straight into the packet. The receive
        // takes no more than into the block, so receive sizes stay what they would be.
        unsigned char* body = nullptr;
        if (!raw) {
            std::lock_guard<std::mutex> decoders(m_decoderMutex);
            if (m_decoder1->bodyRoom(body) < static_cast<std::uint64_t>(limit))
                body = nullptr;
        }
        const int n = body != nullptr ? s->receive(body, limit) : s->receive(block.get(), limit);
        if (n < 1) {
            wokeForNothing = !wokeForNothing && s->waitReadable(kIdleWaitMs);
            pause = !wokeForNothing;
            continue;
        }
        wokeForNothing = false;
        pause = false;
        if (raw) {
            std::lock_guard<std::mutex> lock(m_dataVec->mutex);
            m_dataVec->stream.append(block.get(), static_cast<std::size_t>(n));
            m_dataVec->arrived.notify_one();
            continue;
        }
        std::lock_guard<std::mutex> decoders(m_decoderMutex);
        if (body != nullptr) {
            unsigned char* stillThere = nullptr;
            // Received in place and still where the packet expects them (the decoder was
            // not reset meanwhile), and not of a size the second decoder looks at: taken
            // as they are. Otherwise they are copied out and go the usual way.
            if (n != 100 && n != 160 && m_decoder1->bodyRoom(stillThere) != 0 && stillThere == body) {
                if (const auto packet = m_decoder1->bodyWritten(static_cast<std::uint64_t>(n))) {
                    std::lock_guard<std::mutex> lock(m_dataVec->mutex);
                    processMsg(reinterpret_cast<char*>(packet->buffer));
                }
                continue;
            }
            std::memcpy(block.get(), body, static_cast<std::size_t>(n));
        }
        const auto* bytes = reinterpret_cast<const unsigned char*>(block.get());
        if ((n == 100 || n == 160) && feed(*m_decoder2, bytes, static_cast<std::uint64_t>(n)))
            continue;
        feed(*m_decoder1, bytes, static_cast<std::uint64_t>(n));
    }
    return 0;
}

unsigned int ztEmbeddedModuleProxyServer::onProcessThread(void* self)
{
    return static_cast<ztEmbeddedModuleProxyServer*>(self)->onProcessThreadFunc();
}

unsigned int ztEmbeddedModuleProxyServer::onProcessThreadFunc()
{
    bool raw = rawMode();
    while (!m_bStop) {
        if (!raw && !(raw = rawMode())) {
            // Packet mode leaves this thread nothing to do; it looks for a change of mode
            // whenever the receiver signals bytes, and a few times a second.
            std::unique_lock<std::mutex> lock(m_dataVec->mutex);
            m_dataVec->arrived.wait_for(lock, std::chrono::milliseconds(kIdleWaitMs));
            continue;
        }
        // Raw mode: every whole message is handled as soon as it is there. Rather than
        // spinning on an empty stream the thread waits for the receiver's signal, looking
        // again at least every few milliseconds for the stop flag.
        std::unique_lock<std::mutex> lock(m_dataVec->mutex);
        const char* front = m_dataVec->stream.front();
        if (front == nullptr) {
            m_dataVec->arrived.wait_for(lock, std::chrono::milliseconds(kProcessIdleMs));
            continue;
        }
        processMsg(const_cast<char*>(front));
        m_dataVec->stream.pop();
    }
    return 0;
}

unsigned int ztEmbeddedModuleProxyServer::onLPProcessThread(void* self)
{
    return static_cast<ztEmbeddedModuleProxyServer*>(self)->onLPProcessThreadFunc();
}

unsigned int ztEmbeddedModuleProxyServer::onLPProcessThreadFunc()
{
    Buffer block = allocate(kLPBlock);
    if (!block)
        return static_cast<unsigned int>(-1);
    zt::workerLoop(m_bStop, kLPPeriodMs, [&] {
        const auto s = m_lpTcp->get();
        if (!s)
            return zt::Round::Idle;
        const int n = s->receive(block.get(), kLPRecvLimit);
        if (n < 1)
            return zt::Round::Idle;
        {
            std::lock_guard<std::mutex> lock(m_lpVec->mutex);
            m_lpVec->bytes.append(block.get(), static_cast<std::size_t>(n));
        }
        processMag_LP();
        return zt::Round::Idle;
    });
    return 0;
}

void ztEmbeddedModuleProxyServer::processMag_LP()
{
    // Everything the light-pen connection delivered so far, every time: the accumulator is
    // never emptied.
    std::lock_guard<std::mutex> lock(m_lpVec->mutex);
    if (!m_lpVec->bytes.empty())
        raiseDataCB(ZT_CODE_LIGHTPEN_DATA, m_lpVec->bytes.data(), static_cast<int>(m_lpVec->bytes.size()));
}

void ztEmbeddedModuleProxyServer::resetQlensNetProto()
{
    std::lock_guard<std::mutex> lock(m_decoderMutex);
    m_decoder2->reset();
    m_decoder1->reset();
}

void ztEmbeddedModuleProxyServer::analysisAlarmInfo(char* data, int* code, unsigned char* a, unsigned char* b)
{
    *code = readAt<std::int32_t>(data, 0);
    *a = readAt<unsigned char>(data, 4);
    *b = readAt<unsigned char>(data, 5);
}

void ztEmbeddedModuleProxyServer::analysisSyncInfo(char* data, int* code, unsigned short* a, unsigned short* b)
{
    *code = readAt<std::int32_t>(data, 0);
    *a = readAt<std::uint16_t>(data, 4);
    *b = readAt<std::uint16_t>(data, 6);
}

void ztEmbeddedModuleProxyServer::analysisAngleInfo(char* data, int* code, std::vector<float>* angles)
{
    *code = readAt<std::int32_t>(data, 0);
    angles->resize(3);
    for (std::size_t i = 0; i < 3; ++i)
        (*angles)[i] = readAt<float>(data, 4 + 4 * i);
}

void ztEmbeddedModuleProxyServer::analysisTempInfo(char* data, int* code, std::vector<float>* temps)
{
    *code = readAt<std::int32_t>(data, 0);
    const std::size_t n = readAt<unsigned char>(data, 4);
    temps->resize(n);
    for (std::size_t i = 0; i < n; ++i)
        (*temps)[i] = readAt<float>(data, 5 + 4 * i);
}

void ztEmbeddedModuleProxyServer::analysisLightPenFindList(char* data, int& first, lp::_ZT_LP_FIND_LIST_& list)
{
    first = readAt<std::int32_t>(data, 0);
    list.count = readAt<std::int32_t>(data, 4);
    for (int i = 0; i < list.count; ++i)
        list.entries.push_back(readAt<lp::_ZT_LP_FIND_ENTRY_>(data, 8 + 52 * static_cast<std::size_t>(i)));
}

int ztEmbeddedModuleProxyServer::getMarkerData(char* data, short* width, short* height, unsigned long long* stamp,
                                               char* header, std::vector<std::vector<double>>& markers, char** next)
{
    std::memcpy(header, data, 64);
    *stamp = readAt<std::uint64_t>(data, 64);
    *width = static_cast<short>(readAt<std::uint16_t>(data, 72));
    *height = static_cast<short>(readAt<std::uint16_t>(data, 74));
    const std::size_t count = readAt<std::uint16_t>(data, 76);
    markers.assign(count, std::vector<double>(7, 0.0));
    const char* p = data + 78;
    for (std::size_t i = 0; i < count; ++i, p += 42) {
        std::vector<double>& m = markers[i];
        for (std::size_t k = 0; k < 5; ++k)
            m[k] = readAt<double>(p, 8 * k);
        m[5] = static_cast<unsigned char>(p[40]);
        m[6] = static_cast<unsigned char>(p[41]);
        const double x = m[0];
        const double y = m[1];
        if (x < 0 || y < 0 || x >= 5120.0 || y >= 5120.0)
            std::cout << "标记点坐标存在负数！！！！！！！！！！" << x << " " << y << std::endl;
    }
    *next = const_cast<char*>(p);
    return 0;
}
