// Packets of the scanner head's stream and the incremental decoder that cuts them out of a
// byte stream that arrives in pieces of any length.
//
// A packet on the wire (little-endian):
//   0        tag 0xAA
//   1..4     length of the whole packet, tag and tail included
//   5..6     type
//   7..      payload
//   length-1 tail 0xBB
// Types 512, 1280 and 1281 carry a 76-byte extended header: the 7 bytes above, 57 bytes
// that this layer passes through, a 64-bit field at 64 and the 32-bit tag 0xCC00FF55 at 72.
#pragma once

#include <cstdint>
#include <memory>

namespace ztCamera {

// Storage a decoder may write packets into instead of giving each packet a buffer of its
// own. A stream path that copies every finished packet into storage of its own lends the
// decoder that storage and saves the copy. lend(size) returns a block of at least size
// bytes, or null to let the packet take its own buffer; giveBack(block) takes back a lent
// block whose packet was dropped or replaced before it was handed out. A handed-out packet
// does not own a lent block: it stays the lender's.
class PacketStorage {
public:
    virtual unsigned char* lend(std::uint64_t size) = 0;
    virtual void giveBack(unsigned char* block) = 0;

protected:
    ~PacketStorage() = default;
};

// One packet: its bytes, header and tail included.
class QlensNetCmd {
public:
    QlensNetCmd() = default;
    // Owns a zero-filled buffer of size bytes.
    explicit QlensNetCmd(std::uint64_t size);
    // Wraps buffer (size bytes); when owned is set, the destructor frees it with delete[].
    QlensNetCmd(unsigned char* buffer, std::uint64_t size, bool owned);
    virtual ~QlensNetCmd();

    QlensNetCmd(const QlensNetCmd&) = delete;
    QlensNetCmd& operator=(const QlensNetCmd&) = delete;

    unsigned char* buffer = nullptr;
    std::uint64_t bufSize = 0;
    bool owned = false;

private:
    friend class QlensNetProto;
    struct NoZeroFill {};
    // Owns a buffer of size bytes that the decoder fills completely before anyone sees it.
    QlensNetCmd(std::uint64_t size, NoZeroFill);
    // Set while the buffer is lent and the packet not yet handed out: the destructor gives
    // the buffer back.
    PacketStorage* m_lender = nullptr;
};

// Cuts packets out of one byte stream. Not thread-safe: one stream, one decoder, fed from
// one thread at a time. All decode errors are written to the log and cost only the packet
// in hand; nothing throws on bad input (only a failed allocation of a packet throws).
//
// Every entry takes the input as a pointer and a count, both by reference: the bytes it
// consumes are taken from the front, moving the pointer on and lowering the count.
class QlensNetProto {
public:
    static constexpr unsigned char kTag = 0xAA;
    static constexpr unsigned char kTail = 0xBB;
    static constexpr std::uint64_t kHeaderSize = 7;
    static constexpr std::uint64_t kExtendedHeaderSize = 76;
    static constexpr std::uint32_t kExtendedTag = 0xCC00FF55;
    static constexpr std::uint32_t kExtendedMinLength = 160;
    static constexpr std::uint32_t kExtendedMaxLength = 0x1E00000;
    // Plain packets of types 513 and 514 in the stream decoder.
    static constexpr std::uint32_t kPlainMinLength = 88;
    static constexpr std::uint32_t kDefaultMaxPlainLength = 2000000;
    // The plain-only entries.
    static constexpr std::uint32_t kPlainOnlyMinLength = 8;
    static constexpr std::uint32_t kPlainOnlyMaxLength = 0x5000000;
    static constexpr std::uint16_t kPlainOnlyTypeLimit = 1282;

    // Results of decodePlainHeader.
    enum HeaderStatus : int {
        kHeaderNeedMore = 0,
        kHeaderAccepted = 1,
        kHeaderLengthError = 2,
        kHeaderTypeError = 3,
    };

    QlensNetProto();
    ~QlensNetProto();

    QlensNetProto(const QlensNetProto&) = delete;
    QlensNetProto& operator=(const QlensNetProto&) = delete;

    // The stream decoder. Accepts extended-header packets (types 512, 1280, 1281; length
    // 160 to 0x1E00000; tag 0xCC00FF55 at offset 72) and plain packets of types 513 and
    // 514 (length 88 up to the maximum plain length); any other header is skipped without
    // a log line. Bytes before a 0xAA tag are dropped one by one; a rejected header is
    // dropped and the tag is sought from the next unread byte. Returns the next finished
    // packet with a good 0xBB tail as soon as its last byte is consumed, leaving the rest
    // of the input for the next call; returns an empty handle once all input is consumed
    // without finishing a packet (at once when the count is 0). A packet with a bad tail
    // is dropped. A null pointer with a count above 0 is logged and nothing is consumed.
    std::shared_ptr<QlensNetCmd> decode(const unsigned char*& data, std::uint64_t& remaining);
    std::shared_ptr<QlensNetCmd> decode(const char*& data, std::uint64_t& remaining)
    {
        return asBytes(data, remaining, &QlensNetProto::decode);
    }

