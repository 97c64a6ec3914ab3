#include "ztSimUsbHead.h"

#include "ztSimNetworkHead.h"

#include "platform/le_bytes.h"

#include <fcntl.h>
#include <libusb.h>
#include <linux/ioctl.h>
#include <linux/usbdevice_fs.h>
#include <sys/stat.h>
#include <umockdev.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace {

using zt::getLE;
using zt::putLE;
using Clock = std::chrono::steady_clock;

constexpr char kDevNode[] = "/dev/bus/usb/001/001";
// A size field above this cannot come from a host; the bytes held are then dropped.
constexpr std::uint32_t kMaxMessageSize = 128u << 20;
constexpr std::size_t kMaxKeptRequests = 65536;
// The emulator shares the host's address space, so bulk data is copied straight from and to
// the host's transfer buffers: umockdev's copy-through-socket path costs a factor of several
// in throughput. ThreadSanitizer cannot see the hand-over through umockdev's socket and
// would report those copies as races, so its builds take the copy path.
#if defined(__SANITIZE_THREAD__)
constexpr bool kDirectMemory = false;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kDirectMemory = false;
#else
constexpr bool kDirectMemory = true;
#endif
#else
constexpr bool kDirectMemory = true;
#endif
// A rate-limited stream hands out what its rate allows at this interval.
constexpr auto kStreamTick = std::chrono::milliseconds(1);

// String descriptor: length, type 3, the text in UTF-16LE.
std::vector<unsigned char> stringDescriptor(const char* text)
{
    std::vector<unsigned char> d{0, 3};
    for (const char* c = text; *c; ++c) {
        d.push_back(static_cast<unsigned char>(*c));
        d.push_back(0);
    }
    d[0] = static_cast<unsigned char>(d.size());
    return d;
}

// Index of an IN endpoint's transfer queue: stream, control, event.
int inIndex(unsigned char ep)
{
    switch (ep) {
    case ztSimUsbHead::kStreamIn: return 0;
    case ztSimUsbHead::kCtrlIn: return 1;
    case ztSimUsbHead::kEventIn: return 2;
    default: return -1;
    }
}

} // namespace

struct ztSimUsbHead::Impl {
    struct Reply {
        enum Kind { Status, Echo, None, Raw } kind = Status;
        int status = 0;
        std::vector<char> bytes;
        std::vector<std::vector<char>> pieces;
    };

    // One URB submitted by a client. urb and buf are umockdev's local copies of the
    // client's usbdevfs_urb and its buffer, written back to the client when the URB is
    // reaped; we hold one reference on each. umockdev reads them on its worker thread, so
    // only that thread touches them: the device model fills `out` (or the client's buffer
    // itself, `direct`) and sets status and actual, and reap() copies them over.
    struct Urb {
        UMockdevIoctlData* urb = nullptr;
        UMockdevIoctlData* buf = nullptr;
        char* direct = nullptr;
        UMockdevIoctlClient* client = nullptr;
        unsigned long addr = 0;
        unsigned char endpoint = 0;
        unsigned char type = 0;
        int length = 0;
        int status = 0;
        int actual = 0;
        std::vector<char> out;
        usbdevfs_urb* fields() const { return reinterpret_cast<usbdevfs_urb*>(urb->data); }
        // Where up to n bytes of IN data go.
        char* fill(std::size_t n)
        {
            if (direct)
                return direct;
            out.resize(n);
            return out.data();
        }
        void filled(std::size_t n)
        {
            if (!direct)
                out.resize(n);
        }
        void release()
        {
            if (buf)
                g_object_unref(buf);
            if (urb)
                g_object_unref(urb);
            buf = urb = nullptr;
        }
    };

    // Bytes waiting for IN transfers: each entry goes out in completions of its own.
    struct PieceQueue {
        std::deque<std::vector<char>> pieces;
        std::size_t offset = 0; // into the front piece
        bool empty() const { return pieces.empty(); }
        void clear()
        {
            pieces.clear();
            offset = 0;
        }
        // Copies up to n bytes of the front piece to dst; returns the count.
        std::size_t take(char* dst, std::size_t n)
        {
            std::vector<char>& f = pieces.front();
            std::size_t k = std::min(n, f.size() - offset);
            if (k > 0)
                std::memcpy(dst, f.data() + offset, k);
            offset += k;
            if (offset >= f.size()) {
                pieces.pop_front();
                offset = 0;
            }
            return k;
        }
    };

    mutable std::mutex m;
    std::condition_variable cv;

    UMockdevTestbed* testbed = nullptr;
    UMockdevIoctlBase* handler = nullptr;
    std::string root;
    // The device node is a FIFO that we keep full while nothing is ready to reap, so that
    // libusb's poll() for POLLOUT sleeps, and drain while something is, so that it wakes.
    int fifo = -1;
    bool fifoDrained = false;
    bool started = false;

