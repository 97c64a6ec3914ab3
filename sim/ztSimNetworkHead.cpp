#include "ztSimNetworkHead.h"

#include "platform/le_bytes.h"
#include "sim_socket.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace {

using zt::getU16;
using zt::getU32;
using zt::putLE;
using Clock = std::chrono::steady_clock;
using namespace zt::simnet;

// A request larger than this cannot come from a host (its largest transfer, a firmware
// image, stays well below); a size field above it means the stream is broken.
constexpr std::uint32_t kMaxMessageSize = 128u << 20;
constexpr std::size_t kMaxKeptBytes = std::size_t(64) << 20;
constexpr std::size_t kMaxKeptRequests = 65536;
constexpr std::size_t kReadBlock = 256 * 1024;
constexpr int kListenBacklog = 128;
// How long the connection before a refused one waits in the listen queue (see
// setRefuseChannel).
constexpr int kRefuseHoldMs = 150;
// A stopped stream gives up the unit it is writing when the peer takes nothing this long.
constexpr auto kStalledWrite = std::chrono::milliseconds(1000);

bool validChannel(int c)
{
    return c >= 0 && c < 4;
}

} // namespace

struct ztSimNetworkHead::Impl {
    struct Reply {
        enum Kind { Status, Echo, None, Raw } kind = Status;
        int status = 0;
        std::vector<char> bytes;
    };

    struct Conn {
        Socket fd = kNoSocket;
        Channel channel = Command;
        std::string peer;
        std::mutex writeMutex;       // one message at a time on the connection
        std::atomic<bool> closed{false};
        std::atomic<bool> finished{false}; // its reader has left and can be joined
        std::thread reader;
        ~Conn()
        {
            closeSocket(fd);
        }
        // Ends both directions; the peer sees the end of the stream and the reader wakes.
        // The descriptor stays open until the last user lets go of the connection.
        void shut()
        {
            closed = true;
            shutdownBoth(fd);
        }
    };

    Impl(const std::string& ip, int p) : bindIP(ip), port(p) {}

    // --- listening and accepting (listenFd, listenHold and plugFd belong to the accept
    // thread while it runs) ---
    bool openListener(bool hold);
    void closeListener();
    void plug();
    void unplug();
    void acceptLoop();
    void acceptOne();
    void adopt(Socket fd, const Endpoint& peer);
    int nextChannelLocked() const;
    int channelAfterLocked(int taken) const;
    void dropGonePeersLocked();
    void reap(bool all);
    // Waits until the accept thread has brought the listener in line with the settings.
    void awaitListener();

    // --- connections ---
    void readLoop(Conn* c);
    bool consume(Conn& c, std::vector<char>& held, const char* data, std::size_t n);
    bool handleMessage(Conn& c, const char* m, std::uint32_t size);
    void leave(Conn* c);
    int writeAll(Conn& c, const char* p, std::size_t n, const std::atomic<bool>* giveUp);
    std::shared_ptr<Conn> holder(int c) const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return validChannel(c) ? slots[c] : nullptr;
    }
    int send(int c, const std::vector<char>& bytes)
    {
        const auto conn = holder(c);
        return conn && !bytes.empty() ? writeAll(*conn, bytes.data(), bytes.size(), nullptr) : -1;
    }
    // Waits ms unless the head stops first; false when it stops.
    bool pause(int ms)
    {
        Wait w{stopSignal.socket(), kReadable, 0};
        return waitFor(&w, 1, ms) == 0;
    }

    // --- streaming ---
    void streamLoop(Channel ch, std::vector<char> unit, std::size_t count, double rate);
    void stopStreamLocked();

    const std::string bindIP;
    std::atomic<int> port;
    Signal stopSignal; // raised from stop() until the next start()
    Signal wakeSignal; // tells the accept thread to look at its state again
    Socket listenFd = kNoSocket;
    bool listenHold = false;
    Socket plugFd = kNoSocket; // the head's own connection that fills the listen queue
    Endpoint plugAddress{};
    std::thread acceptThread;
    std::atomic<bool> stopping{false};
    std::mutex lifeMutex; // start and stop
    bool running = false;

    ztSimDevice device; // answers what the reply table does not cover; locks itself

    mutable std::mutex mutex; // everything below
    std::condition_variable changed;
    std::shared_ptr<Conn> slots[4];
    std::vector<std::shared_ptr<Conn>> conns; // every connection whose reader is to be joined
    std::deque<Request> commands;
    std::map<unsigned short, Reply> replies;
    std::vector<char> received[4];
    ConnectionObserver observer;
    Answerer answerer;
    bool answerHeartbeats = true;
    bool silent = false;
    int refuseIndex = -1;
    bool refuseReset = false;
    int replyDelayMs = 0;
    int accepted = 0;
    int heartbeats = 0;
    int bad = 0;
    bool acceptRunning = false;
    unsigned long listenerAsked = 0;   // changes of the refusal setting ...
    unsigned long listenerApplied = 0; // ... and how many of them the listener follows
    bool streamStop = false;
    bool streamActive = false;

    std::mutex streamLife; // the stream thread object
    std::thread streamThread;
    std::atomic<bool> streamGiveUp{false};
    std::atomic<std::size_t> streamed{0};
};

