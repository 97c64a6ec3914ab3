// The emulated USB head against plain libusb calls: descriptors, command exchange, split and
// coalesced replies, heartbeats, the stream, errors, unplug and reconnect, concurrency.
#include "ztSimUsbHead.h"

#include <gtest/gtest.h>
#include <libusb.h>

#include <atomic>
#include <ctime>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<char>;
using Clock = std::chrono::steady_clock;

Bytes bytesOf(const unsigned char* p, int n)
{
    return Bytes(reinterpret_cast<const char*>(p), reinterpret_cast<const char*>(p) + n);
}

// One asynchronous bulk transfer and what it completed with.
struct Xfer {
    libusb_transfer* t = libusb_alloc_transfer(0);
    std::vector<unsigned char> buf;
    std::atomic<bool> done{false};
    std::atomic<bool> inFlight{false};
    int status = -1;
    Bytes got;

    Xfer(libusb_device_handle* h, unsigned char ep, int length, unsigned timeoutMs) : buf(length)
    {
        libusb_fill_bulk_transfer(t, h, ep, buf.data(), length, &Xfer::callback, this, timeoutMs);
    }
    ~Xfer() { libusb_free_transfer(t); }
    static void LIBUSB_CALL callback(libusb_transfer* t)
    {
        auto* x = static_cast<Xfer*>(t->user_data);
        x->status = t->status;
        x->got = bytesOf(t->buffer, t->actual_length);
        x->inFlight = false;
        x->done = true;
    }
    int submit()
    {
        done = false;
        got.clear();
        status = -1;
        int r = libusb_submit_transfer(t);
        inFlight = r == 0;
        return r;
    }
};

// Runs libusb's events on this thread until the flag is set or the time is up.
bool waitFor(libusb_context* ctx, const std::atomic<bool>& flag, int ms)
{
    auto end = Clock::now() + std::chrono::milliseconds(ms);
    while (!flag && Clock::now() < end) {
        timeval tv{0, 20000};
        libusb_handle_events_timeout(ctx, &tv);
    }
    return flag;
}

class UsbHead : public ::testing::Test {
protected:
    ztSimUsbHead head;
    libusb_context* ctx = nullptr;
    libusb_device_handle* h = nullptr;

    void SetUp() override
    {
        ASSERT_EQ(head.start(), 0);
        h = ztSimUsbHead::openEmulated(&ctx);
        ASSERT_NE(h, nullptr);
    }
    void TearDown() override
    {
        ztSimUsbHead::closeEmulated(h, ctx);
        head.stop();
    }
    // A synchronous bulk OUT as a host sends commands and heartbeats.
    int sendOut(unsigned char ep, const Bytes& b, int* sent = nullptr)
    {
        int n = 0;
        int r = libusb_bulk_transfer(h, ep, reinterpret_cast<unsigned char*>(const_cast<char*>(b.data())),
                                     static_cast<int>(b.size()), &n, 1500);
        if (sent)
            *sent = n;
        return r;
    }
    // Cancels a transfer still in flight and waits for it, so that it can be freed.
    void drain(Xfer& x)
    {
        if (x.inFlight) {
            libusb_cancel_transfer(x.t);
            waitFor(ctx, x.done, 2000);
        }
    }
};