    bool answerHeartbeats = true;
    bool silent = false;
    bool failing = false;
    int failErrno = EPROTO;
    bool unplugged = false;
    unsigned generation = 0;
    std::map<UMockdevIoctlClient*, unsigned> clients;

    std::map<unsigned short, Reply> replies;
    Answerer answerer;
    ztSimDevice device; // answers what the reply table does not cover; locks itself
    std::deque<Request> requests;
    int heartbeats = 0;
    int bad = 0;
    std::vector<char> outBuffer[2]; // control OUT, heartbeat OUT

    PieceQueue ctrlQ, eventQ, streamQ;
    std::size_t streamQueued = 0;

    // The running stream: unit repeated count times (0: endless) at rate bytes/s (0: any).
    std::vector<char> unit;
    std::size_t unitCount = 0;
    std::size_t unitOffset = 0;
    double rate = 0;
    bool streaming = false;
    Clock::time_point streamStart;
    std::size_t streamed = 0;
    std::thread streamThread;
    bool streamStop = false;

    std::deque<Urb> pending[3]; // IN transfers waiting for data, per inIndex
    std::deque<Urb> ready;      // completed, waiting to be reaped
    std::size_t submitted = 0;

    // --- with m held -------------------------------------------------------------------

    void updateFifo()
    {
        if (fifo < 0)
            return;
        if (!ready.empty() && !fifoDrained) {
            char scratch[4096];
            while (::read(fifo, scratch, sizeof scratch) > 0) {
            }
            fifoDrained = true;
        } else if (ready.empty() && fifoDrained) {
            // With a one-page pipe one byte fills it: no longer writable.
            char one = 0;
            if (::write(fifo, &one, 1) == 1 || errno == EAGAIN)
                fifoDrained = false;
        }
    }

    void finish(Urb& u, int status, int actual)
    {
        u.status = status;
        u.actual = actual;
        ready.push_back(std::move(u));
    }

    bool isDead(UMockdevIoctlClient* c)
    {
        if (!started)
            return true;
        auto it = clients.find(c);
        if (it == clients.end())
            it = clients.emplace(c, generation).first;
        return unplugged || it->second != generation;
    }

    std::size_t streamAvailable(Clock::time_point now) const
    {
        if (!streaming || unit.empty())
            return 0;
        std::size_t left = SIZE_MAX;
        if (unitCount > 0)
            left = unitCount * unit.size() - streamed;
        if (rate > 0) {
            double allowed = rate * std::chrono::duration<double>(now - streamStart).count();
            std::size_t a = allowed > double(SIZE_MAX / 2) ? SIZE_MAX / 2 : static_cast<std::size_t>(allowed);
            left = std::min(left, a > streamed ? a - streamed : 0);
        }
        return left;
    }

    std::size_t takeStream(char* dst, std::size_t n)
    {
        std::size_t done = 0;
        while (done < n) {
            std::size_t k = std::min(n - done, unit.size() - unitOffset);
            std::memcpy(dst + done, unit.data() + unitOffset, k);
            done += k;
            unitOffset = (unitOffset + k) % unit.size();
        }
        streamed += n;
        if (unitCount > 0 && streamed >= unitCount * unit.size()) {
            streaming = false;
            cv.notify_all();
        }
        return n;
    }

    // Hands queued data to the pending IN transfers of one endpoint.
    void serve(int idx)
    {
        std::deque<Urb>& q = pending[idx];
        bool any = false;
        while (!q.empty()) {
            Urb& u = q.front();
            if (failing) {
                finish(u, -failErrno, 0);
            } else if (idx == 0) {
                std::size_t gen = streamAvailable(Clock::now());
                if (streamQueued == 0 && gen == 0)
                    break;
                std::size_t n = 0, cap = static_cast<std::size_t>(u.length);
                char* dst = u.fill(cap);
                while (n < cap && !streamQ.empty()) {
                    std::size_t k = streamQ.take(dst + n, cap - n);
                    n += k;
                    streamQueued -= k;
                }
                if (n < cap && gen > 0)
                    n += takeStream(dst + n, std::min(cap - n, gen));
                u.filled(n);
                finish(u, 0, static_cast<int>(n));
            } else {
                PieceQueue& pq = idx == 1 ? ctrlQ : eventQ;
                if (silent || pq.empty())
                    break;
                std::size_t cap = static_cast<std::size_t>(u.length);
                std::size_t n = cap > 0 ? pq.take(u.fill(cap), cap) : 0;
                u.filled(n);
                finish(u, 0, static_cast<int>(n));
            }
            q.pop_front();
            any = true;
        }
        if (any) {
            updateFifo();
            cv.notify_all();
        }
    }