// ---------------------------------------------------------------------------------------
// Listening and accepting

bool ztSimNetworkHead::Impl::openListener(bool hold)
{
    if (listenFd != kNoSocket) {
        // listen() again only changes the queue length.
        if (listenHold != hold && relisten(listenFd, hold ? 0 : kListenBacklog))
            listenHold = hold;
        return true;
    }
    const Socket fd = openTcp(true);
    if (fd == kNoSocket)
        return false;
    int bound = 0;
    // A queue of one while refusing: the connection after the one waiting in it is dropped
    // by the kernel and retried by the peer about a second later.
    if (!listenOn(fd, bindIP, port.load(), hold ? 0 : kListenBacklog, bound)) {
        closeSocket(fd);
        return false;
    }
    port = bound;
    listenFd = fd;
    listenHold = hold;
    return true;
}

void ztSimNetworkHead::Impl::closeListener()
{
    // Whatever waits in the queue, the plug included, is reset with the listener.
    closeSocket(plugFd);
    plugFd = kNoSocket;
    closeSocket(listenFd);
    listenFd = kNoSocket;
}

// Fills the listen queue (of one) with a connection of the head's own: while it waits
// there unaccepted, the kernel leaves every further connection attempt unanswered.
void ztSimNetworkHead::Impl::plug()
{
    if (plugFd != kNoSocket || listenFd == kNoSocket)
        return;
    Endpoint listening;
    if (!localEndpoint(listenFd, listening))
        return;
    if (listening.address == 0)
        listening.address = 0x7F000001; // a listener on every address is reached on loopback
    const Socket fd = openTcp(true);
    if (fd == kNoSocket)
        return;
    if (!startConnect(fd, listening) || !localEndpoint(fd, plugAddress)) {
        closeSocket(fd);
        return;
    }
    plugFd = fd;
}

void ztSimNetworkHead::Impl::unplug()
{
    if (plugFd == kNoSocket)
        return;
    // Takes everything waiting: the head's own connection is dropped, a peer that got in
    // before it is served as usual.
    for (;;) {
        Endpoint a;
        const Socket fd = acceptFrom(listenFd, a, true);
        if (fd == kNoSocket)
            break;
        if (a == plugAddress)
            closeSocket(fd);
        else
            adopt(fd, a);
    }
    closeSocket(plugFd);
    plugFd = kNoSocket;
}

// The lowest free channel, or 4 when all are taken.
int ztSimNetworkHead::Impl::nextChannelLocked() const
{
    for (int i = 0; i < 4; ++i)
        if (!slots[i])
            return i;
    return 4;
}

// The channel that a connection would take after one more has taken channel `taken`.
int ztSimNetworkHead::Impl::channelAfterLocked(int taken) const
{
    if (nextChannelLocked() == 4)
        return 1; // `taken` began a new set on its own
    for (int i = 0; i < 4; ++i)
        if (i != taken && !slots[i])
            return i;
    return 0;
}

