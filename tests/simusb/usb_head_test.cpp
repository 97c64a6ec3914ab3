// The emulated USB head against plain libusb calls: command exchange, split and coalesced
// replies, an idle event loop, errors, unplug and reconnect. (Its descriptors, the stream,
// the heartbeat answers, events and the device's own replies are read by the tool's, the
// server's, the fault and the catalogue tests.)
#include "ztSimUsbHead.h"

#include <gtest/gtest.h>
#include <libusb.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<char>;
using Head = ztSimUsbHead;
using Clock = std::chrono::steady_clock;

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
        x->got = Bytes(reinterpret_cast<const char*>(t->buffer), reinterpret_cast<const char*>(t->buffer) + t->actual_length);
        x->inFlight = false;
        x->done = true;
    }
    int submit()
    {
        done = false;
        int r = libusb_submit_transfer(t);
        inFlight = r == 0;
        return r;
    }
};

class UsbHead : public ::testing::Test {
protected:
    Head head;
    libusb_context* ctx = nullptr;
    libusb_device_handle* h = nullptr;
    std::vector<std::unique_ptr<Xfer>> xs; // cancelled and drained at the end

    void SetUp() override
    {
        ASSERT_EQ(head.start(), 0);
        h = Head::openEmulated(&ctx);
        ASSERT_NE(h, nullptr);
    }
    void TearDown() override
    {
        for (auto& x : xs)
            if (x->inFlight && libusb_cancel_transfer(x->t) == 0)
                wait(*x);
        Head::closeEmulated(h, ctx);
        head.stop();
    }
    Xfer& xfer(unsigned char ep, int length, unsigned timeoutMs)
    {
        xs.push_back(std::make_unique<Xfer>(h, ep, length, timeoutMs));
        return *xs.back();
    }
    // Runs libusb's events on this thread until the transfer completes or the time is up.
    bool wait(Xfer& x, int ms = 2000)
    {
        const auto end = Clock::now() + std::chrono::milliseconds(ms);
        while (!x.done && Clock::now() < end) {
            timeval tv{0, 20000};
            libusb_handle_events_timeout(ctx, &tv);
        }
        return x.done;
    }
    // A synchronous bulk OUT as a host sends commands and heartbeats.
    int sendOut(const Bytes& b, unsigned char ep = Head::kCtrlOut)
    {
        int n = 0;
        const int r = libusb_bulk_transfer(h, ep, reinterpret_cast<unsigned char*>(const_cast<char*>(b.data())),
                                           static_cast<int>(b.size()), &n, 1500);
        return r == 0 && n != static_cast<int>(b.size()) ? -100 : r;
    }
    // A request and the completion of a control IN transfer submitted before it.
    Bytes exchange(const Bytes& request, Xfer& in)
    {
        EXPECT_EQ(in.submit(), 0);
        EXPECT_EQ(sendOut(request), 0);
        EXPECT_TRUE(wait(in, 3000));
        return in.got;
    }
};

TEST_F(UsbHead, AnswersCommandsWithExactBytesAndRawPieces)
{
    // A status reply, and an echo of the request's type with the configured payload.
    head.setStatusReply(0x0120, 7);
    head.setEchoReply(0x0145, {1, 2, 3});
    Xfer& in = xfer(Head::kCtrlIn, 4096, 2000);
    EXPECT_EQ(exchange(Head::message(0x0120, "\x10\x20\x30\x40", 4), in),
              (Bytes{'\xAA', 12, 0, 0, 0, 0, 0, 7, 0, 0, 0, '\xBB'}));
    Head::Request r;
    ASSERT_TRUE(head.nextCommand(r, 1000));
    EXPECT_EQ(r.type, 0x0120);
    EXPECT_EQ(r.payload, (Bytes{0x10, 0x20, 0x30, 0x40}));
    EXPECT_EQ(exchange(Head::message(0x0145, nullptr, 0), in), (Bytes{'\xAA', 11, 0, 0, 0, 0x45, 0x01, 1, 2, 3, '\xBB'}));

    // Bad heads and tails, and a size field below 8, are counted and answered nothing; a
    // request in two OUT transfers is answered once, when whole.
    Bytes badTail = Head::message(0x0120, "ab", 2);
    badTail.back() = '\xBC';
    Bytes badHead = Head::message(0x0120, nullptr, 0);
    badHead[0] = 0x55;
    const Bytes whole = Head::message(0x0300, "abcdef", 6);
    head.clearCommands();
    ASSERT_EQ(in.submit(), 0);
    for (const Bytes& b : {badTail, badHead, Bytes{'\xAA', 3, 0, 0, 0, 1, 0}, Bytes(whole.begin(), whole.begin() + 5),
                           Bytes(whole.begin() + 5, whole.end())})
        ASSERT_EQ(sendOut(b), 0);
    ASSERT_TRUE(wait(in));
    EXPECT_EQ(in.got, Head::statusMessage(0));
    EXPECT_EQ(head.badMessagesReceived(), 3);
    ASSERT_TRUE(head.nextCommand(r, 1000));
    EXPECT_EQ(r.payload, (Bytes{'a', 'b', 'c', 'd', 'e', 'f'}));
    EXPECT_FALSE(head.nextCommand(r, 50));

    // No reply: the IN transfer times out.
    head.setNoReply(0x0121);
    Xfer& shortIn = xfer(Head::kCtrlIn, 4096, 200);
    EXPECT_TRUE(exchange(Head::message(0x0121, nullptr, 0), shortIn).empty());
    EXPECT_EQ(shortIn.status, LIBUSB_TRANSFER_TIMED_OUT);

    // Raw pieces are one completion each: a split with a lone tail byte, two replies in one;
    // a piece longer than the transfer continues in the next completion.
    const Bytes msg = Head::message(0x0159, "0123456789", 10);
    Bytes two = msg;
    const Bytes second = Head::statusMessage(-1);
    two.insert(two.end(), second.begin(), second.end());
    head.setRawReply(0x0159, {Bytes(msg.begin(), msg.end() - 1), Bytes{'\xBB'}});
    head.setRawReply(0x015A, {two});
    EXPECT_EQ(exchange(Head::message(0x015A, nullptr, 0), in), two);
    EXPECT_EQ(exchange(Head::message(0x0159, nullptr, 0), in), Bytes(msg.begin(), msg.end() - 1));
    ASSERT_EQ(in.submit(), 0);
    ASSERT_TRUE(wait(in));
    EXPECT_EQ(in.got, Bytes{'\xBB'});
    Xfer& small = xfer(Head::kCtrlIn, 8, 2000);
    ASSERT_EQ(sendOut(Head::message(0x0159, nullptr, 0)), 0);
    Bytes got;
    std::vector<size_t> sizes;
    while (got.size() < msg.size() && sizes.size() < 10) {
        ASSERT_EQ(small.submit(), 0);
        ASSERT_TRUE(wait(small));
        sizes.push_back(small.got.size());
        got.insert(got.end(), small.got.begin(), small.got.end());
    }
    EXPECT_EQ(sizes, (std::vector<size_t>{8, 8, 1, 1}));
    EXPECT_EQ(got, msg);
}

double processCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + ts.tv_nsec / 1e9;
}

// Transfers pending on every IN endpoint and nothing to hand out: libusb's event loop
// sleeps rather than spin on an always-writable node, and a push wakes it. Then errors,
// and an unplug that ends every transfer.
TEST_F(UsbHead, IdleFailingAndUnpluggedTransfers)
{
    for (unsigned char ep : {Head::kStreamIn, Head::kCtrlIn, Head::kEventIn}) {
        ASSERT_EQ(xfer(ep, 1 << 16, 0).submit(), 0);
        ASSERT_TRUE(head.waitPending(ep, 1, 2000));
    }
    const double cpu0 = processCpuSeconds();
    EXPECT_FALSE(wait(*xs[2], 600));
    EXPECT_LT(processCpuSeconds() - cpu0, 0.03);
    ASSERT_EQ(head.pushEvent({'e'}), 1);
    ASSERT_TRUE(wait(*xs[2]));
    EXPECT_EQ(xs[2]->got, Bytes{'e'});

    // Pending transfers fail at once, later ones on submission; data pushed meanwhile
    // waits until transfers work again.
    ASSERT_TRUE(head.waitPending(Head::kStreamIn, 1, 2000));
    head.failTransfers(true);
    ASSERT_TRUE(wait(*xs[0]));
    EXPECT_EQ(xs[0]->status, LIBUSB_TRANSFER_ERROR);
    head.failTransfers(true, EPIPE);
    ASSERT_EQ(head.pushStream({'s', 't'}), 2);
    ASSERT_EQ(xs[0]->submit(), 0);
    ASSERT_TRUE(wait(*xs[0]));
    EXPECT_EQ(xs[0]->status, LIBUSB_TRANSFER_STALL);
    EXPECT_TRUE(xs[0]->got.empty());
    head.failTransfers(false);
    ASSERT_EQ(xs[0]->submit(), 0);
    ASSERT_TRUE(wait(*xs[0]));
    EXPECT_EQ(xs[0]->got, (Bytes{'s', 't'}));

    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(xs[i]->submit(), 0);
        ASSERT_TRUE(head.waitPending(xs[i]->t->endpoint, 1, 2000));
    }
    head.unplug();
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(wait(*xs[i]));
        EXPECT_EQ(xs[i]->status, LIBUSB_TRANSFER_NO_DEVICE);
    }
    EXPECT_EQ(sendOut(Head::message(0x0120, nullptr, 0)), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(xs[0]->submit(), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libusb_clear_halt(h, Head::kStreamIn), LIBUSB_ERROR_NO_DEVICE);
    // The handle goes, and the device cannot be opened.
    xs.clear();
    Head::closeEmulated(h, ctx);
    h = Head::openEmulated(&ctx);
    EXPECT_EQ(h, nullptr);

    // Plugged back in: a new handle works end to end.
    head.replug();
    h = Head::openEmulated(&ctx);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(exchange(Head::message(0x0120, nullptr, 0), xfer(Head::kCtrlIn, 4096, 2000)), Head::statusMessage(0));
}

} // namespace