    void serveAll()
    {
        for (int i = 0; i < 3; ++i)
            serve(i);
    }

    // Queues the reply to one request: from the reply table, or else the device's.
    void reply(const char* msg, std::size_t size)
    {
        if (silent)
            return;
        const auto type = static_cast<unsigned short>(getLE(msg + 5, 2));
        const char* payload = msg + 7;
        const std::size_t n = size - 8;
        const auto it = replies.find(type);
        std::vector<char> decided;
        if (answerer && answerer(kCtrlOut, msg, size, decided)) {
            if (!decided.empty())
                ctrlQ.pieces.push_back(std::move(decided));
        } else if (it == replies.end()) {
            // The device's reply goes out as one completion.
            if (std::vector<char> answer = device.answer(type, payload, n); !answer.empty())
                ctrlQ.pieces.push_back(std::move(answer));
        } else {
            const Reply& r = it->second;
            switch (r.kind) {
            case Reply::Status: ctrlQ.pieces.push_back(statusMessage(r.status)); break;
            case Reply::Echo: ctrlQ.pieces.push_back(message(type, r.bytes.data(), r.bytes.size())); break;
            case Reply::None: break;
            case Reply::Raw:
                for (auto& p : r.pieces)
                    if (!p.empty())
                        ctrlQ.pieces.push_back(p);
                break;
            }
        }
        serve(1);
    }

    // Bytes written to control OUT (which = 0) or heartbeat OUT (1): cut into messages.
    void received(int which, const char* p, std::size_t n)
    {
        std::vector<char>& b = outBuffer[which];
        b.insert(b.end(), p, p + n);
        std::size_t pos = 0;
        while (b.size() - pos >= 5) {
            std::uint32_t size = static_cast<std::uint32_t>(getLE(&b[pos + 1], 4));
            if (size < 8 || size > kMaxMessageSize) {
                ++bad;
                pos = b.size();
                break;
            }
            if (b.size() - pos < size)
                break;
            const char* msg = &b[pos];
            pos += size;
            unsigned char head = static_cast<unsigned char>(msg[0]);
            if ((head != 0xAA && head != 0xCC) || static_cast<unsigned char>(msg[size - 1]) != 0xBB) {
                ++bad;
                continue;
            }
            unsigned short type = static_cast<unsigned short>(getLE(msg + 5, 2));
            if (which == 1) {
                if (type == kHeartbeatType) {
                    ++heartbeats;
                    std::vector<char> beat;
                    const bool decided = !silent && answerer && answerer(kHeartbeatOut, msg, size, beat);
                    if (!decided && answerHeartbeats && !silent)
                        beat = message(kHeartbeatType, nullptr, 0);
                    if (!beat.empty()) {
                        eventQ.pieces.push_back(std::move(beat));
                        serve(2);
                    }
                    cv.notify_all();
                }
                continue;
            }
            if (requests.size() >= kMaxKeptRequests)
                requests.pop_front();
            requests.push_back({type, std::vector<char>(msg + 7, msg + size - 1)});
            cv.notify_all();
            reply(msg, size);
        }
        b.erase(b.begin(), b.begin() + static_cast<std::ptrdiff_t>(pos));
    }

    // A control transfer on endpoint 0 (setup: the first 8 bytes of its buffer): the
    // standard descriptor requests; everything else stalls. Returns the data length, or -1
    // for a stall.
    int control(Urb& u, const char* setup)
    {
        if (u.length < 8 || !setup)
            return -1;
        const unsigned char* s = reinterpret_cast<const unsigned char*>(setup);
        unsigned requestType = s[0], request = s[1], value = s[2] | (s[3] << 8), length = s[6] | (s[7] << 8);
        if (requestType != 0x80 || request != 6 /* GET_DESCRIPTOR */)
            return -1;
        std::vector<unsigned char> all = descriptors(), d;
        switch (value >> 8) {
        case 1: d.assign(all.begin(), all.begin() + 18); break;
        case 2: d.assign(all.begin() + 18, all.end()); break;
        case 3:
            switch (value & 0xff) {
            case 0: d = {4, 3, 0x09, 0x04}; break;
            case 1: d = stringDescriptor("ztProxyProtocol"); break;
            case 2: d = stringDescriptor("ztSim USB3 head"); break;
            case 3: d = stringDescriptor(kSerialNumber); break;
            default: return -1;
            }
            break;
        default: return -1;
        }
        std::size_t n = std::min<std::size_t>({d.size(), length, static_cast<std::size_t>(u.length - 8)});
        if (u.direct)
            std::memcpy(u.direct + 8, d.data(), n);
        else
            u.out.assign(d.begin(), d.begin() + static_cast<std::ptrdiff_t>(n));
        return static_cast<int>(n);
    }

