// A simulated network scanner head: the head's end of the four TCP connections that a host
// (ztEmbeddedModuleProxyServer, or any peer that speaks the wire format) opens to it.
//
// The head listens on one port (42001 by default). Connections are told apart by the order
// in which they arrive: each new connection takes the lowest channel that is free, so the
// first of a set is the command connection, then data, command-data and light-pen. When
// all four are closed the next connection is a command connection again; a host that
// reconnects only the missing ones gets them in their places. A connection that arrives
// while all four are taken starts a new set: the four old ones are closed and it becomes
// the command connection. A connection whose peer has closed (or half-closed) it no longer
// holds its channel.
//
// On the command connection, requests are cut out of the byte stream as embedded messages
// and answered by the head's device state (device(), a ztSimDevice that answers the whole
// command set) unless a settable reply table overrides it; on the command-data connection
// heartbeats (type 2) are counted and answered. Bytes arriving on the data and light-pen
// connections are kept for the caller. The caller pushes messages, packets or any bytes on any
// connection, and can stream a unit of bytes repeatedly.
//
// Every member is thread-safe. Nothing spins while idle: threads sleep in poll().
#pragma once

#include "ztSimDevice.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class ztSimNetworkHead {
public:
    enum Channel { Command = 0, Data = 1, CommandData = 2, LightPen = 3 };

    // One request as it arrived on the command connection.
    struct Request {
        unsigned short type;
        std::vector<char> payload;
    };

    // The twelve 32-bit words of an ability record in record order: header, product type,
    // then ability2 to ability11.
    using AbilityRecord = ztSimDevice::AbilityRecord;

    // Told about every connection that takes a channel (connected true) and every one that
    // leaves it (false); peer is "address:port". Runs on the head's threads.
    using ConnectionObserver = std::function<void(Channel channel, bool connected, const std::string& peer)>;

    static constexpr int kDefaultPort = 42001;
    static constexpr unsigned short kHeartbeatType = 2;
    static constexpr unsigned short kStatusReplyType = 0;
    static constexpr unsigned short kSetFileType = 264;
    static constexpr unsigned short kRKProgramVersionType = 276;
    static constexpr unsigned short kAbilityType = 345;
    static constexpr unsigned int kPacketTag = 0xCC00FF55;
    static constexpr std::size_t kExtendedHeaderSize = 76;
    // Product type and program version word that the head reports unless told otherwise.
    static constexpr unsigned int kDefaultProductType = 42;
    static constexpr unsigned int kDefaultProgramVersion = 0x01020304; // 1.2.3.4

    // port 0 takes any free port (see port()).
    explicit ztSimNetworkHead(const std::string& bindIP = "127.0.0.1", int port = kDefaultPort);
    ~ztSimNetworkHead(); // stops
    ztSimNetworkHead(const ztSimNetworkHead&) = delete;
    ztSimNetworkHead& operator=(const ztSimNetworkHead&) = delete;

    // Binds and listens; 0, or -1 when the address cannot be bound. Starting a started head
    // does nothing and returns 0; a stopped head can be started again.
    int start();
    // Closes every connection and the listening socket, ends a running stream and joins
    // every thread. Safe to call twice, and from any thread but the observer's.
    void stop();
    // The listening port (the one given, or the one chosen for port 0 once started).
    int port() const;

    bool isConnected(Channel c) const;
    bool waitConnected(Channel c, int timeoutMs);
    bool waitDisconnected(Channel c, int timeoutMs);
    // Connections accepted since construction.
    int connectionsAccepted() const;
    void setConnectionObserver(ConnectionObserver observer);

    // Behaviour switches; they take effect at once.
    // Default on: every heartbeat on the command-data connection is answered there with an
    // 8-byte type-2 message.
    void setAnswerHeartbeats(bool on);
    // While on, the head answers nothing: no heartbeat answers, no command replies.
    // Requests and heartbeats are still counted and recorded.
    void setSilent(bool on);
    // How a refused connection fails.
    enum RefuseHow {
        // Its connection attempt goes unanswered, so the peer's connect times out (a host
        // reports its 3-second connect time-out, 205). This is the failure a host
        // notices: its connect only waits for the socket to turn writable, and on Linux a
        // reset attempt turns it writable too, so a host takes a reset for success.
        Unanswered,
        // Its attempt is reset at once (the peer's connect fails with ECONNREFUSED).
        Reset,
    };
    // Makes the connection that would take channel `index` fail to connect (-1: none).
    // While a refusal is set the head listens with a queue of one. As soon as the
    // channels below `index` are taken, the head stops taking connections: for Reset it
    // closes its listening socket; for Unanswered it fills the queue with a connection of
    // its own, so that the kernel drops every further attempt. So that a peer connecting
    // right behind the previous connection cannot slip in first, the connection before
    // the refused one is left waiting in the queue for 150 ms before the head takes it:
    // the next attempt is dropped meanwhile, and its retry (about 1 s later) meets the
    // refusal. A refusing head therefore connects each channel with up to about a second
    // of delay. The head takes connections again when a lower channel becomes free or the
    // refusal is lifted. Returns once the listening socket follows the new setting.
    void setRefuseChannel(int index, RefuseHow how = Unanswered);
    // Command replies go out this many milliseconds after their request arrived.
    void setReplyDelay(int ms);
    // Decides the answer to a request on the command connection (channel Command) or to
    // a heartbeat (CommandData) ahead of the reply table, the device state and the
    // heartbeat switch: fills reply with the bytes to send (empty: no answer) and returns
    // true, or returns false to leave the message to them. message is the whole embedded
    // message. Runs on the connection's reader thread; null removes it.
    using Answerer = std::function<bool(Channel channel, const char* message, std::size_t size, std::vector<char>& reply)>;
    void setAnswerer(Answerer answerer);

    // The reply table, which overrides the device state for the types it holds. A type
    // without an entry is answered by device().
    // Status reply: message type 0, payload the int32 status.
    void setStatusReply(unsigned short type, int status);
    // Echo reply: message type = the request's type, payload as given (the caller includes
    // the leading status word, see valuePayload).
    void setEchoReply(unsigned short type, const std::vector<char>& payload);
    void setNoReply(unsigned short type);
    // These bytes as they stand, for bad-input tests.
    void setRawReply(unsigned short type, const std::vector<char>& bytes);
    // Empties the table: every type is answered by device() again. The device state
    // stays as it is.
    void resetReplies();
    // The state that answers every request the table does not cover. Untouched by default,
    // it answers 345 with abilityPayload(defaultAbility(), true), 264 with
    // setFilePayload(), 276 with valuePayload(kDefaultProgramVersion), and a setting with
    // status 0. While the head is silent it sees no request.
    ztSimDevice& device();

    // Requests received on the command connection, in order (valid embedded messages only:
    // head 0xAA or 0xCC and tail 0xBB; the last 65536 are kept). false when none arrives
    // within timeoutMs.
    bool nextCommand(Request& out, int timeoutMs);
    void clearCommands();
    int heartbeatsReceived() const;
    // Messages cut from the command or command-data connection with a bad head or tail
    // (they get no reply), and size fields below 8 or above 128 MiB (everything held on
    // that connection so far is dropped, as no message boundary can be found in it).
    int badMessagesReceived() const;
    // Bytes that arrived on the data or light-pen connection (kept up to 64 MiB each).
    bool waitReceived(Channel c, std::size_t atLeast, int timeoutMs);
    std::vector<char> takeReceived(Channel c);

    // Pushing; each returns the bytes written, or -1 when the channel is not connected or
    // the write fails. One message never interleaves with another on a connection. A write
    // waits while the peer is not reading, until the connection closes or the head stops.
    int sendBytes(Channel c, const void* data, std::size_t n);
    // One embedded message: AA, 32-bit size (n + 8), 16-bit type, payload, BB.
    int sendMessage(Channel c, unsigned short type, const void* payload, std::size_t n);
    // A packet with the 76-byte extended header (see extendedPacket).
    int sendExtendedPacket(Channel c, unsigned short type, unsigned long long stamp, const void* payload, std::size_t n,
                           bool goodTail = true, unsigned int tag = kPacketTag);
    // A plain packet (see plainPacket).
    int sendPlainPacket(Channel c, unsigned short type, const void* payload, std::size_t n, bool goodTail = true);
    // Closes the connection of this channel (the peer sees the end of the stream).
    void closeChannel(Channel c);

    // Streaming: a thread writes `unit` on channel c `count` times (0: until stopStream) at
    // up to bytesPerSecond (0: as fast as the connection takes it); returns at once. While
    // the channel is not connected the stream waits for it; a unit cut short by a broken
    // connection is sent again whole on the next one. A running stream is stopped first.
    void startStream(Channel c, std::vector<char> unit, std::size_t count, double bytesPerSecond);
    // Ends the stream and joins its thread. A unit being written is finished unless the
    // peer takes nothing for a second.
    void stopStream();
    // Bytes of whole units written by the current (or last) stream.
    std::size_t streamedBytes() const;
    // true once the stream has written its count (or was stopped) within timeoutMs.
    bool waitStreamDone(int timeoutMs);

    // Wire builders, also used by the head itself.
    // Embedded message: AA, size, type, payload, BB.
    static std::vector<char> message(unsigned short type, const void* payload, std::size_t n);
    // Extended-header packet of 76 + n + 1 bytes: AA, 32-bit length, 16-bit type, bytes 7
    // to 63 zero, the 64-bit stamp at 64, the 32-bit tag at 72, the payload from 76, and the
    // tail BB (0xBC when goodTail is false). Lengths that the host would reject (below 160)
    // are built as asked. Empty when the length does not fit in 32 bits.
    static std::vector<char> extendedPacket(unsigned short type, unsigned long long stamp, const void* payload,
                                            std::size_t n, bool goodTail = true, unsigned int tag = kPacketTag);
    // Plain packet of n + 8 bytes: AA, length, type, payload from 7, tail BB (0xBC when
    // goodTail is false). The host takes types 513 and 514 with lengths 88 to 2000000;
    // others are built as asked.
    static std::vector<char> plainPacket(unsigned short type, const void* payload, std::size_t n,
                                         bool goodTail = true);
    // Value reply payload: int32 status, then the 32-bit value.
    static std::vector<char> valuePayload(unsigned int value, int status = 0);
    // Ability reply payload: int32 status, then the record. Long form: the number of bytes
    // that follow this word, 0 (marks the long form), the header word, the format
    // version 1, and the eleven further words in wire order (product type, ability2,
    // ability3, ability4, ability6 to ability11, ability5). Short form: the byte count, 1
    // (marks the short form), the format version 1 and the same eleven words; the header
    // word does not travel.
    static std::vector<char> abilityPayload(const AbilityRecord& record, bool longForm, int status = 0);
    // Header 1, product type kDefaultProductType, ability2..ability11 = 2..11.
    static AbilityRecord defaultAbility();
    // The default reply payload to getSETFile: status 0 and a short text.
    static std::vector<char> setFilePayload();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
