// What a USB head sends, through the USB server's three completion callbacks (stream bytes
// cut into packets, control bytes gathered for the waiting command, event messages one per
// completion), some completions with error or time-out statuses, now and then the
// processing step on the ready frames or a decoder reset. After each input every pool
// frame must be back once the ready ones are processed.
//
// Input: per completion one byte picks the action and status and one the piece's size.
#include "fuzz_support.h"
#include "usb/ztUsbInbound.h"

#include <algorithm>

namespace {

using Path = ztUsbInbound::Path;

ztUsbProxyServer* g_server = nullptr;
// The frame being handed on.
const ztCamera::ztPoolFrame* g_frame = nullptr;

void onData(int, char* data, int len, void*)
{
    zt::fuzz::check(g_frame != nullptr && reinterpret_cast<unsigned char*>(data) == g_frame->data + 7 && len >= 0 &&
                        static_cast<std::uint64_t>(len) + 8 == g_frame->length,
                    "callback payload is not the frame's message's payload");
}

// The processing threads' step on every frame ready now.
void processReady(Path path)
{
    ztCamera::ztBufferPool& pool = ztUsbInbound::pool(*g_server, path);
    while ((g_frame = pool.popReady()) != nullptr)
        ztUsbInbound::processFrame(*g_server, path, const_cast<ztCamera::ztPoolFrame*>(g_frame));
}

// Every frame of the pool is free.
void checkAllFree(Path path, std::size_t count)
{
    ztCamera::ztBufferPool& pool = ztUsbInbound::pool(*g_server, path);
    std::vector<ztCamera::ztPoolFrame*> taken;
    while (ztCamera::ztPoolFrame* f = pool.getOneFramefromPool())
        taken.push_back(f);
    zt::fuzz::check(taken.size() == count, "a pool frame was lost");
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
    return pick < 44 ? LIBUSB_TRANSFER_TIMED_OUT : failures[pick % 5];
}

// One completion of path with the given bytes, in a buffer of exactly their size (one
// byte when none), as the transfer's own.
void complete(Path path, libusb_transfer_status status, std::vector<unsigned char> bytes)
{
    const int received = static_cast<int>(bytes.size());
    bytes.resize(std::max<std::size_t>(bytes.size(), 1));
    libusb_transfer* t = libusb_alloc_transfer(0);
    zt::fuzz::check(t != nullptr, "no transfer");
    t->buffer = bytes.data();
    t->length = static_cast<int>(bytes.size());
    t->actual_length = received;
    t->status = status;
    ztUsbInbound::complete(*g_server, path, *t);
    libusb_free_transfer(t);
    zt::fuzz::check(ztUsbInbound::pending(*g_server, path) == 0, "a completed transfer submitted again");
}

} // namespace

void zt::fuzz::setUp()
{
    g_server = new ztUsbProxyServer(_ZT_USB3_DEVICE_INFO_{}, nullptr);
    g_server->registerModuleServerDataCB(&onData, nullptr);
    check(ztUsbInbound::prepare(*g_server) == 0, "frame pools not made");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    while (in.remaining_bytes() > 0) {
        const auto pick = in.ConsumeIntegral<std::uint8_t>();
        const unsigned action = pick % 5;
        if (action == 3) {
            processReady(Path::Stream);
            processReady(Path::Event);
        } else if (action == 4) {
            g_server->resetQlensNetProto();
        } else {
            const std::size_t n = in.ConsumeIntegralInRange<std::size_t>(0, 600);
            complete(static_cast<Path>(action), pickStatus(pick / 5u), in.ConsumeBytes<unsigned char>(n));
        }
    }
    processReady(Path::Stream);
    processReady(Path::Event);
    ztUsbInbound::clear(*g_server);
    // The pool frames the server makes.
    checkAllFree(Path::Stream, 64);
    checkAllFree(Path::Event, 16);
    return 0;
}
