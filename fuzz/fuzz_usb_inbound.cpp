// What a USB head sends, through the USB server's three completion callbacks (stream bytes
// cut into packets, control bytes gathered for the waiting command, event messages one per
// completion), some completions with error or time-out statuses, now and then the
// processing step on the ready frames or a decoder reset. After each input every pool
// frame must be back once the ready ones are processed.
//
// Input: per completion one byte picks the action and status and one the piece's size.
#include "fuzz_support.h"
#include "usb/ztUsbInbound.h"
#include "zt_embedded_msg.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

// The pool frames the server makes, and the smallest packets the stream decoder passes.
constexpr int kStreamFrames = 64;
constexpr std::uint64_t kStreamFrameSize = 0x4B0400;
constexpr int kEventFrames = 16;
constexpr std::uint64_t kEventFrameSize = 0x100000;
constexpr std::uint64_t kSmallestPacket = ztCamera::QlensNetProto::kPlainMinLength;

using Path = ztUsbInbound::Path;

ztUsbProxyServer* g_server = nullptr;

// The frame being handed on, and whether its message reached the callback.
const ztCamera::ztPoolFrame* g_frame = nullptr;
bool g_delivered = false;

std::uint32_t sizeField(const unsigned char* msg)
{
    std::uint32_t v;
    std::memcpy(&v, msg + 1, sizeof v);
    return v;
}

void onData(int type, char* data, int len, void*)
{
    zt::fuzz::check(g_frame != nullptr, "callback raised outside the processing step");
    const auto* msg = g_frame->data;
    zt::fuzz::check(type == zt_embedded_msg_get_msg_type(msg), "callback type is not the message's");
    zt::fuzz::check(reinterpret_cast<unsigned char*>(data) == msg + 7 && len >= 0 &&
                        static_cast<std::uint64_t>(len) + 8 == g_frame->length,
                    "callback payload is not the message's payload");
    g_delivered = true;
}

// A queued frame: one whole message inside its pool frame.
void checkFrame(Path path, const ztCamera::ztPoolFrame& f)
{
    const std::uint64_t poolSize = path == Path::Event ? kEventFrameSize : kStreamFrameSize;
    zt::fuzz::check(f.length < poolSize, "frame longer than its pool frame");
    zt::fuzz::check(sizeField(f.data) == f.length, "frame length is not its message's size");
    if (path == Path::Event) {
        zt::fuzz::check(f.length >= 8, "event message shorter than an empty one");
    } else {
        zt::fuzz::check(f.length >= kSmallestPacket && f.data[0] == ztCamera::QlensNetProto::kTag &&
                            f.data[f.length - 1] == ztCamera::QlensNetProto::kTail,
                        "stream frame is not a whole packet");
    }
}

// The processing threads' step on every frame ready now.
void processReady(Path path)
{
    ztCamera::ztBufferPool& pool = ztUsbInbound::pool(*g_server, path);
    while (ztCamera::ztPoolFrame* frame = pool.popReady()) {
        checkFrame(path, *frame);
        const bool headOk = zt_embedded_msg_is_avalible(frame->data) == 0;
        g_frame = frame;
        g_delivered = false;
        ztUsbInbound::processFrame(*g_server, path, frame);
        g_frame = nullptr;
        zt::fuzz::check(g_delivered == headOk, "a message with a good head not handed on, or a bad one handed on");
    }
}

std::size_t readyCount(Path path)
{
    ztCamera::ztBufferPool& pool = ztUsbInbound::pool(*g_server, path);
    std::vector<ztCamera::ztPoolFrame*> taken;
    while (ztCamera::ztPoolFrame* f = pool.popReady())
        taken.push_back(f);
    for (ztCamera::ztPoolFrame* f : taken)
        pool.pushReady(f);
    return taken.size();
}

// Every frame of the pool is free.
void checkAllFree(Path path, int count)
{
    ztCamera::ztBufferPool& pool = ztUsbInbound::pool(*g_server, path);
    std::vector<ztCamera::ztPoolFrame*> taken;
    while (ztCamera::ztPoolFrame* f = pool.getOneFramefromPool())
        taken.push_back(f);
    zt::fuzz::check(taken.size() == static_cast<std::size_t>(count), "a pool frame was lost");
    for (ztCamera::ztPoolFrame* f : taken)
        pool.returnFrame(f);
}