void ztSimNetworkHead::Impl::dropGonePeersLocked()
{
    // A host closes its old connections before it opens new ones; looking here, rather
    // than waiting for the readers to notice, keeps the assignment by arrival exact.
    for (auto& s : slots)
        if (s && (s->closed || peerGone(s->fd)))
            s.reset();
}

void ztSimNetworkHead::Impl::reap(bool all)
{
    std::vector<std::shared_ptr<Conn>> done;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto it = conns.begin(); it != conns.end();) {
            if (all || (*it)->finished) {
                done.push_back(std::move(*it));
                it = conns.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& c : done)
        if (c->reader.joinable())
            c->reader.join();
}

void ztSimNetworkHead::Impl::acceptLoop()
{
    while (!stopping) {
        reap(false);
        int next = 0;
        int refuse = -1;
        bool reset = false;
        unsigned long asked = 0;
        {
            std::lock_guard<std::mutex> lock(mutex);
            dropGonePeersLocked();
            next = nextChannelLocked() % 4;
            refuse = refuseIndex;
            reset = refuseReset;
            asked = listenerAsked;
        }
        // Bring the listener in line: open (a queue of one while any refusal is set),
        // closed for a refusal by reset, or plugged for an unanswered one.
        const bool refusing = refuse >= 0 && next == refuse;
        bool listenerOk = true;
        if (!refusing) {
            unplug();
            listenerOk = openListener(refuse >= 0);
        } else if (reset) {
            closeListener();
        } else {
            listenerOk = openListener(true);
            plug();
            listenerOk = listenerOk && plugFd != kNoSocket;
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            listenerApplied = asked;
            changed.notify_all();
        }
        Wait f[3] = {{stopSignal.socket(), kReadable, 0}, {wakeSignal.socket(), kReadable, 0}, {listenFd, kReadable, 0}};
        const int n = listenFd != kNoSocket && plugFd == kNoSocket ? 3 : 2;
        // Sleeps until something happens; only a listener that could not be opened again
        // (its address briefly taken) is retried on a timer.
        if (waitFor(f, n, listenerOk ? -1 : 100) < 0)
            continue;
        if (f[0].revents)
            break;
        if (f[1].revents)
            wakeSignal.clear();
        if (n == 3 && (f[2].revents & kReadable))
            acceptOne();
    }
    closeListener();
}

void ztSimNetworkHead::Impl::awaitListener()
{
    std::unique_lock<std::mutex> lock(mutex);
    const unsigned long asked = ++listenerAsked;
    lock.unlock();
    wakeSignal.raise();
    lock.lock();
    // Bounded: the accept thread may be holding a connection back for a refusal (150 ms).
    changed.wait_for(lock, std::chrono::seconds(2), [&] { return !acceptRunning || listenerApplied >= asked; });
}

void ztSimNetworkHead::Impl::acceptOne()
{
    bool lastBeforeRefused = false;
    bool reset = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        dropGonePeersLocked();
        const int ch = nextChannelLocked() % 4;
        if (refuseIndex >= 0 && ch == refuseIndex)
            return; // refusal came in meanwhile; the loop closes or plugs the listener first
        lastBeforeRefused = refuseIndex >= 0 && channelAfterLocked(ch) == refuseIndex;
        reset = refuseReset;
    }
    if (lastBeforeRefused && !pause(kRefuseHoldMs))
        return;
    Endpoint a;
    const Socket fd = acceptFrom(listenFd, a, true);
    if (lastBeforeRefused) {
        // At once, before the next attempt's retry comes.
        if (reset)
            closeListener();
        else
            plug();
    }
    if (fd != kNoSocket)
        adopt(fd, a);
}