    // Takes every URB of one client (or all) out of the queues.
    void collect(UMockdevIoctlClient* c, std::vector<Urb>& out)
    {
        auto take = [&](std::deque<Urb>& q) {
            for (auto it = q.begin(); it != q.end();) {
                if (!c || it->client == c) {
                    out.push_back(std::move(*it));
                    it = q.erase(it);
                } else {
                    ++it;
                }
            }
        };
        for (auto& q : pending)
            take(q);
        take(ready);
        updateFifo();
    }

    // --- umockdev's worker thread ------------------------------------------------------

    static void complete(UMockdevIoctlClient* client, long result, int err)
    {
        umockdev_ioctl_client_complete(client, result, err);
    }

    gboolean ioctl(UMockdevIoctlClient* client)
    {
        const gulong request = umockdev_ioctl_client_get_request(client);
        UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
        bool dead;
        {
            std::lock_guard<std::mutex> lock(m);
            dead = isDead(client);
        }

        switch (request) {
        case USBDEVFS_GET_CAPABILITIES: {
            if (dead)
                break;
            UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(std::uint32_t), nullptr);
            if (!d) {
                complete(client, -1, EFAULT);
                return TRUE;
            }
            // One transfer is one URB of any length.
            std::uint32_t caps = USBDEVFS_CAP_BULK_SCATTER_GATHER | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                 USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
            std::memcpy(d->data, &caps, sizeof caps);
            complete(client, 0, 0);
            g_object_unref(d);
            return TRUE;
        }
        case USBDEVFS_CLAIMINTERFACE:
        case USBDEVFS_RELEASEINTERFACE: {
            if (dead)
                break;
            UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(unsigned int), nullptr);
            unsigned int iface = UINT_MAX;
            if (d)
                std::memcpy(&iface, d->data, sizeof iface);
            complete(client, iface == static_cast<unsigned>(kInterface) ? 0 : -1,
                     iface == static_cast<unsigned>(kInterface) ? 0 : EINVAL);
            if (d)
                g_object_unref(d);
            return TRUE;
        }
        case USBDEVFS_CLEAR_HALT:
        case USBDEVFS_RESET:
        case USBDEVFS_RESETEP:
        case USBDEVFS_SETINTERFACE:
        case USBDEVFS_SETCONFIGURATION:
            if (dead)
                break;
            complete(client, 0, 0);
            return TRUE;
        case USBDEVFS_GETDRIVER:
        case USBDEVFS_IOCTL:
            // No kernel driver is bound to the interface.
            if (dead)
                break;
            complete(client, -1, ENODATA);
            return TRUE;
        case USBDEVFS_CONNECTINFO: {
            if (dead)
                break;
            UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_connectinfo), nullptr);
            if (d) {
                usbdevfs_connectinfo info{1, 0};
                std::memcpy(d->data, &info, sizeof info);
            }
            complete(client, d ? 0 : -1, d ? 0 : EFAULT);
            if (d)
                g_object_unref(d);
            return TRUE;
        }
        case USBDEVFS_SUBMITURB:
            if (dead)
                break;
            submit(client, arg);
            return TRUE;
        case USBDEVFS_REAPURB:
        case USBDEVFS_REAPURBNDELAY:
            reap(client, arg, dead);
            return TRUE;
        case USBDEVFS_DISCARDURB:
            discard(client, arg, dead);
            return TRUE;
        default:
            complete(client, -1, dead ? ENODEV : ENOTTY);
            return TRUE;
        }
        complete(client, -1, ENODEV);
        return TRUE;
    }

    void submit(UMockdevIoctlClient* client, UMockdevIoctlData* arg)
    {
        // The client's memory is read here, before the lock, as it costs a round trip.
        Urb u;
        u.client = client;
        u.urb = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr);
        if (!u.urb) {
            complete(client, -1, EFAULT);
            return;
        }
        u.addr = u.urb->client_addr;
        u.endpoint = u.fields()->endpoint;
        u.length = u.fields()->buffer_length;
        const unsigned char type = u.type = u.fields()->type;
        if (u.length < 0 || (type != USBDEVFS_URB_TYPE_BULK && type != USBDEVFS_URB_TYPE_CONTROL) ||
            (type == USBDEVFS_URB_TYPE_BULK && u.endpoint != kCtrlOut && u.endpoint != kHeartbeatOut &&
             inIndex(u.endpoint) < 0)) {
            u.release();
            complete(client, -1, type == USBDEVFS_URB_TYPE_BULK ? ENOENT : EINVAL);
            return;
        }
        if (u.length > 0 && kDirectMemory) {
            u.direct = static_cast<char*>(u.fields()->buffer);
        } else if (u.length > 0) {
            u.buf = umockdev_ioctl_data_resolve(u.urb, offsetof(usbdevfs_urb, buffer), static_cast<gsize>(u.length),
                                                nullptr);
            if (!u.buf) {
                u.release();
                complete(client, -1, EFAULT);
                return;
            }
        }
        {
            std::lock_guard<std::mutex> lock(m);
            if (isDead(client)) {
                u.release();
                complete(client, -1, ENODEV);
                return;
            }
            ++submitted;
            const char* data = u.direct ? u.direct : u.buf ? reinterpret_cast<const char*>(u.buf->data) : nullptr;
            if (type == USBDEVFS_URB_TYPE_CONTROL) {
                int n = control(u, data);
                finish(u, n < 0 ? -EPIPE : 0, n < 0 ? 0 : n);
            } else if (u.endpoint == kCtrlOut || u.endpoint == kHeartbeatOut) {
                if (data)
                    received(u.endpoint == kCtrlOut ? 0 : 1, data, static_cast<std::size_t>(u.length));
                finish(u, 0, u.length);
            } else {
                int idx = inIndex(u.endpoint);
                pending[idx].push_back(std::move(u));
                serve(idx);
                cv.notify_all();
            }
            updateFifo();
        }
        complete(client, 0, 0);
    }

    void reap(UMockdevIoctlClient* client, UMockdevIoctlData* arg, bool dead)
    {
        Urb u;
        bool found = false;
        {
            std::lock_guard<std::mutex> lock(m);
            for (auto it = ready.begin(); it != ready.end(); ++it) {
                if (it->client == client) {
                    u = std::move(*it);
                    ready.erase(it);
                    found = true;
                    break;
                }
            }
            updateFifo();
        }
        if (!found) {
            // Never blocks: the host only asks once poll() said something is ready.
            complete(client, -1, dead ? ENODEV : EAGAIN);
            return;
        }
        UMockdevIoctlData* ptr = umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr);
        if (!ptr) {
            u.release();
            complete(client, -1, EFAULT);
            return;
        }
        u.fields()->status = u.status;
        u.fields()->actual_length = u.actual;
        if (u.buf && !u.out.empty()) {
            const std::size_t at = u.type == USBDEVFS_URB_TYPE_CONTROL ? 8 : 0;
            std::memcpy(static_cast<char*>(static_cast<void*>(u.buf->data)) + at, u.out.data(),
                        std::min(u.out.size(), static_cast<std::size_t>(u.length) - at));
        }
        // The caller's pointer now names its URB; umockdev writes the URB and its buffer
        // back when the ioctl completes.
        umockdev_ioctl_data_set_ptr(ptr, 0, u.urb);
        complete(client, 0, 0);
        g_object_unref(ptr);
        u.release();
    }

    void discard(UMockdevIoctlClient* client, UMockdevIoctlData* arg, bool dead)
    {
        unsigned long addr = 0;
        std::memcpy(&addr, arg->data, std::min<std::size_t>(sizeof addr, static_cast<std::size_t>(arg->data_len)));
        bool found = false;
        {
            std::lock_guard<std::mutex> lock(m);
            for (auto& q : pending) {
                for (auto it = q.begin(); it != q.end(); ++it) {
                    if (it->client == client && it->addr == addr) {
                        // A cancelled URB is reaped later with -ENOENT.
                        it->out.clear();
                        finish(*it, -ENOENT, 0);
                        q.erase(it);
                        found = true;
                        break;
                    }
                }
                if (found)
                    break;
            }
            updateFifo();
        }
        if (found)
            complete(client, 0, 0);
        else
            complete(client, -1, dead ? ENODEV : EINVAL);
    }

    void clientConnected(UMockdevIoctlClient* c)
    {
        std::lock_guard<std::mutex> lock(m);
        clients[c] = generation;
    }

    void clientVanished(UMockdevIoctlClient* c)
    {
        std::vector<Urb> gone;
        {
            std::lock_guard<std::mutex> lock(m);
            clients.erase(c);
            collect(c, gone);
            cv.notify_all();
        }
        for (auto& u : gone)
            u.release();
    }

    static gboolean onIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self)
    {
        return static_cast<Impl*>(self)->ioctl(client);
    }
    static void onConnected(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self)
    {
        static_cast<Impl*>(self)->clientConnected(client);
    }
    static void onVanished(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self)
    {
        static_cast<Impl*>(self)->clientVanished(client);
    }

    // --- the rate-limited stream -------------------------------------------------------

    void streamLoop()
    {
        std::unique_lock<std::mutex> lock(m);
        while (!streamStop && streaming) {
            serve(0);
            cv.wait_for(lock, kStreamTick);
        }
    }

    void endStream(std::unique_lock<std::mutex>& lock)
    {
        streamStop = true;
        streaming = false;
        cv.notify_all();
        if (streamThread.joinable()) {
            lock.unlock();
            streamThread.join();
            lock.lock();
        }
        streamStop = false;
    }
};

