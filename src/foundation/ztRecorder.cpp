// The recorder: a byte ring that the link's threads copy records into, drained to the file
// by one writer thread. The file layout is described in RecorderCore.h.
#include "RecorderCore.h"

#include "platform/TThread.h"
#include "platform/le_bytes.h"
#include "platform/zt_log.h"
#include "ztProxyVersion.h"

#include <algorithm>
#include <cstring>
#include <fstream>

namespace zt {

namespace {

const char kMagic[8] = {'Z', 'T', 'R', 'E', 'C', '0', '0', '1'};

// A zero-padded text field: at most size - 1 characters, so that it always ends in a zero.
void putText(char* p, std::size_t size, const std::string& text)
{
    std::memset(p, 0, size);
    std::memcpy(p, text.data(), std::min(text.size(), size - 1));
}

std::string getText(const char* p, std::size_t size)
{
    return std::string(p, strnlen(p, size));
}

} // namespace

RecorderCore::RecorderCore(std::size_t capacity)
    : m_capacity(std::max<std::size_t>(capacity, 4096)), m_ring(new char[m_capacity])
{
    m_header.libraryVersion = ztProxyVersion();
}

RecorderCore::~RecorderCore()
{
    close();
}

int RecorderCore::open(const std::string& path)
{
    close();
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        ZTLOG_ERROR("ztRecorder::[open] cannot write %s", path.c_str());
        return -1;
    }
    // Records go out in large batches; the library's buffer would only add a copy.
    std::setvbuf(f, nullptr, _IONBF, 0);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_file = f;
        m_head = m_tail = 0;
        m_stats = {};
        m_pendingLost = m_pendingLostBytes = 0;
        m_stop = false;
        m_origin = std::chrono::steady_clock::now();
    }
    writeHeader();
    if (std::ferror(f) != 0) {
        ZTLOG_ERROR("ztRecorder::[open] cannot write %s", path.c_str());
        std::fclose(f);
        m_file = nullptr;
        return -1;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
    }
    m_writer = std::thread([this] { writerLoop(); });
    return 0;
}

void RecorderCore::close()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_open)
            return;
        m_stop = true;
        m_wake.notify_all();
    }
    m_writer.join();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_open = false;
    std::fclose(m_file);
    m_file = nullptr;
    if (m_stats.notRecorded > 0)
        ZTLOG_WARN("ztRecorder: %llu records (%llu bytes) were not recorded: the disk fell behind",
                   static_cast<unsigned long long>(m_stats.notRecorded),
                   static_cast<unsigned long long>(m_stats.notRecordedBytes));
}

bool RecorderCore::isOpen() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_open;
}

ztRecorder::Stats RecorderCore::stats() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stats;
}

void RecorderCore::copyIn(const void* p, std::size_t n)
{
    if (n == 0)
        return;
    const std::size_t at = static_cast<std::size_t>(m_head % m_capacity);
    const std::size_t first = std::min(n, m_capacity - at);
    std::memcpy(m_ring.get() + at, p, first);
    std::memcpy(m_ring.get(), static_cast<const char*>(p) + first, n - first);
    m_head += n;
}

void RecorderCore::put(ztRecorder::Kind kind, unsigned channel, int status, std::uint32_t aux, const void* a,
                       std::size_t na, const void* b, std::size_t nb)
{
    const std::size_t size = kRecordHeaderSize + na + nb;
    std::lock_guard<std::mutex> lock(m_mutex);
    // Read under the lock, so that the records of several threads are in time order.
    const auto now = std::chrono::steady_clock::now();
    const std::uint64_t time = static_cast<std::uint64_t>(
        std::max<std::int64_t>(0, std::chrono::duration_cast<std::chrono::nanoseconds>(now - m_origin).count()));
    auto record = [&](ztRecorder::Kind k, unsigned ch, int st, std::uint32_t x, const void* p1, std::size_t n1,
                      const void* p2, std::size_t n2) {
        char head[kRecordHeaderSize] = {};
        putLE(head, static_cast<std::uint32_t>(kRecordHeaderSize + n1 + n2), 4);
        head[4] = static_cast<char>(k);
        head[5] = static_cast<char>(ch & 0xFF);
        putLE(head + 8, static_cast<std::uint32_t>(st), 4);
        putLE(head + 12, x, 4);
        putLE(head + 16, time, 8);
        copyIn(head, sizeof head);
        copyIn(p1, n1);
        copyIn(p2, n2);
        ++m_stats.records;
        m_stats.bytes += n1 + n2;
    };
    const std::size_t lostNote = m_pendingLost > 0 ? kRecordHeaderSize + 8 : 0;
    const std::uint64_t room = m_capacity - (m_head - m_tail);
    if (!m_open || m_stop || size > UINT32_MAX || size + lostNote > room) {
        ++m_stats.notRecorded;
        m_stats.notRecordedBytes += na + nb;
        ++m_pendingLost;
        m_pendingLostBytes += na + nb;
        return;
    }
    if (lostNote > 0) {
        char count[8];
        putLE(count, m_pendingLostBytes, 8);
        record(ztRecorder::NotRecorded, 0, static_cast<int>(std::min<std::uint64_t>(m_pendingLost, INT32_MAX)), 0,
               count, sizeof count, nullptr, 0);
        m_pendingLost = m_pendingLostBytes = 0;
    }
    record(kind, channel, status, aux, a, na, b, nb);
    // The writer is woken once a batch is waiting, not for every record: a wake-up per
    // receive would cost the stream more than the copy. It looks by itself every
    // kWriterPeriodMs for what is less.
    if (m_writerWaiting && m_head - m_tail >= m_capacity / 8)
        m_wake.notify_one();
}