TEST_F(UsbHead, EnumeratesWithItsDescriptorsAndStrings)
{
    libusb_device* dev = libusb_get_device(h);
    libusb_device_descriptor dd;
    ASSERT_EQ(libusb_get_device_descriptor(dev, &dd), 0);
    EXPECT_EQ(dd.idVendor, ztSimUsbHead::kVendor);
    EXPECT_EQ(dd.idProduct, ztSimUsbHead::kProduct);
    EXPECT_EQ(dd.bcdUSB, 0x0300);
    EXPECT_EQ(dd.bNumConfigurations, 1);
    EXPECT_EQ(libusb_get_device_speed(dev), LIBUSB_SPEED_SUPER);
    EXPECT_EQ(libusb_get_bus_number(dev), 1);
    EXPECT_EQ(libusb_get_device_address(dev), 1);

    libusb_config_descriptor* cfg = nullptr;
    ASSERT_EQ(libusb_get_active_config_descriptor(dev, &cfg), 0);
    ASSERT_EQ(cfg->bNumInterfaces, 1);
    const libusb_interface_descriptor& alt = cfg->interface[0].altsetting[0];
    ASSERT_EQ(alt.bNumEndpoints, 5);
    const unsigned char want[] = {0x81, 0x82, 0x83, 0x01, 0x02};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(alt.endpoint[i].bEndpointAddress, want[i]);
        EXPECT_EQ(alt.endpoint[i].bmAttributes & 3, LIBUSB_TRANSFER_TYPE_BULK);
        EXPECT_EQ(alt.endpoint[i].wMaxPacketSize, 1024);
        EXPECT_EQ(libusb_get_max_packet_size(dev, want[i]), 1024);
    }
    libusb_free_config_descriptor(cfg);

    // Strings travel as control transfers through the emulated node.
    unsigned char text[64] = {};
    ASSERT_GT(libusb_get_string_descriptor_ascii(h, dd.iSerialNumber, text, sizeof text), 0);
    EXPECT_STREQ(reinterpret_cast<char*>(text), ztSimUsbHead::kSerialNumber);
    // Unknown requests stall; a second interface does not exist.
    EXPECT_EQ(libusb_control_transfer(h, 0x80, 0 /* GET_STATUS */, 0, 0, text, 2, 500), LIBUSB_ERROR_PIPE);
    EXPECT_NE(libusb_claim_interface(h, 1), 0);
    EXPECT_EQ(libusb_clear_halt(h, ztSimUsbHead::kStreamIn), 0);
}

TEST_F(UsbHead, CommandsAreRecordedAndAnsweredWithExactBytes)
{
    head.setStatusReply(0x0120, 7);
    head.setEchoReply(0x0145, {1, 2, 3});
    Xfer in(h, ztSimUsbHead::kCtrlIn, 4096, 2000);

    // Status reply to a 12-byte request.
    ASSERT_EQ(in.submit(), 0);
    ASSERT_TRUE(head.waitPending(ztSimUsbHead::kCtrlIn, 1, 2000));
    int sent = 0;
    Bytes req = ztSimUsbHead::message(0x0120, "\x10\x20\x30\x40", 4);
    ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, req, &sent), 0);
    EXPECT_EQ(sent, 12);
    ASSERT_TRUE(waitFor(ctx, in.done, 2000));
    EXPECT_EQ(in.status, LIBUSB_TRANSFER_COMPLETED);
    EXPECT_EQ(in.got, (Bytes{'\xAA', 12, 0, 0, 0, 0, 0, 7, 0, 0, 0, '\xBB'}));
    ztSimUsbHead::Request r;
    ASSERT_TRUE(head.nextCommand(r, 1000));
    EXPECT_EQ(r.type, 0x0120);
    EXPECT_EQ(r.payload, (Bytes{0x10, 0x20, 0x30, 0x40}));

    // Echo reply: the request's own type and the configured payload.
    ASSERT_EQ(in.submit(), 0);
    ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, ztSimUsbHead::message(0x0145, nullptr, 0)), 0);
    ASSERT_TRUE(waitFor(ctx, in.done, 2000));
    EXPECT_EQ(in.got, (Bytes{'\xAA', 11, 0, 0, 0, 0x45, 0x01, 1, 2, 3, '\xBB'}));

    // A type without an entry: status 0. A request that arrives in two OUT transfers is
    // answered once, when whole.
    ASSERT_EQ(in.submit(), 0);
    Bytes whole = ztSimUsbHead::message(0x0300, "abcdef", 6);
    ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, Bytes(whole.begin(), whole.begin() + 5)), 0);
    ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, Bytes(whole.begin() + 5, whole.end())), 0);
    ASSERT_TRUE(waitFor(ctx, in.done, 2000));
    EXPECT_EQ(in.got, ztSimUsbHead::statusMessage(0));
    ASSERT_TRUE(head.nextCommand(r, 1000));
    ASSERT_TRUE(head.nextCommand(r, 1000));
    EXPECT_EQ(r.type, 0x0300);
    EXPECT_EQ(r.payload, (Bytes{'a', 'b', 'c', 'd', 'e', 'f'}));

    // No reply: the IN transfer times out; the next command is answered on a fresh one.
    head.setNoReply(0x0121);
    Xfer shortIn(h, ztSimUsbHead::kCtrlIn, 4096, 200);
    ASSERT_EQ(shortIn.submit(), 0);
    ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, ztSimUsbHead::message(0x0121, nullptr, 0)), 0);
    ASSERT_TRUE(waitFor(ctx, shortIn.done, 3000));
    EXPECT_EQ(shortIn.status, LIBUSB_TRANSFER_TIMED_OUT);
    EXPECT_TRUE(shortIn.got.empty());
    ASSERT_EQ(in.submit(), 0);
    ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, ztSimUsbHead::message(0x0120, nullptr, 0)), 0);
    ASSERT_TRUE(waitFor(ctx, in.done, 2000));
    EXPECT_EQ(in.got, ztSimUsbHead::statusMessage(7));
    EXPECT_EQ(head.badMessagesReceived(), 0);
}