ztSimUsbHead::ztSimUsbHead() : m_impl(std::make_unique<Impl>()) {}

ztSimUsbHead::~ztSimUsbHead()
{
    stop();
}

bool ztSimUsbHead::emulationAvailable()
{
    // umockdev answers this once and keeps the answer, and the preload only shows itself
    // while a test bed exists: ask with one in place.
    static std::once_flag once;
    static bool available = false;
    std::call_once(once, [] {
        UMockdevTestbed* probe = umockdev_testbed_new();
        available = umockdev_in_mock_environment();
        g_object_unref(probe);
    });
    return available;
}

std::vector<unsigned char> ztSimUsbHead::descriptors()
{
    std::vector<unsigned char> d = {
        // Device: USB 3.0, class per interface, 512-byte control packets, strings 1-3.
        18, 1, 0x00, 0x03, 0, 0, 0, 9, 0, 0, 0, 0, 0x00, 0x01, 1, 2, 3, 1,
        // Configuration 1: one interface, self powered.
        9, 2, 0, 0, 1, 1, 0, 0xC0, 0,
        // Interface 0: five bulk endpoints, vendor class.
        9, 4, 0, 0, 5, 0xFF, 0, 0, 0};
    putLE(&d[8], kVendor, 2);
    putLE(&d[10], kProduct, 2);
    for (unsigned char ep : {kStreamIn, kCtrlIn, kEventIn, kCtrlOut, kHeartbeatOut}) {
        // Bulk endpoint with 1024-byte packets, then its SuperSpeed companion (burst 16).
        const unsigned char e[] = {7, 5, ep, 2, 0x00, 0x04, 0, 6, 0x30, 15, 0, 0, 0};
        d.insert(d.end(), std::begin(e), std::end(e));
    }
    putLE(&d[18 + 2], d.size() - 18, 2);
    return d;
}