libusb_transfer_status pickStatus(unsigned pick)
{
    static constexpr libusb_transfer_status failures[] = {LIBUSB_TRANSFER_ERROR, LIBUSB_TRANSFER_CANCELLED,
                                                          LIBUSB_TRANSFER_STALL, LIBUSB_TRANSFER_NO_DEVICE,
                                                          LIBUSB_TRANSFER_OVERFLOW};
    if (pick < 36)
        return LIBUSB_TRANSFER_COMPLETED;
    if (pick < 44)
        return LIBUSB_TRANSFER_TIMED_OUT;
    return failures[pick % 5];
}

// One completion of path with the given bytes.
void complete(Path path, libusb_transfer_status status, const std::vector<unsigned char>& bytes)
{
    // A buffer of exactly the received bytes (one byte when none), as the transfer's own.
    std::vector<unsigned char> buffer(bytes.empty() ? 1 : bytes.size());
    std::copy(bytes.begin(), bytes.end(), buffer.begin());
    libusb_transfer* t = libusb_alloc_transfer(0);
    if (t == nullptr)
        zt::fuzz::fail("no transfer");
    t->buffer = buffer.data();
    t->length = static_cast<int>(buffer.size());
    t->actual_length = static_cast<int>(bytes.size());
    t->status = status;
    ztUsbInbound::complete(*g_server, path, *t);
    libusb_free_transfer(t);
    zt::fuzz::check(ztUsbInbound::pending(*g_server, path) == 0, "a completed transfer submitted again");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    zt::fuzz::quietLogs();
    g_server = new ztUsbProxyServer(_ZT_USB3_DEVICE_INFO_{}, nullptr);
    g_server->registerModuleServerDataCB(&onData, nullptr);
    if (ztUsbInbound::prepare(*g_server) != 0)
        zt::fuzz::fail("frame pools not made");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    ztUsbProxyServer& s = *g_server;
    // The control bytes the control path must have kept so far.
    std::vector<char> control;
    while (in.remaining_bytes() > 0) {
        const auto pick = in.ConsumeIntegral<std::uint8_t>();
        const unsigned action = pick % 5;
        const libusb_transfer_status status = pickStatus(pick / 5u);
        const bool carries = status == LIBUSB_TRANSFER_COMPLETED || status == LIBUSB_TRANSFER_TIMED_OUT;
        if (action == 3) {
            processReady(Path::Stream);
            processReady(Path::Event);
            continue;
        }
        if (action == 4) {
            s.resetQlensNetProto();
            continue;
        }
        const std::vector<unsigned char> bytes = in.ConsumeBytes<unsigned char>(in.ConsumeIntegralInRange<std::size_t>(0, 600));
        switch (static_cast<Path>(action)) {
        case Path::Stream:
            complete(Path::Stream, status, bytes);
            break;
        case Path::Control: {
            const std::size_t n = bytes.size();
            if (carries && (n >= 7 || (n == 1 && bytes[0] == 0xBB)))
                control.insert(control.end(), bytes.begin(), bytes.end());
            complete(Path::Control, status, bytes);
            const zt::ByteQueue& held = ztUsbInbound::controlBytes(s);
            zt::fuzz::check(std::equal(control.begin(), control.end(), held.data(), held.data() + held.size()),
                            "control bytes kept other than those of the completions the path keeps");
            break;
        }
        case Path::Event: {
            const std::size_t before = readyCount(Path::Event);
            s.setHeartBeatAlive(false);
            complete(Path::Event, status, bytes);
            zt::fuzz::check(ztUsbInbound::alive(s) == carries, "alive flag not set by exactly the data completions");
            const std::size_t after = readyCount(Path::Event);
            zt::fuzz::check(after == before || (carries && after == before + 1),
                            "more than one event message per completion, or one from an error completion");
            break;
        }
        }
    }
    processReady(Path::Stream);
    processReady(Path::Event);
    ztUsbInbound::clear(s);
    checkAllFree(Path::Stream, kStreamFrames);
    checkAllFree(Path::Event, kEventFrames);
    return 0;
}