TEST_F(UsbHead, RawRepliesFrameAsSeparateCompletions)
{
    Bytes reply = ztSimUsbHead::message(0x0159, "0123456789", 10);
    Bytes second = ztSimUsbHead::statusMessage(-1);
    // Split with a lone tail byte; two replies in one completion; a piece longer than the
    // transfer continues in the next completion.
    head.setRawReply(0x0159, {Bytes(reply.begin(), reply.end() - 1), Bytes{'\xBB'}});
    head.setRawReply(0x015A, {[&] {
                         Bytes b = reply;
                         b.insert(b.end(), second.begin(), second.end());
                         return b;
                     }()});
    Xfer in(h, ztSimUsbHead::kCtrlIn, 8, 2000);

    ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, ztSimUsbHead::message(0x0159, nullptr, 0)), 0);
    Bytes got;
    std::vector<size_t> sizes;
    while (got.size() < reply.size()) {
        ASSERT_EQ(in.submit(), 0);
        ASSERT_TRUE(waitFor(ctx, in.done, 2000));
        ASSERT_EQ(in.status, LIBUSB_TRANSFER_COMPLETED);
        sizes.push_back(in.got.size());
        got.insert(got.end(), in.got.begin(), in.got.end());
    }
    // The first piece (17 bytes) in 8-byte transfers: 8, 8, 1; then the lone 0xBB apart.
    EXPECT_EQ(sizes, (std::vector<size_t>{8, 8, 1, 1}));
    EXPECT_EQ(got, reply);

    Xfer big(h, ztSimUsbHead::kCtrlIn, 4096, 2000);
    ASSERT_EQ(big.submit(), 0);
    ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, ztSimUsbHead::message(0x015A, nullptr, 0)), 0);
    ASSERT_TRUE(waitFor(ctx, big.done, 2000));
    Bytes both = reply;
    both.insert(both.end(), second.begin(), second.end());
    EXPECT_EQ(big.got, both);

    // Split into two completions on a large transfer: exactly the two pieces.
    ASSERT_EQ(big.submit(), 0);
    ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, ztSimUsbHead::message(0x0159, nullptr, 0)), 0);
    ASSERT_TRUE(waitFor(ctx, big.done, 2000));
    EXPECT_EQ(big.got, Bytes(reply.begin(), reply.end() - 1));
    ASSERT_EQ(big.submit(), 0);
    ASSERT_TRUE(waitFor(ctx, big.done, 2000));
    EXPECT_EQ(big.got, Bytes{'\xBB'});
}

