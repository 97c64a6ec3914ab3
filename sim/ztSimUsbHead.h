// A simulated USB3 scanner head: an emulated usbfs device node that real libusb opens and
// drives with real synchronous and asynchronous bulk transfers, answered in-process by a
// model of the head.
//
// The emulation needs the process to run with LD_PRELOAD=libumockdev-preload.so.0 (the
// preload redirects /dev and /sys into a private test bed and passes every ioctl on the
// device node to this object). Without the preload start() fails and emulationAvailable()
// is false; tests then exit with status 77 so that ctest marks them skipped.
//
// The head offers one configuration with interface 0 and five bulk endpoints:
//   0x81 stream IN   the image stream, a plain byte stream cut into transfers
//   0x82 control IN  command replies
//   0x83 event IN    events and heartbeat answers
//   0x01 control OUT commands (embedded messages)
//   0x02 heartbeat OUT heartbeats (8-byte type-2 messages)
//
// Commands arriving on control OUT are cut out as embedded messages (AA, 32-bit size,
// 16-bit type, payload, BB), recorded, and answered on control IN by the head's device
// state (device(), a ztSimDevice that answers the whole command set) unless a settable
// reply table overrides it. A reply travels as one completion of a control IN transfer,
// or as the pieces a raw reply names, each its own completion. Heartbeats on heartbeat OUT are counted and, unless
// told otherwise, answered with an 8-byte type-2 message on event IN. Pushed events go out
// one per event IN completion; stream bytes fill stream IN transfers up to their length.
// An IN transfer with nothing to hand out stays pending until data arrives, the host
// cancels it (its time-out) or the device is unplugged.
//
// One head per process at a time (the test bed is process-wide). Every member is
// thread-safe. Nothing spins while idle: libusb sleeps in poll() on the emulated node until
// a transfer is ready to be reaped.
#pragma once

#include "ztProxyTypes.h"
#include "ztSimDevice.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct libusb_context;
struct libusb_device_handle;

class ztSimUsbHead {
public:
    static constexpr unsigned char kStreamIn = 0x81, kCtrlIn = 0x82, kEventIn = 0x83, kCtrlOut = 0x01,
                                   kHeartbeatOut = 0x02;
    // A test vendor and product id that no scanner head uses.
    static constexpr unsigned short kVendor = 0x1d6b, kProduct = 0x5a01;
    static constexpr int kInterface = 0;
    static constexpr unsigned short kHeartbeatType = 2;
    static constexpr unsigned short kStatusReplyType = 0;
    // The serial number string the head reports (string descriptor 3).
    static constexpr const char* kSerialNumber = "ZTSIM0001";

    // One request as it arrived on control OUT.
    struct Request {
        unsigned short type;
        std::vector<char> payload;
    };

    ztSimUsbHead();
    ~ztSimUsbHead(); // stops
    ztSimUsbHead(const ztSimUsbHead&) = delete;
    ztSimUsbHead& operator=(const ztSimUsbHead&) = delete;

    // true when the process runs with the umockdev preload.
    static bool emulationAvailable();

    // Creates the test bed and the device; 0, or -1 without the preload or when the device
    // cannot be created. Starting a started head does nothing and returns 0.
    int start();
    // Ends a running stream, drops every transfer in flight and removes the test bed. Close
    // every libusb handle on the device first. Safe to call twice.
    void stop();
    // The device node as libusb sees it.
    std::string devicePath() const;

    // Opens the emulated head with libusb: a new context in *ctx, the device found by its
    // vendor and product id, interface 0 claimed. Null (and *ctx null) on failure.
    static libusb_device_handle* openEmulated(libusb_context** ctx);
    // Releases the interface, closes the handle and ends the context; nulls are skipped.
    static void closeEmulated(libusb_device_handle* handle, libusb_context* ctx);

    // Behaviour switches; they take effect at once.
    // Default on: each heartbeat is answered with an 8-byte type-2 message on event IN.
    void setAnswerHeartbeats(bool on);
    // While on, nothing completes on control IN and event IN: commands get no reply (and
    // none later), heartbeats no answer, pushed events and control bytes wait until it is
    // switched off. Requests and heartbeats are still counted and recorded. The stream is
    // not affected.
    void setSilent(bool on);
    // While on, every IN transfer (pending or submitted later) completes at once with
    // -errorNumber as its status: EPROTO (libusb: transfer error) or EPIPE (stall). Data
    // stays queued. OUT transfers are not affected.
    void failTransfers(bool on, int errorNumber = 71 /* EPROTO */);
    // Pending transfers complete with -ESHUTDOWN (libusb: no device) and every later
    // request on a handle opened before fails with ENODEV (libusb: no device). Opening the
    // device fails until replug().
    void unplug();
    // The device answers again, as if plugged back in: handles opened from now on work;
    // handles from before the unplug stay dead. Queued data and the reply table are kept.
    void replug();
    bool isUnplugged() const;