int ztSimUsbHead::start()
{
    Impl& s = *m_impl;
    std::lock_guard<std::mutex> lock(s.m);
    if (s.started)
        return 0;
    if (!emulationAvailable())
        return -1;
    UMockdevTestbed* testbed = umockdev_testbed_new();
    if (!testbed)
        return -1;
    UMockdevIoctlBase* handler = umockdev_ioctl_base_new();
    g_signal_connect(handler, "handle-ioctl", G_CALLBACK(Impl::onIoctl), &s);
    g_signal_connect(handler, "client-connected", G_CALLBACK(Impl::onConnected), &s);
    g_signal_connect(handler, "client-vanished", G_CALLBACK(Impl::onVanished), &s);

    // The ioctl handler goes in before the device, so that the device never exists without it.
    std::string hex;
    char h[3];
    for (unsigned char b : descriptors()) {
        std::snprintf(h, sizeof h, "%02x", b);
        hex += h;
    }
    const std::string record = std::string("P: /devices/usb1\n"
                                           "N: bus/usb/001/001\n"
                                           "E: SUBSYSTEM=usb\n"
                                           "E: DRIVER=usb\n"
                                           "E: BUSNUM=001\n"
                                           "E: DEVNUM=001\n"
                                           "E: DEVNAME=/dev/bus/usb/001/001\n"
                                           "E: DEVTYPE=usb_device\n"
                                           "A: bConfigurationValue=1\\n\n"
                                           "A: busnum=1\\n\n"
                                           "A: devnum=1\\n\n"
                                           "A: speed=5000\\n\n"
                                           "H: descriptors=") +
                               hex + "\n";
    GError* error = nullptr;
    bool ok = umockdev_testbed_attach_ioctl(testbed, kDevNode, handler, &error) &&
              umockdev_testbed_add_from_string(testbed, record.c_str(), &error);
    if (error)
        g_error_free(error);
    int fifo = -1;
    std::string root;
    if (ok) {
        gchar* r = umockdev_testbed_get_root_dir(testbed);
        root = r;
        g_free(r);
        // Replace the node (a regular file, always writable) by a FIFO whose writability
        // tells libusb when a URB is ready.
        const std::string node = root + kDevNode;
        ::unlink(node.c_str());
        ok = ::mkfifo(node.c_str(), 0666) == 0 &&
             (fifo = ::open(node.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)) >= 0;
        if (ok)
            ::fcntl(fifo, F_SETPIPE_SZ, 4096);
    }
    if (!ok) {
        if (fifo >= 0)
            ::close(fifo);
        umockdev_testbed_detach_ioctl(testbed, kDevNode, nullptr);
        g_signal_handlers_disconnect_by_data(handler, &s);
        g_object_unref(handler);
        g_object_unref(testbed);
        return -1;
    }
    s.testbed = testbed;
    s.handler = handler;
    s.root = root;
    s.fifo = fifo;
    s.fifoDrained = true;
    s.started = true;
    s.unplugged = false;
    ++s.generation;
    s.updateFifo();
    return 0;
}