TEST_F(UsbHead, HeartbeatsAreAnsweredOnEventInAndEventsArePushed)
{
    Xfer ev(h, ztSimUsbHead::kEventIn, 4096, 300);
    const Bytes beat = ztSimUsbHead::message(ztSimUsbHead::kHeartbeatType, nullptr, 0);
    ASSERT_EQ(beat, (Bytes{'\xAA', 8, 0, 0, 0, 2, 0, '\xBB'}));

    ASSERT_EQ(ev.submit(), 0);
    ASSERT_EQ(sendOut(ztSimUsbHead::kHeartbeatOut, beat), 0);
    ASSERT_TRUE(waitFor(ctx, ev.done, 2000));
    EXPECT_EQ(ev.status, LIBUSB_TRANSFER_COMPLETED);
    EXPECT_EQ(ev.got, beat);
    EXPECT_EQ(head.heartbeatsReceived(), 1);

    // Not answered: the event transfer times out, as with a head that has nothing to say.
    head.setAnswerHeartbeats(false);
    ASSERT_EQ(ev.submit(), 0);
    ASSERT_EQ(sendOut(ztSimUsbHead::kHeartbeatOut, beat), 0);
    ASSERT_TRUE(waitFor(ctx, ev.done, 2000));
    EXPECT_EQ(ev.status, LIBUSB_TRANSFER_TIMED_OUT);
    EXPECT_EQ(head.heartbeatsReceived(), 2);

    // Pushed events: one per completion, in order; silence holds them back.
    head.setSilent(true);
    Bytes e1 = ztSimUsbHead::message(0x0200, "x", 1), e2 = ztSimUsbHead::message(0x0201, "yz", 2);
    ASSERT_EQ(head.pushEvent(e1), 9);
    ASSERT_EQ(head.pushEvent(e2), 10);
    ASSERT_EQ(ev.submit(), 0);
    ASSERT_TRUE(waitFor(ctx, ev.done, 2000));
    EXPECT_EQ(ev.status, LIBUSB_TRANSFER_TIMED_OUT);
    head.setSilent(false);
    ASSERT_EQ(ev.submit(), 0);
    ASSERT_TRUE(waitFor(ctx, ev.done, 2000));
    EXPECT_EQ(ev.got, e1);
    ASSERT_EQ(ev.submit(), 0);
    ASSERT_TRUE(waitFor(ctx, ev.done, 2000));
    EXPECT_EQ(ev.got, e2);
}

TEST_F(UsbHead, StreamArrivesInOrderAcrossMegabyteTransfers)
{
    constexpr int kLen = 1 << 20;
    // Pushed bytes first, then a repeated extended-header packet, crossing transfer limits.
    Bytes pushed(300000);
    for (size_t i = 0; i < pushed.size(); ++i)
        pushed[i] = static_cast<char>(i * 7);
    Bytes payload(100000);
    for (size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<char>(i);
    Bytes unit = ztSimUsbHead::extendedPacket(1280, 0x1122334455667788ull, payload.data(), payload.size());
    ASSERT_EQ(unit.size(), 76u + payload.size() + 1);
    EXPECT_EQ(unit[72], '\x55');
    EXPECT_EQ(unit[75], '\xCC');
    const size_t units = 50; // about 5 MB
    ASSERT_EQ(head.pushStream(pushed), 300000);

    Bytes expected = pushed;
    for (size_t i = 0; i < units; ++i)
        expected.insert(expected.end(), unit.begin(), unit.end());

    std::vector<std::unique_ptr<Xfer>> xs;
    for (int i = 0; i < 4; ++i) {
        xs.push_back(std::make_unique<Xfer>(h, ztSimUsbHead::kStreamIn, kLen, 5000));
        ASSERT_EQ(xs.back()->submit(), 0);
    }
    head.startStream(unit, units, 0);
    // Transfers complete in submission order; resubmit each as it completes.
    Bytes got;
    int completions = 0;
    for (size_t next = 0; got.size() < expected.size(); next = (next + 1) % xs.size()) {
        Xfer& x = *xs[next];
        ASSERT_TRUE(waitFor(ctx, x.done, 5000));
        ASSERT_EQ(x.status, LIBUSB_TRANSFER_COMPLETED);
        got.insert(got.end(), x.got.begin(), x.got.end());
        ++completions;
        if (got.size() < expected.size()) {
            ASSERT_EQ(x.submit(), 0);
        }
    }
    EXPECT_TRUE(head.waitStreamDone(1000));
    EXPECT_EQ(head.streamedBytes(), units * unit.size());
    ASSERT_EQ(got.size(), expected.size());
    EXPECT_TRUE(got == expected);
    EXPECT_GE(completions, 5);
    for (auto& x : xs)
        drain(*x);
}

double processCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + ts.tv_nsec / 1e9;
}

