// Payloads of module-proxy messages: little-endian values packed with no gaps, written
// and read with bounds checks.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

namespace zt {

class PayloadWriter {
public:
    PayloadWriter& i32(std::int32_t v) { return put(v); }
    PayloadWriter& u32(std::uint32_t v) { return put(v); }
    PayloadWriter& u64(std::uint64_t v) { return put(v); }
    PayloadWriter& f32(float v) { return put(v); }
    PayloadWriter& f64(double v) { return put(v); }
    // bool travels as a 32-bit 0 or 1.
    PayloadWriter& flag(bool v) { return i32(v ? 1 : 0); }
    PayloadWriter& u8(std::uint8_t v) { return put(v); }
    // length bytes from data; a caller's null data with a length is refused.
    PayloadWriter& bytes(const void* data, std::size_t length)
    {
        if (data == nullptr && length > 0)
            return refuse("no data for a length above 0");
        if (length > kMaxPayload - m_bytes.size())
            return refuse("a payload of 2 GiB or more");
        m_bytes.append(static_cast<const char*>(data), length);
        return *this;
    }
    PayloadWriter& zeros(std::size_t n)
    {
        m_bytes.append(n, '\0');
        return *this;
    }
    PayloadWriter& text(const std::string& s) { return bytes(s.data(), s.size()); }
    // Exactly n bytes from s: its characters, then zeros where s is shorter.
    PayloadWriter& fixedText(const std::string& s, std::size_t n)
    {
        const std::size_t k = s.size() < n ? s.size() : n;
        bytes(s.data(), k);
        return zeros(n - k);
    }
    // Calibration-file block: uint32 length and bytes of name, of path, then of the data.
    PayloadWriter& fileBlock(const std::string& name, const std::string& path, const void* data, std::uint32_t length)
    {
        u32(static_cast<std::uint32_t>(name.size())).text(name);
        u32(static_cast<std::uint32_t>(path.size())).text(path);
        return u32(length).bytes(data, length);
    }
    // SET file name pair: one length byte each (the length modulo 256), then both texts.
    PayloadWriter& namePair(const std::string& a, const std::string& b)
    {
        u8(static_cast<std::uint8_t>(a.size())).u8(static_cast<std::uint8_t>(b.size()));
        return text(a).text(b);
    }

    const char* data() const { return m_bytes.data(); }
    int size() const { return static_cast<int>(m_bytes.size()); }
    // Why the payload cannot be sent, or null when it can.
    const char* refusal() const { return m_refusal; }

private:
    // The largest payload a message's 32-bit signed length field holds with its header.
    static constexpr std::size_t kMaxPayload = 0x7FFFFFEF;

    PayloadWriter& refuse(const char* reason)
    {
        if (m_refusal == nullptr)
            m_refusal = reason;
        return *this;
    }

    template <class T>
    PayloadWriter& put(T v)
    {
        static_assert(std::is_trivially_copyable_v<T>);
        char raw[sizeof(T)];
        std::memcpy(raw, &v, sizeof(T)); // the host byte order is little-endian
        m_bytes.append(raw, sizeof(T));
        return *this;
    }

    std::string m_bytes;
    const char* m_refusal = nullptr;
};

// Reads values from a received payload; a read past its end yields zero (or the bytes
// that are there).
class PayloadReader {
public:
    PayloadReader(const void* data, int length)
        : m_p(static_cast<const char*>(data)), m_left(length > 0 && data != nullptr ? static_cast<std::size_t>(length) : 0)
    {
    }

    template <class T>
    T get()
    {
        static_assert(std::is_trivially_copyable_v<T>);
        T v{};
        if (m_left < sizeof(T)) {
            m_left = 0;
            return v;
        }
        std::memcpy(&v, m_p, sizeof(T));
        m_p += sizeof(T);
        m_left -= sizeof(T);
        return v;
    }
    std::string text(std::size_t n)
    {
        if (n > m_left)
            n = m_left;
        std::string s(m_p, n);
        m_p += n;
        m_left -= n;
        return s;
    }
    std::size_t left() const { return m_left; }

private:
    const char* m_p;
    std::size_t m_left;
};

} // namespace zt