void ztSimUsbHead::stop()
{
    Impl& s = *m_impl;
    std::vector<Impl::Urb> gone;
    UMockdevTestbed* testbed;
    UMockdevIoctlBase* handler;
    {
        std::unique_lock<std::mutex> lock(s.m);
        s.endStream(lock);
        if (!s.started)
            return;
        s.started = false;
        s.collect(nullptr, gone);
        s.clients.clear();
        if (s.fifo >= 0)
            ::close(s.fifo);
        s.fifo = -1;
        testbed = s.testbed;
        handler = s.handler;
        s.testbed = nullptr;
        s.handler = nullptr;
        s.cv.notify_all();
    }
    umockdev_testbed_detach_ioctl(testbed, kDevNode, nullptr);
    g_object_unref(testbed);
    g_signal_handlers_disconnect_by_data(handler, &s);
    g_object_unref(handler);
    for (auto& u : gone)
        u.release();
}

std::string ztSimUsbHead::devicePath() const
{
    return kDevNode;
}

libusb_device_handle* ztSimUsbHead::openEmulated(libusb_context** ctx)
{
    *ctx = nullptr;
    if (libusb_init(ctx) != 0) {
        *ctx = nullptr;
        return nullptr;
    }
    libusb_device_handle* h = libusb_open_device_with_vid_pid(*ctx, kVendor, kProduct);
    if (h && libusb_claim_interface(h, kInterface) != 0) {
        libusb_close(h);
        h = nullptr;
    }
    if (!h) {
        libusb_exit(*ctx);
        *ctx = nullptr;
    }
    return h;
}

void ztSimUsbHead::closeEmulated(libusb_device_handle* handle, libusb_context* ctx)
{
    if (handle) {
        libusb_release_interface(handle, kInterface);
        libusb_close(handle);
    }
    if (ctx)
        libusb_exit(ctx);
}

void ztSimUsbHead::setAnswerHeartbeats(bool on)
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    m_impl->answerHeartbeats = on;
}

void ztSimUsbHead::setSilent(bool on)
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    m_impl->silent = on;
    m_impl->serveAll();
}

void ztSimUsbHead::failTransfers(bool on, int errorNumber)
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    m_impl->failing = on;
    m_impl->failErrno = errorNumber > 0 ? errorNumber : EPROTO;
    m_impl->serveAll();
}

void ztSimUsbHead::unplug()
{
    Impl& s = *m_impl;
    std::lock_guard<std::mutex> lock(s.m);
    if (s.unplugged)
        return;
    s.unplugged = true;
    for (auto& q : s.pending) {
        for (auto& u : q)
            s.finish(u, -ESHUTDOWN, 0);
        q.clear();
    }
    s.updateFifo();
    s.cv.notify_all();
}

void ztSimUsbHead::replug()
{
    Impl& s = *m_impl;
    std::lock_guard<std::mutex> lock(s.m);
    if (!s.unplugged)
        return;
    s.unplugged = false;
    ++s.generation;
    s.outBuffer[0].clear();
    s.outBuffer[1].clear();
}

bool ztSimUsbHead::isUnplugged() const
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    return m_impl->unplugged;
}

void ztSimUsbHead::setStatusReply(unsigned short type, int status)
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    m_impl->replies[type] = {Impl::Reply::Status, status, {}, {}};
}

void ztSimUsbHead::setEchoReply(unsigned short type, std::vector<char> payload)
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    m_impl->replies[type] = {Impl::Reply::Echo, 0, std::move(payload), {}};
}

void ztSimUsbHead::setAnswerer(Answerer answerer)
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    m_impl->answerer = std::move(answerer);
}

void ztSimUsbHead::setNoReply(unsigned short type)
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    m_impl->replies[type] = {Impl::Reply::None, 0, {}, {}};
}

void ztSimUsbHead::setRawReply(unsigned short type, std::vector<std::vector<char>> pieces)
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    m_impl->replies[type] = {Impl::Reply::Raw, 0, {}, std::move(pieces)};
}

void ztSimUsbHead::resetReplies()
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    m_impl->replies.clear();
}

ztSimDevice& ztSimUsbHead::device()
{
    return m_impl->device;
}

bool ztSimUsbHead::nextCommand(Request& out, int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_impl->m);
    if (!m_impl->cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return !m_impl->requests.empty(); }))
        return false;
    out = std::move(m_impl->requests.front());
    m_impl->requests.pop_front();
    return true;
}