TEST_F(UsbHead, IdleHostSleepsInPoll)
{
    // Transfers pending on every IN endpoint and nothing to hand out: libusb's event loop
    // must sleep rather than spin on an always-writable node. Then a push wakes it.
    std::vector<std::unique_ptr<Xfer>> xs;
    for (unsigned char ep : {ztSimUsbHead::kStreamIn, ztSimUsbHead::kCtrlIn, ztSimUsbHead::kEventIn}) {
        xs.push_back(std::make_unique<Xfer>(h, ep, 4096, 0));
        ASSERT_EQ(xs.back()->submit(), 0);
    }
    const double cpu0 = processCpuSeconds();
    auto t0 = Clock::now();
    std::atomic<bool> never{false};
    waitFor(ctx, never, 600);
    const double wall = std::chrono::duration<double>(Clock::now() - t0).count();
    const double cpu = processCpuSeconds() - cpu0;
    EXPECT_LT(cpu, 0.05 * wall) << "cpu " << cpu << " s in " << wall << " s";
    ASSERT_EQ(head.pushEvent({'e'}), 1);
    ASSERT_TRUE(waitFor(ctx, xs[2]->done, 2000));
    EXPECT_EQ(xs[2]->got, Bytes{'e'});
    for (auto& x : xs)
        drain(*x);
}

TEST_F(UsbHead, FailedTransfersReportErrorsAndRecover)
{
    Xfer a(h, ztSimUsbHead::kEventIn, 4096, 2000), b(h, ztSimUsbHead::kStreamIn, 4096, 2000);
    ASSERT_EQ(a.submit(), 0);
    ASSERT_TRUE(head.waitPending(ztSimUsbHead::kEventIn, 1, 2000));
    head.failTransfers(true); // pending ones fail at once
    ASSERT_TRUE(waitFor(ctx, a.done, 2000));
    EXPECT_EQ(a.status, LIBUSB_TRANSFER_ERROR);
    head.failTransfers(true, EPIPE); // new ones fail on submission
    ASSERT_EQ(b.submit(), 0);
    ASSERT_TRUE(waitFor(ctx, b.done, 2000));
    EXPECT_EQ(b.status, LIBUSB_TRANSFER_STALL);
    EXPECT_TRUE(b.got.empty());

    // Data pushed meanwhile waits, and arrives once transfers work again.
    ASSERT_EQ(head.pushStream({'s', 't'}), 2);
    ASSERT_EQ(b.submit(), 0);
    ASSERT_TRUE(waitFor(ctx, b.done, 2000));
    EXPECT_EQ(b.status, LIBUSB_TRANSFER_STALL);
    head.failTransfers(false);
    ASSERT_EQ(b.submit(), 0);
    ASSERT_TRUE(waitFor(ctx, b.done, 2000));
    EXPECT_EQ(b.status, LIBUSB_TRANSFER_COMPLETED);
    EXPECT_EQ(b.got, (Bytes{'s', 't'}));
}

TEST_F(UsbHead, UnplugEndsTransfersAndReplugReconnects)
{
    std::vector<std::unique_ptr<Xfer>> xs;
    for (unsigned char ep : {ztSimUsbHead::kStreamIn, ztSimUsbHead::kCtrlIn, ztSimUsbHead::kEventIn}) {
        xs.push_back(std::make_unique<Xfer>(h, ep, 1 << 16, 0));
        ASSERT_EQ(xs.back()->submit(), 0);
        ASSERT_TRUE(head.waitPending(ep, 1, 2000));
    }
    head.unplug();
    for (auto& x : xs) {
        ASSERT_TRUE(waitFor(ctx, x->done, 2000));
        EXPECT_EQ(x->status, LIBUSB_TRANSFER_NO_DEVICE);
    }
    EXPECT_EQ(sendOut(ztSimUsbHead::kCtrlOut, ztSimUsbHead::message(0x0120, nullptr, 0)), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(xs[0]->submit(), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libusb_clear_halt(h, ztSimUsbHead::kStreamIn), LIBUSB_ERROR_NO_DEVICE);
    ztSimUsbHead::closeEmulated(h, ctx);
    h = nullptr;
    ctx = nullptr;
    libusb_context* c2 = nullptr;
    EXPECT_EQ(ztSimUsbHead::openEmulated(&c2), nullptr);

    // Plugged back in: a new handle works end to end.
    head.replug();
    h = ztSimUsbHead::openEmulated(&ctx);
    ASSERT_NE(h, nullptr);
    Xfer in(h, ztSimUsbHead::kCtrlIn, 4096, 2000);
    ASSERT_EQ(in.submit(), 0);
    ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, ztSimUsbHead::message(0x0120, nullptr, 0)), 0);
    ASSERT_TRUE(waitFor(ctx, in.done, 2000));
    EXPECT_EQ(in.got, ztSimUsbHead::statusMessage(0));
}