void RecorderCore::markHeaderLocked()
{
    m_headerDirty = true;
    if (m_writerWaiting)
        m_wake.notify_one();
}

void RecorderCore::setLink(ztRecorder::Link link)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_header.link = link;
    markHeaderLocked();
}

void RecorderCore::setSerial(const std::string& serial)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_header.serialNumber = serial;
    markHeaderLocked();
}

void RecorderCore::setEndpoints(const unsigned char (&endpoints)[5])
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::memcpy(m_header.endpoints, endpoints, sizeof endpoints);
    markHeaderLocked();
}

void RecorderCore::setAbility(const DeviceAbilityInfo& ability)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_header.ability = ability;
    m_header.abilityKnown = true;
    markHeaderLocked();
}

// Writes the header in place at the start of the file; only the thread that owns the file
// (open, then the writer) calls it.
void RecorderCore::writeHeader()
{
    char h[kRecordingHeaderSize] = {};
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_headerDirty = false;
        std::memcpy(h, kMagic, sizeof kMagic);
        putLE(h + 8, static_cast<std::uint32_t>(kRecordingHeaderSize), 4);
        putLE(h + 12, m_header.link, 4);
        putText(h + 16, 32, m_header.libraryVersion);
        putText(h + 48, 32, m_header.serialNumber);
        putLE(h + 80, m_header.abilityKnown ? 1 : 0, 4);
        std::uint32_t words[12];
        std::memcpy(words, &m_header.ability, sizeof words);
        for (int i = 0; i < 12; ++i)
            putLE(h + 84 + 4 * i, words[i], 4);
        std::memcpy(h + 132, m_header.endpoints, sizeof m_header.endpoints);
    }
    const long end = std::ftell(m_file);
    std::fseek(m_file, 0, SEEK_SET);
    std::fwrite(h, 1, sizeof h, m_file);
    if (end > 0)
        std::fseek(m_file, end, SEEK_SET);
}

void RecorderCore::writerLoop()
{
    // The disk gets what the stream leaves of the processor: a writer that falls behind
    // only fills the queue, and what does not fit is counted, never waited for.
    zt::thread::yieldToOthers();
    std::unique_lock<std::mutex> lock(m_mutex);
    bool failed = false;
    bool reported = false;
    for (;;) {
        m_writerWaiting = true;
        m_wake.wait_for(lock, std::chrono::milliseconds(kWriterPeriodMs),
                        [&] { return m_head - m_tail >= m_capacity / 8 || m_headerDirty || m_stop; });
        m_writerWaiting = false;
        const std::uint64_t tail = m_tail;
        const std::uint64_t head = m_head;
        const bool header = m_headerDirty;
        if (head == tail && !header && m_stop)
            break;
        lock.unlock();
        // The bytes between tail and head stay put until the tail moves past them.
        std::size_t left = static_cast<std::size_t>(head - tail);
        std::size_t at = static_cast<std::size_t>(tail % m_capacity);
        while (left > 0 && !failed) {
            const std::size_t n = std::min(left, m_capacity - at);
            failed = std::fwrite(m_ring.get() + at, 1, n, m_file) != n;
            left -= n;
            at = 0;
        }
        if (header && !failed)
            writeHeader();
        if (failed && !reported) {
            ZTLOG_ERROR("ztRecorder: writing the recording failed; the file ends at its last whole record");
            reported = true;
        }
        lock.lock();
        m_tail = head;
    }
    m_writerWaiting = false;
    if (m_pendingLost > 0) {
        // The last records lost are noted at the end.
        char head[kRecordHeaderSize + 8] = {};
        putLE(head, sizeof head, 4);
        head[4] = static_cast<char>(ztRecorder::NotRecorded);
        putLE(head + 8, static_cast<std::uint32_t>(std::min<std::uint64_t>(m_pendingLost, INT32_MAX)), 4);
        putLE(head + 16, static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                                         std::chrono::steady_clock::now() - m_origin)
                                                         .count()), 8);
        putLE(head + kRecordHeaderSize, m_pendingLostBytes, 8);
        m_pendingLost = m_pendingLostBytes = 0;
        lock.unlock();
        if (!failed)
            std::fwrite(head, 1, sizeof head, m_file);
        lock.lock();
    }
    lock.unlock();
    if (!failed)
        writeHeader();
}

} // namespace zt