void ztSimNetworkHead::Impl::adopt(Socket fd, const Endpoint& a)
{
    setNoDelay(fd);
    auto conn = std::make_shared<Conn>();
    conn->fd = fd;
    conn->peer = a.text();

    std::vector<std::shared_ptr<Conn>> replaced;
    ConnectionObserver obs;
    {
        std::lock_guard<std::mutex> lock(mutex);
        dropGonePeersLocked();
        int ch = nextChannelLocked();
        if (ch == 4) { // all four taken: this one begins a new set
            for (auto& s : slots)
                replaced.push_back(std::move(s));
            ch = 0;
        }
        conn->channel = static_cast<Channel>(ch);
        slots[ch] = conn;
        conns.push_back(conn);
        ++accepted;
        obs = observer;
        changed.notify_all();
    }
    for (auto& r : replaced)
        r->shut();
    if (obs)
        obs(conn->channel, true, conn->peer);
    // Started last, so that the observer hears of the connection before its end.
    conn->reader = std::thread([this, c = conn.get()] { readLoop(c); });
}

// ---------------------------------------------------------------------------------------
// Connections

void ztSimNetworkHead::Impl::readLoop(Conn* c)
{
    std::vector<char> block(kReadBlock);
    std::vector<char> held; // bytes of a message not yet whole
    while (!c->closed) {
        Wait f[2] = {{c->fd, kReadable, 0}, {stopSignal.socket(), kReadable, 0}};
        if (waitFor(f, 2, -1) < 0) {
            if (tryAgain())
                continue;
            break;
        }
        if (f[1].revents)
            break;
        const long r = recvSome(c->fd, block.data(), block.size());
        if (r == 0)
            break;
        if (r < 0) {
            if (tryAgain())
                continue;
            break;
        }
        if (!consume(*c, held, block.data(), static_cast<std::size_t>(r)))
            break;
    }
    leave(c);
}

bool ztSimNetworkHead::Impl::consume(Conn& c, std::vector<char>& held, const char* data, std::size_t n)
{
    if (c.channel == Data || c.channel == LightPen) {
        std::lock_guard<std::mutex> lock(mutex);
        auto& kept = received[c.channel];
        const std::size_t room = kMaxKeptBytes - std::min(kept.size(), kMaxKeptBytes);
        kept.insert(kept.end(), data, data + std::min(n, room));
        changed.notify_all();
        return true;
    }
    held.insert(held.end(), data, data + n);
    std::size_t off = 0;
    bool goOn = true;
    // Messages lie back to back; the size at offset 1 says where each ends.
    while (goOn && held.size() - off >= 5) {
        const std::uint32_t size = getU32(&held[off + 1]);
        if (size < 8 || size > kMaxMessageSize) {
            // No message can be this long or this short: the stream has lost its places,
            // and nothing held can be trusted.
            off = held.size();
            std::lock_guard<std::mutex> lock(mutex);
            ++bad;
            break;
        }
        if (held.size() - off < size)
            break;
        goOn = handleMessage(c, &held[off], size);
        off += size;
    }
    held.erase(held.begin(), held.begin() + static_cast<std::ptrdiff_t>(off));
    return goOn;
}