TEST_F(UsbHead, ConcurrentCommandsHeartbeatsAndStream)
{
    // A host-like set-up: one thread handles events and resubmits, 8 stream transfers, one
    // control and one event transfer in flight, while two threads send on the OUT endpoints.
    constexpr int kCommands = 60, kBeats = 60;
    std::atomic<bool> stop{false};
    Bytes streamGot, ctrlGot;
    std::atomic<int> eventsGot{0};
    std::atomic<size_t> ctrlBytes{0};
    std::vector<std::unique_ptr<Xfer>> all;
    for (int i = 0; i < 8; ++i)
        all.push_back(std::make_unique<Xfer>(h, ztSimUsbHead::kStreamIn, 1 << 16, 0));
    all.push_back(std::make_unique<Xfer>(h, ztSimUsbHead::kCtrlIn, 4096, 0));
    all.push_back(std::make_unique<Xfer>(h, ztSimUsbHead::kEventIn, 4096, 0));
    for (auto& x : all)
        ASSERT_EQ(x->submit(), 0);
    Bytes unit(1000);
    for (size_t i = 0; i < unit.size(); ++i)
        unit[i] = static_cast<char>(i % 251);
    head.startStream(unit, 0, 0);

    std::thread events([&] {
        size_t next = 0;
        while (!stop) {
            timeval tv{0, 20000};
            libusb_handle_events_timeout(ctx, &tv);
            // Stream transfers in submission order; control and event whenever done.
            while (all[next]->done) {
                all[next]->done = false;
                streamGot.insert(streamGot.end(), all[next]->got.begin(), all[next]->got.end());
                if (streamGot.size() < (8u << 20))
                    all[next]->submit();
                next = (next + 1) % 8;
            }
            for (int i = 8; i < 10; ++i) {
                if (all[i]->done) {
                    if (i == 8) {
                        ctrlGot.insert(ctrlGot.end(), all[i]->got.begin(), all[i]->got.end());
                        ctrlBytes = ctrlGot.size();
                    } else if (all[i]->got == ztSimUsbHead::message(2, nullptr, 0))
                        ++eventsGot;
                    all[i]->submit();
                }
            }
        }
    });
    std::thread beats([&] {
        for (int i = 0; i < kBeats; ++i)
            EXPECT_EQ(sendOut(ztSimUsbHead::kHeartbeatOut, ztSimUsbHead::message(2, nullptr, 0)), 0);
    });
    for (int i = 0; i < kCommands; ++i) {
        head.setStatusReply(static_cast<unsigned short>(0x400 + i), i);
        ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, ztSimUsbHead::message(static_cast<unsigned short>(0x400 + i),
                                                                         nullptr, 0)),
                  0);
    }
    beats.join();
    // Every answer is in flight by now; wait until the event thread has taken them all.
    const size_t replyBytes = kCommands * ztSimUsbHead::statusMessage(0).size();
    auto end = Clock::now() + std::chrono::seconds(30);
    while (Clock::now() < end && (eventsGot < kBeats || ctrlBytes < replyBytes))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    stop = true;
    events.join();
    head.stopStream();
    for (auto& x : all)
        drain(*x);

    EXPECT_EQ(head.heartbeatsReceived(), kBeats);
    EXPECT_EQ(eventsGot, kBeats);
    Bytes expected;
    for (int i = 0; i < kCommands; ++i) {
        Bytes r = ztSimUsbHead::statusMessage(i);
        expected.insert(expected.end(), r.begin(), r.end());
    }
    EXPECT_TRUE(ctrlGot == expected);
    ASSERT_GT(streamGot.size(), 0u);
    for (size_t i = 0; i < streamGot.size(); ++i)
        ASSERT_EQ(streamGot[i], static_cast<char>((i % 1000) % 251)) << "at " << i;
}