    // The same for a stream of plain packets only: there is no extended header, every
    // type below 1282 with a length from 8 to 0x5000000 is accepted, and a header out of
    // those bounds is logged and its 7 bytes are dropped. Handed a decoder that decode
    // left inside an extended header, it logs where it stood and seeks a tag again.
    std::shared_ptr<QlensNetCmd> decodePlain(const unsigned char*& data, std::uint64_t& remaining);
    std::shared_ptr<QlensNetCmd> decodePlain(const char*& data, std::uint64_t& remaining)
    {
        return asBytes(data, remaining, &QlensNetProto::decodePlain);
    }

    // Only the header part of decodePlain, saying what became of the header (with the log
    // texts of its own): kHeaderNeedMore when the input ran out before a whole header,
    // kHeaderAccepted when a packet was started (its body is then read by decodePlain),
    // kHeaderLengthError or kHeaderTypeError when the header was dropped. It returns
    // right after the header, leaving the rest of the input. Call it while the decoder
    // seeks a header; the plain entries and decode are not meant to share a stream.
    int decodePlainHeader(const unsigned char*& data, std::uint64_t& remaining);
    int decodePlainHeader(const char*& data, std::uint64_t& remaining)
    {
        return asBytes(data, remaining, &QlensNetProto::decodePlainHeader);
    }

    // Goes back to seeking a tag. A packet being read stays held until the next packet
    // replaces it; it is never handed out.
    void reset();
    // Goes back to seeking a tag and drops a packet being read at once (a lent block goes
    // back to its lender). For a lender about to free its storage.
    void discardPacket();

    // While a packet's body is being read: where its next bytes go (next) and how many it
    // still lacks; 0 at any other time. A stream path may receive straight into that place
    // and hand the count to bodyWritten, saving the copy decode would make.
    std::uint64_t bodyRoom(unsigned char*& next) const;
    // Takes n bytes (at most what bodyRoom said) already written where bodyRoom pointed, as
    // decode would have taken them from its input; returns the packet they finished.
    std::shared_ptr<QlensNetCmd> bodyWritten(std::uint64_t n);

    // Packets are written into storage's blocks where it lends one (null: every packet
    // has its own buffer). The storage must outlive the packets it lends to.
    void setPacketStorage(PacketStorage* storage) { m_storage = storage; }

    // Bytes of the current header or packet taken so far.
    std::uint64_t index() const { return m_index; }
    // 0 seeks the tag and reads the 7-byte header, 1 reads the extended header, 2 reads
    // the packet body.
    std::uint32_t state() const { return m_state; }
    bool hasPendingPacket() const { return m_cmd != nullptr; }
    std::uint32_t maxPlainLength() const { return m_maxPlainLength; }

private:
    // Runs an entry on input held as char.
    template <class R>
    R asBytes(const char*& data, std::uint64_t& remaining,
              R (QlensNetProto::*entry)(const unsigned char*&, std::uint64_t&))
    {
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data);
        R result = (this->*entry)(bytes, remaining);
        data = reinterpret_cast<const char*>(bytes);
        return result;
    }

    enum class Texts { Plain, Status };

    // Tag search and the 7-byte header; true once all 7 bytes are held.
    bool readHeader(const unsigned char*& data, std::uint64_t& remaining);
    void streamHeaderStep(const unsigned char*& data, std::uint64_t& remaining);
    void extendedHeaderStep(const unsigned char*& data, std::uint64_t& remaining);
    int plainHeaderStep(const unsigned char*& data, std::uint64_t& remaining, Texts texts);
    std::shared_ptr<QlensNetCmd> bodyStep(const unsigned char*& data, std::uint64_t& remaining);
    // Counts n more body bytes as read; hands the packet out once it is whole.
    std::shared_ptr<QlensNetCmd> advanceBody(std::uint64_t n);
    void startPacket(std::uint32_t length, const unsigned char* header, std::uint64_t headerSize);
    bool nullInput(const unsigned char* data, std::uint64_t remaining, const char* method);

    // The 7-byte header, then the 76-byte extended-header area.
    unsigned char m_header[kHeaderSize + kExtendedHeaderSize] = {};
    // Bytes of the current header or packet taken so far.
    std::uint64_t m_index = 0;
    std::uint32_t m_state = 0;
    // The packet being read; empty between packets.
    std::unique_ptr<QlensNetCmd> m_cmd;
    // One-byte flag of the decoder state; nothing in the decoding reads or sets it.
    [[maybe_unused]] unsigned char m_flag = 0;
    std::uint32_t m_maxPlainLength = kDefaultMaxPlainLength;
    PacketStorage* m_storage = nullptr;
};

} // namespace ztCamera