// Answers one message cut from the command or command-data connection; false when the
// head stopped while a reply was held back.
bool ztSimNetworkHead::Impl::handleMessage(Conn& c, const char* m, std::uint32_t size)
{
    const auto head = static_cast<unsigned char>(m[0]);
    const auto tail = static_cast<unsigned char>(m[size - 1]);
    if ((head != 0xAA && head != 0xCC) || tail != 0xBB) {
        std::lock_guard<std::mutex> lock(mutex);
        ++bad;
        return true;
    }
    const std::uint16_t type = getU16(m + 5);
    if (c.channel == CommandData) {
        if (type != kHeartbeatType)
            return true; // a host sends nothing else here
        bool answer = false;
        Answerer decide;
        {
            std::lock_guard<std::mutex> lock(mutex);
            ++heartbeats;
            answer = answerHeartbeats && !silent;
            decide = silent ? nullptr : answerer;
            changed.notify_all();
        }
        std::vector<char> beat;
        if (decide && decide(CommandData, m, size, beat))
            answer = !beat.empty();
        else if (answer)
            beat = message(kHeartbeatType, nullptr, 0);
        if (answer)
            writeAll(c, beat.data(), beat.size(), nullptr);
        return true;
    }

    Reply reply;
    bool inTable = false;
    bool quiet = false;
    int delay = 0;
    Answerer decide;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (commands.size() >= kMaxKeptRequests)
            commands.pop_front();
        commands.push_back({type, std::vector<char>(m + 7, m + size - 1)});
        changed.notify_all();
        const auto it = replies.find(type);
        inTable = it != replies.end();
        if (inTable)
            reply = it->second;
        quiet = silent;
        delay = replyDelayMs;
        decide = answerer;
    }
    if (quiet)
        return true;
    // The answerer's bytes (or none) go out as a raw reply would.
    std::vector<char> decided;
    if (decide && decide(Command, m, size, decided)) {
        inTable = true;
        reply = Reply{Reply::Raw, 0, std::move(decided)};
    }
    std::vector<char> out;
    if (!inTable) {
        out = device.answer(type, m + 7, size - 8);
    } else if (reply.kind == Reply::Status) {
        char status[4];
        putLE(status, static_cast<std::uint32_t>(reply.status), 4);
        out = message(kStatusReplyType, status, sizeof status);
    } else if (reply.kind == Reply::Echo) {
        out = message(type, reply.bytes.data(), reply.bytes.size());
    } else if (reply.kind == Reply::Raw) {
        out = std::move(reply.bytes);
    }
    if (delay > 0 && !pause(delay))
        return false;
    if (!out.empty())
        writeAll(c, out.data(), out.size(), nullptr);
    return true;
}

void ztSimNetworkHead::Impl::leave(Conn* c)
{
    c->shut();
    ConnectionObserver obs;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (slots[c->channel].get() == c)
            slots[c->channel].reset();
        obs = observer;
        changed.notify_all();
    }
    wakeSignal.raise(); // a channel came free: the listener may have to open again
    if (obs)
        obs(c->channel, false, c->peer);
    c->finished = true;
}

int ztSimNetworkHead::Impl::writeAll(Conn& c, const char* p, std::size_t n, const std::atomic<bool>* giveUp)
{
    if (n > static_cast<std::size_t>(INT_MAX))
        return -1;
    std::lock_guard<std::mutex> lock(c.writeMutex);
    std::size_t sent = 0;
    auto progress = Clock::now();
    while (sent < n) {
        if (c.closed)
            return -1;
        const long r = sendSome(c.fd, p + sent, n - sent);
        if (r > 0) {
            sent += static_cast<std::size_t>(r);
            progress = Clock::now();
            continue;
        }
        if (r < 0 && tryAgain()) {
            if (giveUp && *giveUp && Clock::now() - progress > kStalledWrite)
                return -1;
            Wait f[2] = {{c.fd, kWritable, 0}, {stopSignal.socket(), kReadable, 0}};
            waitFor(f, 2, 100);
            if (f[1].revents)
                return -1;
            continue;
        }
        return -1;
    }
    return static_cast<int>(n);
}

// ---------------------------------------------------------------------------------------
// Streaming

void ztSimNetworkHead::Impl::streamLoop(Channel ch, std::vector<char> unit, std::size_t count, double rate)
{
    // The rate is kept from the moment the channel was (last) found connected, so that a
    // stream that waited for a connection does not rush to catch up.
    auto begin = Clock::now();
    double written = 0;
    std::size_t units = 0;
    std::unique_lock<std::mutex> lock(mutex);
    const bool writable = !unit.empty() && unit.size() <= static_cast<std::size_t>(INT_MAX);
    while (writable && !streamStop && (count == 0 || units < count)) {
        const std::shared_ptr<Conn> conn = slots[ch];
        if (!conn || conn->closed) {
            changed.wait(lock); // a connection, or stopStream, notifies
            begin = Clock::now();
            written = 0;
            continue;
        }
        if (rate > 0) {
            const auto due = begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(written / rate));
            if (Clock::now() < due) {
                changed.wait_until(lock, due);
                continue;
            }
        }
        lock.unlock();
        const bool whole = writeAll(*conn, unit.data(), unit.size(), &streamGiveUp) == static_cast<int>(unit.size());
        lock.lock();
        if (whole) {
            ++units;
            written += static_cast<double>(unit.size());
            streamed += unit.size();
        } else if (slots[ch] == conn && !streamStop) {
            // The connection broke but still holds the channel: wait until that is seen.
            changed.wait_for(lock, std::chrono::milliseconds(10));
        }
    }
    streamActive = false;
    changed.notify_all();
}