TEST_F(UsbHead, BadRequestsAreCountedAndDoNotStopLaterOnes)
{
    Xfer in(h, ztSimUsbHead::kCtrlIn, 4096, 300);
    Bytes badTail = ztSimUsbHead::message(0x0120, "ab", 2);
    badTail.back() = '\xBC';
    Bytes badHead = ztSimUsbHead::message(0x0120, nullptr, 0);
    badHead[0] = 0x55;
    ASSERT_EQ(in.submit(), 0);
    ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, badTail), 0);
    ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, badHead), 0);
    ASSERT_TRUE(waitFor(ctx, in.done, 2000));
    EXPECT_EQ(in.status, LIBUSB_TRANSFER_TIMED_OUT); // nothing answered
    EXPECT_EQ(head.badMessagesReceived(), 2);
    // A size field below 8 drops what is held; the next good request is answered.
    ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, Bytes{'\xAA', 3, 0, 0, 0, 1, 0}), 0);
    EXPECT_EQ(head.badMessagesReceived(), 3);
    Xfer in2(h, ztSimUsbHead::kCtrlIn, 4096, 2000);
    ASSERT_EQ(in2.submit(), 0);
    ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, ztSimUsbHead::message(0x0120, nullptr, 0)), 0);
    ASSERT_TRUE(waitFor(ctx, in2.done, 2000));
    EXPECT_EQ(in2.got, ztSimUsbHead::statusMessage(0));
    ztSimUsbHead::Request r;
    ASSERT_TRUE(head.nextCommand(r, 1000));
    EXPECT_EQ(r.type, 0x0120);
    EXPECT_FALSE(head.nextCommand(r, 50));
}

TEST_F(UsbHead, RequestsWithoutTableEntryReachTheDevice)
{
    Xfer in(h, ztSimUsbHead::kCtrlIn, 4096, 2000);
    auto exchange = [&](const Bytes& request) {
        EXPECT_EQ(in.submit(), 0);
        EXPECT_EQ(sendOut(ztSimUsbHead::kCtrlOut, request), 0);
        EXPECT_TRUE(waitFor(ctx, in.done, 2000));
        return in.got;
    };
    // setWifi, then getWifi: status 0, u8 length, ssid, u8 length, password, in one
    // completion.
    const Bytes wifi{5, 'z', 't', '-', 'a', 'p', 2, 'p', 'w'};
    EXPECT_EQ(exchange(ztSimUsbHead::message(278, wifi.data(), wifi.size())), ztSimUsbHead::statusMessage(0));
    EXPECT_EQ(head.device().wifi(), std::make_pair(std::string("zt-ap"), std::string("pw")));
    Bytes reply{0, 0, 0, 0};
    reply.insert(reply.end(), wifi.begin(), wifi.end());
    EXPECT_EQ(exchange(ztSimUsbHead::message(290, nullptr, 0)), ztSimUsbHead::message(290, reply.data(), reply.size()));
    // Exposure preset on the device: status 0, then the float's bits.
    head.device().setFloatValue(8, 1.5f);
    EXPECT_EQ(exchange(ztSimUsbHead::message(8, nullptr, 0)),
              ztSimUsbHead::message(8, "\0\0\0\0\0\0\xC0\x3F", 8));

    // The table overrides the device until it is emptied.
    head.setStatusReply(290, 4);
    EXPECT_EQ(exchange(ztSimUsbHead::message(290, nullptr, 0)), ztSimUsbHead::statusMessage(4));
    head.resetReplies();
    EXPECT_EQ(exchange(ztSimUsbHead::message(290, nullptr, 0)), ztSimUsbHead::message(290, reply.data(), reply.size()));

    // A pre-trigger is not answered: the control IN transfer times out.
    Xfer shortIn(h, ztSimUsbHead::kCtrlIn, 4096, 200);
    ASSERT_EQ(shortIn.submit(), 0);
    ASSERT_EQ(sendOut(ztSimUsbHead::kCtrlOut, ztSimUsbHead::message(13, "\2\0\0\0", 4)), 0);
    ASSERT_TRUE(waitFor(ctx, shortIn.done, 3000));
    EXPECT_EQ(shortIn.status, LIBUSB_TRANSFER_TIMED_OUT);
    EXPECT_EQ(head.device().receivedCount(13), 1);
}

} // namespace