void ztSimUsbHead::clearCommands()
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    m_impl->requests.clear();
}

int ztSimUsbHead::heartbeatsReceived() const
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    return m_impl->heartbeats;
}

int ztSimUsbHead::badMessagesReceived() const
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    return m_impl->bad;
}

int ztSimUsbHead::pushEvent(const std::vector<char>& bytes)
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    if (!m_impl->started)
        return -1;
    if (!bytes.empty()) {
        m_impl->eventQ.pieces.push_back(bytes);
        m_impl->serve(2);
    }
    return static_cast<int>(bytes.size());
}

int ztSimUsbHead::pushControl(const std::vector<char>& bytes)
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    if (!m_impl->started)
        return -1;
    if (!bytes.empty()) {
        m_impl->ctrlQ.pieces.push_back(bytes);
        m_impl->serve(1);
    }
    return static_cast<int>(bytes.size());
}

int ztSimUsbHead::pushStream(const std::vector<char>& bytes)
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    if (!m_impl->started)
        return -1;
    if (!bytes.empty()) {
        m_impl->streamQ.pieces.push_back(bytes);
        m_impl->streamQueued += bytes.size();
        m_impl->serve(0);
    }
    return static_cast<int>(bytes.size());
}

std::size_t ztSimUsbHead::queuedStreamBytes() const
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    return m_impl->streamQueued;
}

void ztSimUsbHead::startStream(std::vector<char> unit, std::size_t count, double bytesPerSecond)
{
    Impl& s = *m_impl;
    std::unique_lock<std::mutex> lock(s.m);
    s.endStream(lock);
    s.unit = std::move(unit);
    s.unitCount = count;
    s.unitOffset = 0;
    s.rate = bytesPerSecond > 0 ? bytesPerSecond : 0;
    s.streamed = 0;
    s.streamStart = Clock::now();
    s.streaming = !s.unit.empty();
    if (!s.streaming)
        return;
    // Unlimited: transfers take stream bytes as they are submitted. Limited: a thread
    // hands out what the rate allows.
    if (s.rate > 0)
        s.streamThread = std::thread([&s] { s.streamLoop(); });
    else
        s.serve(0);
}

void ztSimUsbHead::stopStream()
{
    std::unique_lock<std::mutex> lock(m_impl->m);
    m_impl->endStream(lock);
}

std::size_t ztSimUsbHead::streamedBytes() const
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    return m_impl->streamed;
}

bool ztSimUsbHead::waitStreamDone(int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_impl->m);
    return m_impl->cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return !m_impl->streaming; });
}

std::size_t ztSimUsbHead::transfersSubmitted() const
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    return m_impl->submitted;
}

int ztSimUsbHead::pendingTransfers(unsigned char endpoint) const
{
    std::lock_guard<std::mutex> lock(m_impl->m);
    int idx = inIndex(endpoint);
    return idx < 0 ? 0 : static_cast<int>(m_impl->pending[idx].size());
}

bool ztSimUsbHead::waitPending(unsigned char endpoint, int n, int timeoutMs)
{
    int idx = inIndex(endpoint);
    if (idx < 0)
        return false;
    std::unique_lock<std::mutex> lock(m_impl->m);
    return m_impl->cv.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                               [&] { return static_cast<int>(m_impl->pending[idx].size()) >= n; });
}

std::vector<char> ztSimUsbHead::message(unsigned short type, const void* payload, std::size_t n)
{
    return ztSimNetworkHead::message(type, payload, n);
}

std::vector<char> ztSimUsbHead::statusMessage(int status)
{
    return ztSimNetworkHead::message(kStatusReplyType, &status, sizeof status);
}

std::vector<char> ztSimUsbHead::extendedPacket(unsigned short type, unsigned long long stamp, const void* payload,
                                               std::size_t n, bool goodTail)
{
    return ztSimNetworkHead::extendedPacket(type, stamp, payload, n, goodTail);
}

_ZT_USB3_DEVICE_INFO_ ztSimUsbHead::deviceInfo(unsigned int streamMaxPacket)
{
    _ZT_USB3_DEVICE_INFO_ info{};
    info.streamInEndpoint = kStreamIn;
    info.ctrlInEndpoint = kCtrlIn;
    info.ctrlOutEndpoint = kCtrlOut;
    info.eventInEndpoint = kEventIn;
    info.heartbeatOutEndpoint = kHeartbeatOut;
    info.streamMaxPacket = streamMaxPacket;
    info.ctrlMaxPacket = 16384;
    info.eventMaxPacket = 1024;
    std::strncpy(info.serialNumber, kSerialNumber, sizeof info.serialNumber - 1);
    return info;
}