void ztSimNetworkHead::Impl::stopStreamLocked()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        streamStop = true;
        changed.notify_all();
    }
    streamGiveUp = true;
    if (streamThread.joinable())
        streamThread.join();
    streamGiveUp = false;
}

// ---------------------------------------------------------------------------------------
// Public interface

ztSimNetworkHead::ztSimNetworkHead(const std::string& bindIP, int port)
    : m_impl(std::make_unique<Impl>(bindIP, port))
{
}

ztSimNetworkHead::~ztSimNetworkHead()
{
    stop();
    stopStream();
}

int ztSimNetworkHead::start()
{
    Impl& m = *m_impl;
    std::lock_guard<std::mutex> life(m.lifeMutex);
    if (m.running)
        return 0;
    if (!m.stopSignal.ok() || !m.wakeSignal.ok())
        return -1;
    m.stopSignal.clear();
    m.wakeSignal.clear();
    int refuse = -1;
    {
        std::lock_guard<std::mutex> lock(m.mutex);
        refuse = m.refuseIndex;
    }
    if (!m.openListener(refuse >= 0))
        return -1;
    m.running = true;
    {
        std::lock_guard<std::mutex> lock(m.mutex);
        m.acceptRunning = true;
    }
    m.acceptThread = std::thread([&m] { m.acceptLoop(); });
    m.awaitListener();
    return 0;
}

void ztSimNetworkHead::stop()
{
    Impl& m = *m_impl;
    std::lock_guard<std::mutex> life(m.lifeMutex);
    if (!m.running)
        return;
    m.stopping = true;
    m.stopSignal.raise(); // wakes every poll of the head, and fails writes that wait
    stopStream();
    if (m.acceptThread.joinable())
        m.acceptThread.join();
    {
        std::lock_guard<std::mutex> lock(m.mutex);
        m.acceptRunning = false;
    }
    {
        std::lock_guard<std::mutex> lock(m.mutex);
        for (auto& c : m.conns)
            c->shut();
        for (auto& s : m.slots)
            s.reset();
    }
    m.reap(true);
    m.closeListener();
    {
        std::lock_guard<std::mutex> lock(m.mutex);
        m.running = false;
        m.changed.notify_all();
    }
    m.stopping = false;
}

int ztSimNetworkHead::port() const
{
    return m_impl->port;
}

bool ztSimNetworkHead::isConnected(Channel c) const
{
    return m_impl->holder(c) != nullptr;
}

bool ztSimNetworkHead::waitConnected(Channel c, int timeoutMs)
{
    Impl& m = *m_impl;
    if (!validChannel(c))
        return false;
    std::unique_lock<std::mutex> lock(m.mutex);
    return m.changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return m.slots[c] != nullptr; });
}

bool ztSimNetworkHead::waitDisconnected(Channel c, int timeoutMs)
{
    Impl& m = *m_impl;
    if (!validChannel(c))
        return false;
    std::unique_lock<std::mutex> lock(m.mutex);
    return m.changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return m.slots[c] == nullptr; });
}

int ztSimNetworkHead::connectionsAccepted() const
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    return m_impl->accepted;
}

void ztSimNetworkHead::setConnectionObserver(ConnectionObserver observer)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->observer = std::move(observer);
}

void ztSimNetworkHead::setAnswerHeartbeats(bool on)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->answerHeartbeats = on;
}

void ztSimNetworkHead::setSilent(bool on)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->silent = on;
}

void ztSimNetworkHead::setRefuseChannel(int index, RefuseHow how)
{
    {
        std::lock_guard<std::mutex> lock(m_impl->mutex);
        m_impl->refuseIndex = validChannel(index) ? index : -1;
        m_impl->refuseReset = how == Reset;
    }
    m_impl->awaitListener();
}