    // The reply table, which overrides the device state for the types it holds. A type
    // without an entry is answered by device().
    // Status reply: message type 0, payload the int32 status.
    void setStatusReply(unsigned short type, int status);
    // Echo reply: message type = the request's type, payload as given.
    void setEchoReply(unsigned short type, std::vector<char> payload);
    void setNoReply(unsigned short type);
    // These bytes as they stand, each piece one control IN completion (a split reply, a
    // lone tail byte, two replies in one completion, garbage). A piece longer than the
    // transfer continues in the next completion.
    void setRawReply(unsigned short type, std::vector<std::vector<char>> pieces);
    // Empties the table: every type is answered by device() again. The device state
    // stays as it is.
    void resetReplies();
    // Decides the answer to a request on control OUT (endpoint kCtrlOut) or a heartbeat
    // (kHeartbeatOut) ahead of the reply table, the device state and the heartbeat switch:
    // fills reply with the bytes to send, one completion on control IN (a heartbeat's on
    // event IN; empty: no answer), and returns true, or returns false to leave the message
    // to them. message is the whole embedded message. Runs with the head's lock held: it
    // must not call the head. Null removes it.
    using Answerer =
        std::function<bool(unsigned char endpoint, const char* message, std::size_t size, std::vector<char>& reply)>;
    void setAnswerer(Answerer answerer);
    // The state that answers every request the table does not cover; untouched, it gives
    // the network head's default ability record (345), SET file (264) and program version
    // (276), and status 0 to settings. While the head is silent it sees no request.
    ztSimDevice& device();

    // Requests received on control OUT, in order (valid messages only: head 0xAA or 0xCC,
    // tail 0xBB; the last 65536 are kept). false when none arrives within timeoutMs.
    bool nextCommand(Request& out, int timeoutMs);
    void clearCommands();
    int heartbeatsReceived() const;
    // Messages on control or heartbeat OUT with a bad head or tail, or a size field below 8
    // or above 128 MiB (everything held on that endpoint is then dropped).
    int badMessagesReceived() const;

    // Pushing; each returns the number of bytes queued, or -1 when the head is not started.
    // One event IN completion per call (longer than the transfer: continued in the next).
    int pushEvent(const std::vector<char>& bytes);
    // Unsolicited bytes on control IN, one completion per call.
    int pushControl(const std::vector<char>& bytes);
    // Stream bytes, appended to the stream; each stream IN transfer takes as many queued
    // bytes as it holds, in order.
    int pushStream(const std::vector<char>& bytes);
    // Stream bytes queued and not yet taken by a transfer.
    std::size_t queuedStreamBytes() const;

    // Streaming: `unit` goes out on stream IN `count` times (0: until stopStream) at up to
    // bytesPerSecond (0: as fast as the host takes it), behind any pushed stream bytes;
    // returns at once. A running stream is replaced.
    void startStream(std::vector<char> unit, std::size_t count, double bytesPerSecond);
    void stopStream();
    // Bytes of the current (or last) stream handed to the host.
    std::size_t streamedBytes() const;
    // true once the stream has handed out all its units (or was stopped) within timeoutMs.
    bool waitStreamDone(int timeoutMs);

    // Transfers seen since start: submitted on any endpoint, and completed (reaped).
    std::size_t transfersSubmitted() const;
    // IN transfers that libusb is waiting on, per endpoint address.
    int pendingTransfers(unsigned char endpoint) const;
    // Waits until at least n IN transfers are pending on the endpoint.
    bool waitPending(unsigned char endpoint, int n, int timeoutMs);

    // Wire builders (the layouts of ztSimNetworkHead's builders).
    // Embedded message: AA, 32-bit size, 16-bit type, payload, BB.
    static std::vector<char> message(unsigned short type, const void* payload, std::size_t n);
    // Status reply: type 0, the int32 status.
    static std::vector<char> statusMessage(int status);
    // Extended-header packet (types 512, 1280, 1281): 76-byte header with the 64-bit stamp
    // at 64 and the tag 0xCC00FF55 at 72, payload, tail BB (0xBC when goodTail is false).
    static std::vector<char> extendedPacket(unsigned short type, unsigned long long stamp, const void* payload,
                                            std::size_t n, bool goodTail = true);
    // The endpoint description a host passes to ztUsbProxyServer for this head: stream
    // transfers of 64 x streamMaxPacket bytes, control of 4 x 16384, event of 4 x 1024.
    static _ZT_USB3_DEVICE_INFO_ deviceInfo(unsigned int streamMaxPacket = 16384);
    // The device, configuration, interface and endpoint descriptors the head reports.
    static std::vector<unsigned char> descriptors();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
