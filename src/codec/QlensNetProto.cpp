#include "QlensNetProto.h"

#include "platform/zt_log.h"

#include <algorithm>
#include <cstring>

namespace ztCamera {

namespace {

std::uint16_t readU16(const unsigned char* p)
{
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}

std::uint32_t readU32(const unsigned char* p)
{
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

void take(const unsigned char*& data, std::uint64_t& remaining, std::uint64_t n)
{
    data += n;
    remaining -= n;
}

bool isExtendedType(std::uint16_t type)
{
    return type == 512 || type == 1280 || type == 1281;
}

} // namespace

QlensNetCmd::QlensNetCmd(std::uint64_t size)
    : buffer(new unsigned char[size]()), bufSize(size), owned(true)
{
}

QlensNetCmd::QlensNetCmd(unsigned char* buffer, std::uint64_t size, bool owned)
    : buffer(buffer), bufSize(size), owned(owned)
{
}

QlensNetCmd::QlensNetCmd(std::uint64_t size, NoZeroFill)
    : buffer(new unsigned char[size]), bufSize(size), owned(true)
{
}

QlensNetCmd::~QlensNetCmd()
{
    if (m_lender != nullptr)
        m_lender->giveBack(buffer);
    else if (owned)
        delete[] buffer;
}

QlensNetProto::QlensNetProto() = default;

QlensNetProto::~QlensNetProto() = default;

void QlensNetProto::reset()
{
    m_index = 0;
    m_state = 0;
}

void QlensNetProto::discardPacket()
{
    reset();
    m_cmd.reset();
}

bool QlensNetProto::nullInput(const unsigned char* data, std::uint64_t remaining, const char* method)
{
    if (data != nullptr)
        return false;
    // Bytes announced behind a null pointer cannot be read; the call does nothing.
    ZTLOG_ERROR("QlensNetProto::[%s] null data with %llu bytes", method, remaining);
    return true;
}

void QlensNetProto::startPacket(std::uint32_t length, const unsigned char* header, std::uint64_t headerSize)
{
    // A packet left behind by reset is replaced here; it goes first so that the decoder
    // never holds two packet buffers at once.
    m_cmd.reset();
    // Not zero-filled: the header goes in now and the body step writes every following
    // byte up to the last before the packet is handed out. A packet that stops short is
    // destroyed or replaced without anyone reading it, so no byte is ever read unwritten.
    if (m_storage != nullptr) {
        // The packet exists before the block is lent, so a failed allocation lends nothing.
        std::unique_ptr<QlensNetCmd> lent(new QlensNetCmd(nullptr, length, false));
        if ((lent->buffer = m_storage->lend(length)) != nullptr) {
            lent->m_lender = m_storage;
            m_cmd = std::move(lent);
        }
    }
    if (m_cmd == nullptr)
        m_cmd.reset(new QlensNetCmd(length, QlensNetCmd::NoZeroFill{}));
    std::memcpy(m_cmd->buffer, header, headerSize);
    m_state = 2;
}

bool QlensNetProto::readHeader(const unsigned char*& data, std::uint64_t& remaining)
{
    if (m_index == 0) {
        // Seeking the tag drops every byte that is not 0xAA, one at a time; memchr finds
        // the same byte without a loop turn per byte.
        const void* tag = std::memchr(data, kTag, remaining);
        if (tag == nullptr) {
            take(data, remaining, remaining);
            return false;
        }
        take(data, remaining, static_cast<std::uint64_t>(static_cast<const unsigned char*>(tag) - data) + 1);
        m_header[0] = kTag;
        m_index = 1;
    }
    const std::uint64_t size = std::min(remaining, kHeaderSize - m_index);
    if (m_index > kHeaderSize) {
        // Only reachable when the plain entries meet a decoder that decode left inside an
        // extended header.
        ZTLOG_ERROR("index = %d, size = %d, br = %d", m_index, size, remaining);
        reset();
        return false;
    }
    std::memcpy(m_header + m_index, data, size);
    take(data, remaining, size);
    m_index += size;
    return m_index == kHeaderSize;
}

void QlensNetProto::streamHeaderStep(const unsigned char*& data, std::uint64_t& remaining)
{
    if (!readHeader(data, remaining))
        return;
    const std::uint16_t type = readU16(m_header + 5);
    const std::uint32_t length = readU32(m_header + 1);
    if (isExtendedType(type)) {
        std::memcpy(m_header + kHeaderSize, m_header, kHeaderSize);
        m_state = 1;
    } else if ((type == 513 || type == 514) && length >= kPlainMinLength && length <= m_maxPlainLength) {
        startPacket(length, m_header, kHeaderSize);
    } else {
        reset();
    }
}

void QlensNetProto::extendedHeaderStep(const unsigned char*& data, std::uint64_t& remaining)
{
    unsigned char* area = m_header + kHeaderSize;
    const std::uint64_t n = std::min(remaining, kExtendedHeaderSize - m_index);
    std::memcpy(area + m_index, data, n);
    take(data, remaining, n);
    m_index += n;
    if (m_index < kExtendedHeaderSize)
        return;
    const std::uint32_t length = readU32(area + 1);
    if (length < kExtendedMinLength || length > kExtendedMaxLength) {
        ZTLOG_ERROR("Decode packet len error, len=%lld", length);
        reset();
        return;
    }
    const std::uint32_t tag = readU32(area + 72);
    if (tag != kExtendedTag) {
        ZTLOG_ERROR("Decode packet tag error, tag = %x", tag);
        reset();
        return;
    }
    startPacket(length, area, kExtendedHeaderSize);
}

int QlensNetProto::plainHeaderStep(const unsigned char*& data, std::uint64_t& remaining, Texts texts)
{
    if (!readHeader(data, remaining))
        return kHeaderNeedMore;
    const std::uint16_t type = readU16(m_header + 5);
    const std::uint32_t length = readU32(m_header + 1);
    if (length < kPlainOnlyMinLength || length > kPlainOnlyMaxLength) {
        if (texts == Texts::Plain)
            ZTLOG_ERROR("Decode packet len error, len = %d", length);
        else
            ZTLOG_ERROR("Decode packet len error, len = %lld", length);
        reset();
        return kHeaderLengthError;
    }
    if (type >= kPlainOnlyTypeLimit) {
        if (texts == Texts::Plain)
            ZTLOG_ERROR("Decode packet type error, type=%d", type);
        else
            ZTLOG_ERROR("Decode packet type error, type = %d", type);
        reset();
        return kHeaderTypeError;
    }
    startPacket(length, m_header, kHeaderSize);
    return kHeaderAccepted;
}

std::shared_ptr<QlensNetCmd> QlensNetProto::bodyStep(const unsigned char*& data, std::uint64_t& remaining)
{
    QlensNetCmd& cmd = *m_cmd;
    const std::uint64_t length = readU32(cmd.buffer + 1);
    const std::uint64_t n = std::min(remaining, length - m_index);
    if (n + m_index > cmd.bufSize) {
        ZTLOG_ERROR("Packet size + m_index: %d > m_cmd->bufSize: %d", n + m_index, cmd.bufSize);
        reset();
        m_cmd.reset();
        return {};
    }
    std::memcpy(cmd.buffer + m_index, data, n);
    take(data, remaining, n);
    return advanceBody(n);
}

std::shared_ptr<QlensNetCmd> QlensNetProto::advanceBody(std::uint64_t n)
{
    QlensNetCmd& cmd = *m_cmd;
    const std::uint64_t length = readU32(cmd.buffer + 1);
    m_index += n;
    if (m_index != length)
        return {};

    reset();
    const unsigned char last = cmd.buffer[length - 1];
    if (last == kTail) {
        m_cmd->m_lender = nullptr; // handed out: a lent block now belongs to the packet's reader
        return std::shared_ptr<QlensNetCmd>(m_cmd.release());
    }
    ZTLOG_ERROR("Decode packet tail error");
    ZTLOG_ERROR("Packet tail hex dump: %d, msgID: %d, packLen: %llu", last, readU16(cmd.buffer + 5), length);
    m_cmd.reset();
    return {};
}

std::uint64_t QlensNetProto::bodyRoom(unsigned char*& next) const
{
    if (m_state != 2 || m_cmd == nullptr)
        return 0;
    const std::uint64_t length = readU32(m_cmd->buffer + 1);
    // A body that would not fit its buffer is left to decode, which logs and drops it.
    if (length > m_cmd->bufSize || m_index >= length)
        return 0;
    next = m_cmd->buffer + m_index;
    return length - m_index;
}

std::shared_ptr<QlensNetCmd> QlensNetProto::bodyWritten(std::uint64_t n)
{
    return advanceBody(n);
}

std::shared_ptr<QlensNetCmd> QlensNetProto::decode(const unsigned char*& data, std::uint64_t& remaining)
{
    if (remaining == 0 || nullInput(data, remaining, "decode"))
        return {};
    // Each step either consumes input or leaves its state, so the loop always advances.
    while (remaining != 0) {
        switch (m_state) {
        case 0:
            streamHeaderStep(data, remaining);
            break;
        case 1:
            extendedHeaderStep(data, remaining);
            break;
        default:
            if (auto packet = bodyStep(data, remaining))
                return packet;
            break;
        }
    }
    return {};
}

std::shared_ptr<QlensNetCmd> QlensNetProto::decodePlain(const unsigned char*& data, std::uint64_t& remaining)
{
    if (remaining == 0 || nullInput(data, remaining, "decodePlain"))
        return {};
    while (remaining != 0) {
        if (m_state == 2) {
            if (auto packet = bodyStep(data, remaining))
                return packet;
        } else {
            plainHeaderStep(data, remaining, Texts::Plain);
        }
    }
    return {};
}

int QlensNetProto::decodePlainHeader(const unsigned char*& data, std::uint64_t& remaining)
{
    if (remaining == 0 || nullInput(data, remaining, "decodePlainHeader"))
        return kHeaderNeedMore;
    return plainHeaderStep(data, remaining, Texts::Status);
}

} // namespace ztCamera