void ztSimNetworkHead::setAnswerer(Answerer answerer)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->answerer = std::move(answerer);
}

void ztSimNetworkHead::setReplyDelay(int ms)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->replyDelayMs = ms > 0 ? ms : 0;
}

void ztSimNetworkHead::setStatusReply(unsigned short type, int status)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->replies[type] = {Impl::Reply::Status, status, {}};
}

void ztSimNetworkHead::setEchoReply(unsigned short type, const std::vector<char>& payload)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->replies[type] = {Impl::Reply::Echo, 0, payload};
}

void ztSimNetworkHead::setNoReply(unsigned short type)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->replies[type] = {Impl::Reply::None, 0, {}};
}

void ztSimNetworkHead::setRawReply(unsigned short type, const std::vector<char>& bytes)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->replies[type] = {Impl::Reply::Raw, 0, bytes};
}

void ztSimNetworkHead::resetReplies()
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->replies.clear();
}

ztSimDevice& ztSimNetworkHead::device()
{
    return m_impl->device;
}

bool ztSimNetworkHead::nextCommand(Request& out, int timeoutMs)
{
    Impl& m = *m_impl;
    std::unique_lock<std::mutex> lock(m.mutex);
    if (!m.changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return !m.commands.empty(); }))
        return false;
    out = std::move(m.commands.front());
    m.commands.pop_front();
    return true;
}

void ztSimNetworkHead::clearCommands()
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->commands.clear();
}

int ztSimNetworkHead::heartbeatsReceived() const
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    return m_impl->heartbeats;
}

int ztSimNetworkHead::badMessagesReceived() const
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    return m_impl->bad;
}

bool ztSimNetworkHead::waitReceived(Channel c, std::size_t atLeast, int timeoutMs)
{
    Impl& m = *m_impl;
    if (!validChannel(c))
        return false;
    std::unique_lock<std::mutex> lock(m.mutex);
    return m.changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return m.received[c].size() >= atLeast; });
}

std::vector<char> ztSimNetworkHead::takeReceived(Channel c)
{
    if (!validChannel(c))
        return {};
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    return std::exchange(m_impl->received[c], {});
}

int ztSimNetworkHead::sendBytes(Channel c, const void* data, std::size_t n)
{
    const auto conn = m_impl->holder(c);
    if (!conn || (!data && n > 0))
        return -1;
    return m_impl->writeAll(*conn, static_cast<const char*>(data), n, nullptr);
}

int ztSimNetworkHead::sendMessage(Channel c, unsigned short type, const void* payload, std::size_t n)
{
    return m_impl->send(c, message(type, payload, n));
}

int ztSimNetworkHead::sendExtendedPacket(Channel c, unsigned short type, unsigned long long stamp, const void* payload,
                                         std::size_t n, bool goodTail, unsigned int tag)
{
    return m_impl->send(c, extendedPacket(type, stamp, payload, n, goodTail, tag));
}

int ztSimNetworkHead::sendPlainPacket(Channel c, unsigned short type, const void* payload, std::size_t n, bool goodTail)
{
    return m_impl->send(c, plainPacket(type, payload, n, goodTail));
}

void ztSimNetworkHead::closeChannel(Channel c)
{
    std::shared_ptr<Impl::Conn> conn;
    {
        std::lock_guard<std::mutex> lock(m_impl->mutex);
        if (!validChannel(c))
            return;
        conn = std::move(m_impl->slots[c]);
        m_impl->changed.notify_all();
    }
    if (conn)
        conn->shut();
    m_impl->wakeSignal.raise();
}

void ztSimNetworkHead::startStream(Channel c, std::vector<char> unit, std::size_t count, double bytesPerSecond)
{
    Impl& m = *m_impl;
    if (!validChannel(c))
        return;
    std::lock_guard<std::mutex> life(m.streamLife);
    m.stopStreamLocked();
    {
        std::lock_guard<std::mutex> lock(m.mutex);
        m.streamStop = false;
        m.streamActive = true;
    }
    m.streamed = 0;
    m.streamThread = std::thread([&m, c, u = std::move(unit), count, bytesPerSecond]() mutable {
        m.streamLoop(c, std::move(u), count, bytesPerSecond > 0 ? bytesPerSecond : 0);
    });
}

