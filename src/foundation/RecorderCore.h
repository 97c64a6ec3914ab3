// The recorder behind ztRecorder, and the slot through which a device link hands it what
// passes on the link.
//
// File layout (all numbers little-endian):
//   header, 140 bytes: "ZTREC001", u32 header size (140), u32 link (0 unknown, 1 network,
//     2 USB), the library version (32 bytes, zero-padded), the serial number (32 bytes,
//     zero-padded), u32 ability known (0/1), the ability record (twelve u32), the USB
//     endpoints (stream IN, control IN, event IN, control OUT, heartbeat OUT; zero on the
//     network link) and three zero bytes.
//     It is written when the file opens and written again in place whenever the link,
//     serial number or ability becomes known, and at close.
//   records, back to back: u32 record size (these 24 bytes and the bytes behind them), u8
//     kind, u8 channel, u16 zero, i32 status, u32 aux (Command: the request's size), u64
//     nanoseconds since open, then the bytes.
// Records are written whole or not at all from the queue; a reader stops at the first
// record that the file does not hold whole, so a file cut anywhere reads up to there.
#pragma once

#include "ztRecorder.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace zt {

constexpr std::size_t kRecordingHeaderSize = 140;
constexpr std::size_t kRecordHeaderSize = 24;
// How often the writer looks for records when no full batch has woken it.
constexpr int kWriterPeriodMs = 20;

class RecorderCore {
public:
    explicit RecorderCore(std::size_t capacity);
    ~RecorderCore();

    int open(const std::string& path);
    void close();
    bool isOpen() const;
    ztRecorder::Stats stats() const;

    // Queues one record whose bytes are a followed by b; counted as not recorded when the
    // queue has no room for it or no file is open. Never waits for the disk.
    void put(ztRecorder::Kind kind, unsigned channel, int status, std::uint32_t aux, const void* a, std::size_t na,
             const void* b = nullptr, std::size_t nb = 0);

    void setLink(ztRecorder::Link link);
    void setSerial(const std::string& serial);
    void setAbility(const DeviceAbilityInfo& ability);
    void setEndpoints(const unsigned char (&endpoints)[5]);

private:
    void writerLoop();
    void copyIn(const void* p, std::size_t n);
    void markHeaderLocked();
    void writeHeader();

    const std::size_t m_capacity;
    std::unique_ptr<char[]> m_ring;

    mutable std::mutex m_mutex; // everything below
    std::condition_variable m_wake;
    std::uint64_t m_head = 0; // bytes queued since open
    std::uint64_t m_tail = 0; // bytes written since open
    bool m_open = false;
    bool m_stop = false;
    bool m_writerWaiting = false;
    bool m_headerDirty = false;
    std::uint64_t m_pendingLost = 0; // records lost since the last note in the file
    std::uint64_t m_pendingLostBytes = 0;
    ztRecorder::Stats m_stats;
    ztRecorder::Header m_header;
    std::chrono::steady_clock::time_point m_origin;

    std::FILE* m_file = nullptr; // the writer's while it runs
    std::thread m_writer;
};

// Where a device link finds the recorder attached to it. When none is, a hook costs one
// relaxed load. Attaching (or detaching) returns once no hook still uses the recorder it
// replaced.
class RecordSlot {
public:
    bool active() const noexcept { return m_core.load(std::memory_order_relaxed) != nullptr; }

    void attach(RecorderCore* core)
    {
        m_core.store(core);
        while (m_users.load() != 0)
            std::this_thread::yield();
    }

    // Runs f with the attached recorder, if any.
    template <class F>
    void use(F&& f)
    {
        m_users.fetch_add(1);
        if (RecorderCore* core = m_core.load())
            f(*core);
        m_users.fetch_sub(1);
    }

    void bytes(ztRecorder::Kind kind, unsigned channel, int status, const void* p, std::size_t n)
    {
        if (active())
            use([&](RecorderCore& c) { c.put(kind, channel, status, 0, p, n); });
    }

private:
    std::atomic<RecorderCore*> m_core{nullptr};
    std::atomic<int> m_users{0};
};

} // namespace zt