ztRecorder::ztRecorder(std::size_t queueBytes) : m_core(std::make_unique<zt::RecorderCore>(queueBytes)) {}

ztRecorder::~ztRecorder() = default;

int ztRecorder::open(const std::string& path)
{
    return m_core->open(path);
}

void ztRecorder::close()
{
    m_core->close();
}

bool ztRecorder::isOpen() const
{
    return m_core->isOpen();
}

ztRecorder::Stats ztRecorder::stats() const
{
    return m_core->stats();
}

int ztRecorder::load(const std::string& path, Contents& out)
{
    using namespace zt;
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    const std::streamoff length = in ? static_cast<std::streamoff>(in.tellg()) : -1;
    std::vector<char> file(length > 0 ? static_cast<std::size_t>(length) : 0);
    if (length < 0 || !in.seekg(0) || !in.read(file.data(), static_cast<std::streamsize>(file.size()))) {
        ZTLOG_ERROR("ztRecorder::[load] cannot read %s", path.c_str());
        return -1;
    }
    if (file.size() < kRecordingHeaderSize || std::memcmp(file.data(), kMagic, sizeof kMagic) != 0 ||
        getU32(file.data() + 8) < kRecordingHeaderSize || getU32(file.data() + 8) > file.size()) {
        ZTLOG_ERROR("ztRecorder::[load] %s is no recording", path.c_str());
        return -1;
    }
    const char* h = file.data();
    out = Contents();
    const std::uint32_t link = getU32(h + 12);
    out.header.link = link == NetworkLink || link == UsbLink ? static_cast<Link>(link) : UnknownLink;
    out.header.libraryVersion = getText(h + 16, 32);
    out.header.serialNumber = getText(h + 48, 32);
    out.header.abilityKnown = getU32(h + 80) != 0;
    std::uint32_t words[12];
    for (int i = 0; i < 12; ++i)
        words[i] = getU32(h + 84 + 4 * i);
    std::memcpy(&out.header.ability, words, sizeof words);
    std::memcpy(out.header.endpoints, h + 132, sizeof out.header.endpoints);

    std::size_t at = getU32(h + 8);
    while (at < file.size()) {
        const std::size_t left = file.size() - at;
        const char* r = file.data() + at;
        const std::uint32_t size = left >= 4 ? getU32(r) : 0;
        const auto kind = left >= kRecordHeaderSize ? static_cast<unsigned char>(r[4]) : 0;
        const std::uint32_t aux = left >= kRecordHeaderSize ? getU32(r + 12) : 0;
        if (left < kRecordHeaderSize || size < kRecordHeaderSize || size > left || kind < BytesIn ||
            kind > NotRecorded || aux > size - kRecordHeaderSize) {
            out.cut = true;
            break;
        }
        Record rec;
        rec.kind = static_cast<Kind>(kind);
        rec.channel = static_cast<unsigned char>(r[5]);
        rec.status = static_cast<int>(getU32(r + 8));
        rec.requestSize = rec.kind == Command ? aux : 0;
        rec.timeNs = getLE(r + 16, 8);
        rec.bytes.assign(r + kRecordHeaderSize, r + size);
        out.records.push_back(std::move(rec));
        at += size;
    }
    return 0;
}