void ztSimNetworkHead::stopStream()
{
    std::lock_guard<std::mutex> life(m_impl->streamLife);
    m_impl->stopStreamLocked();
}

std::size_t ztSimNetworkHead::streamedBytes() const
{
    return m_impl->streamed;
}

bool ztSimNetworkHead::waitStreamDone(int timeoutMs)
{
    Impl& m = *m_impl;
    std::unique_lock<std::mutex> lock(m.mutex);
    return m.changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return !m.streamActive; });
}

// ---------------------------------------------------------------------------------------
// Wire builders

std::vector<char> ztSimNetworkHead::message(unsigned short type, const void* payload, std::size_t n)
{
    if (n > UINT32_MAX - 8 || (!payload && n > 0))
        return {};
    std::vector<char> b(n + 8);
    b[0] = static_cast<char>(0xAA);
    putLE(&b[1], n + 8, 4);
    putLE(&b[5], type, 2);
    if (n > 0)
        std::memcpy(&b[7], payload, n);
    b[n + 7] = static_cast<char>(0xBB);
    return b;
}

std::vector<char> ztSimNetworkHead::extendedPacket(unsigned short type, unsigned long long stamp, const void* payload,
                                                   std::size_t n, bool goodTail, unsigned int tag)
{
    if (n > UINT32_MAX - kExtendedHeaderSize - 1 || (!payload && n > 0))
        return {};
    const std::size_t length = kExtendedHeaderSize + n + 1;
    std::vector<char> b(length, 0);
    b[0] = static_cast<char>(0xAA);
    putLE(&b[1], length, 4);
    putLE(&b[5], type, 2);
    putLE(&b[64], stamp, 8);
    putLE(&b[72], tag, 4);
    if (n > 0)
        std::memcpy(&b[kExtendedHeaderSize], payload, n);
    b[length - 1] = static_cast<char>(goodTail ? 0xBB : 0xBC);
    return b;
}

std::vector<char> ztSimNetworkHead::plainPacket(unsigned short type, const void* payload, std::size_t n, bool goodTail)
{
    std::vector<char> b = message(type, payload, n);
    if (!b.empty() && !goodTail)
        b.back() = static_cast<char>(0xBC);
    return b;
}

std::vector<char> ztSimNetworkHead::valuePayload(unsigned int value, int status)
{
    std::vector<char> b(8);
    putLE(&b[0], static_cast<std::uint32_t>(status), 4);
    putLE(&b[4], value, 4);
    return b;
}

std::vector<char> ztSimNetworkHead::abilityPayload(const AbilityRecord& record, bool longForm, int status)
{
    // Wire order of the eleven words after the format version: the record's sixth field
    // (ability5) travels last.
    static constexpr int kOrder[11] = {1, 2, 3, 4, 6, 7, 8, 9, 10, 11, 5};
    std::vector<std::uint32_t> words{static_cast<std::uint32_t>(status), 0};
    if (longForm) {
        words.push_back(0);
        words.push_back(record[0]);
    } else {
        words.push_back(1);
    }
    words.push_back(1); // format version
    for (const int i : kOrder)
        words.push_back(record[i]);
    words[1] = static_cast<std::uint32_t>((words.size() - 2) * 4);
    std::vector<char> b(words.size() * 4);
    for (std::size_t i = 0; i < words.size(); ++i)
        putLE(&b[i * 4], words[i], 4);
    return b;
}

ztSimNetworkHead::AbilityRecord ztSimNetworkHead::defaultAbility()
{
    return {1, kDefaultProductType, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
}

std::vector<char> ztSimNetworkHead::setFilePayload()
{
    static const char kText[] = "simulated head SET file\n";
    std::vector<char> b(4 + sizeof kText - 1, 0); // status 0, then the text
    std::memcpy(b.data() + 4, kText, sizeof kText - 1);
    return b;
}
