#include "ztSimReplay.h"

#include "ztSimUsbHead.h"

#include "platform/le_bytes.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <iostream>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using zt::getLE;
using Clock = std::chrono::steady_clock;
constexpr unsigned short kHeartbeatType = 2;
constexpr std::uint32_t kMaxMessageSize = 128u << 20;

unsigned short typeOf(const std::vector<char>& message)
{
    return static_cast<unsigned short>(getLE(message.data() + 5, 2));
}

// Cuts whole embedded messages (AA, 32-bit size, type, payload, BB) out of a byte stream
// that arrives in pieces.
class Cutter {
public:
    template <class Each>
    void add(const std::vector<char>& bytes, Each each)
    {
        m_held.insert(m_held.end(), bytes.begin(), bytes.end());
        std::size_t at = 0;
        while (m_held.size() - at >= 7) {
            const auto size = static_cast<std::uint32_t>(getLE(&m_held[at + 1], 4));
            if (size < 8 || size > kMaxMessageSize) {
                at = m_held.size(); // no boundary can be found in what is held
                break;
            }
            if (m_held.size() - at < size)
                break;
            each(std::vector<char>(m_held.begin() + static_cast<std::ptrdiff_t>(at),
                                   m_held.begin() + static_cast<std::ptrdiff_t>(at + size)));
            at += size;
        }
        m_held.erase(m_held.begin(), m_held.begin() + static_cast<std::ptrdiff_t>(at));
    }

private:
    std::vector<char> m_held;
};

} // namespace

struct ztSimReplay::Impl {
    // One thing the player does, in recorded order: wait for the n-th command request, or
    // send bytes the head sent unasked.
    struct Step {
        bool awaitRequest = false;
        std::size_t request = 0; // awaitRequest: requests that must have arrived
        int channel = 0;         // network: the connection; USB: 0 stream, 1 event
        unsigned long long timeNs = 0;
        std::vector<char> bytes;
    };
    struct Replies {
        std::vector<std::vector<char>> list; // empty entries: nothing came back
        std::size_t next = 0;
    };

    void say(const std::string& line)
    {
        std::function<void(const std::string&)> out;
        {
            std::lock_guard<std::mutex> lock(mutex);
            out = log;
        }
        if (out)
            out(line);
        else
            std::cerr << "ztSimReplay: " << line << std::endl;
    }

    // Builds the player's steps and the reply table from the loaded records.
    void prepare()
    {
        steps.clear();
        replies.clear();
        heartbeatReply.clear();
        std::size_t requestsSent = 0;
        unsigned long long lost = 0;
        const bool usb = contents.header.link == ztRecorder::UsbLink;
        const unsigned char* ep = contents.header.endpoints;
        Cutter requests, commandData;
        for (ztRecorder::Record& r : contents.records) {
            if (r.kind == ztRecorder::NotRecorded) {
                lost += static_cast<unsigned long long>(r.status);
                continue;
            }
            if (r.kind == ztRecorder::Command) {
                std::string key(r.bytes.data(), r.requestSize);
                replies[key].list.emplace_back(r.bytes.begin() + static_cast<std::ptrdiff_t>(r.requestSize), r.bytes.end());
                continue;
            }
            const bool out = r.kind == ztRecorder::BytesOut;
            if (out && (usb ? r.channel == ep[3] : r.channel == ztSimNetworkHead::Command)) {
                requests.add(r.bytes, [&](const std::vector<char>&) {
                    Step s;
                    s.awaitRequest = true;
                    s.request = ++requestsSent;
                    s.timeNs = r.timeNs;
                    steps.push_back(std::move(s));
                });
                continue;
            }
            if (out || r.bytes.empty())
                continue;
            auto sendStep = [&](int channel, std::vector<char> bytes) {
                Step s;
                s.channel = channel;
                s.timeNs = r.timeNs;
                s.bytes = std::move(bytes);
                steps.push_back(std::move(s));
            };
            // Heartbeat answers are given live; the first one recorded is the pattern.
            auto beatOrSend = [&](int channel, std::vector<char> message) {
                if (message.size() >= 8 && typeOf(message) == kHeartbeatType) {
                    if (heartbeatReply.empty())
                        heartbeatReply = std::move(message);
                    return;
                }
                sendStep(channel, std::move(message));
            };
            if (usb) {
                if (r.status != 0)
                    continue; // failed transfers are not replayed
                if (r.channel == ep[0])
                    sendStep(0, std::move(r.bytes));
                else if (r.channel == ep[2])
                    beatOrSend(1, std::move(r.bytes));
                // Control IN carries the replies, which are answered from the table.
            } else if (r.channel == ztSimNetworkHead::CommandData) {
                commandData.add(r.bytes, [&](std::vector<char> m) { beatOrSend(ztSimNetworkHead::CommandData, std::move(m)); });
            } else if (r.channel != ztSimNetworkHead::Command) {
                sendStep(static_cast<int>(r.channel), std::move(r.bytes));
            }
        }
        if (lost > 0)
            say("the recording lost " + std::to_string(lost) + " records (the recorder fell behind); they are missing");
        if (contents.cut)
            say("the recording ends inside a record; it plays up to the last whole one");
    }

    // The answer to a request or heartbeat; false leaves it unanswered.
    bool answer(bool heartbeat, const char* message, std::size_t size, std::vector<char>& reply)
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (heartbeat) {
            reply = heartbeatReply;
            return true;
        }
        ++requestsSeen;
        changed.notify_all();
        const auto it = replies.find(std::string(message, size));
        if (it == replies.end()) {
            ++unmatched;
            lock.unlock();
            say("no recorded reply to the command of type " +
                std::to_string(size >= 7 ? getLE(message + 5, 2) : 0) + " (" + std::to_string(size) +
                " request bytes); not answered");
            return true;
        }
        Replies& r = it->second;
        reply = r.list[std::min(r.next, r.list.size() - 1)];
        ++r.next;
        return true;
    }

    // Sends one step's bytes; false when the replay stops first.
    bool send(const Step& s)
    {
#ifdef ZT_SIM_USB_HEAD
        if (usbHead) {
            return (s.channel == 0 ? usbHead->pushStream(s.bytes) : usbHead->pushEvent(s.bytes)) >= 0;
        }
#endif
        const auto channel = static_cast<ztSimNetworkHead::Channel>(s.channel);
        while (!stopping) {
            if (netHead->waitConnected(channel, 100) &&
                netHead->sendBytes(channel, s.bytes.data(), s.bytes.size()) == static_cast<int>(s.bytes.size()))
                return true;
        }
        return false;
    }

    void play()
    {
        // Recorded times are kept relative to the last request the head waited for.
        Clock::time_point anchor = Clock::now();
        unsigned long long anchorNs = steps.empty() ? 0 : steps.front().timeNs;
        for (const Step& s : steps) {
            std::unique_lock<std::mutex> lock(mutex);
            if (s.awaitRequest) {
                changed.wait(lock, [&] { return stopping || requestsSeen >= s.request; });
                anchor = Clock::now();
                anchorNs = s.timeNs;
            } else if (!fast) {
                const auto due = anchor + std::chrono::nanoseconds(s.timeNs > anchorNs ? s.timeNs - anchorNs : 0);
                changed.wait_until(lock, due, [&] { return stopping.load(); });
            }
            if (stopping)
                return;
            lock.unlock();
            if (!s.awaitRequest && !send(s))
                return;
            lock.lock();
            ++playedSteps;
            changed.notify_all();
        }
    }

    void start(bool fastPlay)
    {
        fast = fastPlay;
        stopping = false;
        requestsSeen = 0;
        playedSteps = 0;
        unmatched = 0;
        for (auto& [key, r] : replies)
            r.next = 0;
        player = std::thread([this] { play(); });
    }

    ztRecorder::Contents contents;
    bool loaded = false;
    std::vector<Step> steps;
    std::map<std::string, Replies> replies;
    std::vector<char> heartbeatReply;
    bool fast = false;

    std::unique_ptr<ztSimNetworkHead> netHead;
#ifdef ZT_SIM_USB_HEAD
    std::unique_ptr<ztSimUsbHead> usbHead;
#endif
    std::thread player;
    std::atomic<bool> stopping{false};

    mutable std::mutex mutex; // everything below
    std::condition_variable changed;
    std::function<void(const std::string&)> log;
    std::size_t requestsSeen = 0;
    std::size_t playedSteps = 0;
    int unmatched = 0;
};

ztSimReplay::ztSimReplay() : m_impl(std::make_unique<Impl>()) {}

ztSimReplay::~ztSimReplay()
{
    stop();
}

void ztSimReplay::setLog(std::function<void(const std::string&)> log)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->log = std::move(log);
}

int ztSimReplay::load(const std::string& path)
{
    stop();
    m_impl->loaded = false;
    if (ztRecorder::load(path, m_impl->contents) != 0)
        return -1;
    m_impl->prepare();
    m_impl->loaded = true;
    return 0;
}

const ztRecorder::Header& ztSimReplay::header() const
{
    return m_impl->contents.header;
}

int ztSimReplay::startNetwork(const std::string& bindIP, int port, bool fast)
{
    stop();
    if (!m_impl->loaded || m_impl->contents.header.link != ztRecorder::NetworkLink) {
        m_impl->say("no network recording loaded");
        return -1;
    }
    m_impl->netHead = std::make_unique<ztSimNetworkHead>(bindIP, port);
    Impl* impl = m_impl.get();
    m_impl->netHead->setAnswerer([impl](ztSimNetworkHead::Channel c, const char* m, std::size_t n, std::vector<char>& reply) {
        return impl->answer(c == ztSimNetworkHead::CommandData, m, n, reply);
    });
    if (m_impl->netHead->start() != 0) {
        m_impl->netHead.reset();
        return -1;
    }
    m_impl->start(fast);
    return 0;
}

int ztSimReplay::startUsb(bool fast)
{
    stop();
    if (!m_impl->loaded || m_impl->contents.header.link != ztRecorder::UsbLink) {
        m_impl->say("no USB recording loaded");
        return -1;
    }
#ifdef ZT_SIM_USB_HEAD
    m_impl->usbHead = std::make_unique<ztSimUsbHead>();
    Impl* impl = m_impl.get();
    m_impl->usbHead->setAnswerer([impl](unsigned char endpoint, const char* m, std::size_t n, std::vector<char>& reply) {
        return impl->answer(endpoint == ztSimUsbHead::kHeartbeatOut, m, n, reply);
    });
    if (m_impl->usbHead->start() != 0) {
        m_impl->usbHead.reset();
        return -1;
    }
    m_impl->start(fast);
    return 0;
#else
    (void)fast;
    m_impl->say("this build has no emulated USB head (it needs Linux's usbfs emulation)");
    return -1;
#endif
}

_ZT_USB3_DEVICE_INFO_ ztSimReplay::usbDeviceInfo()
{
#ifdef ZT_SIM_USB_HEAD
    return ztSimUsbHead::deviceInfo();
#else
    return {};
#endif
}

bool ztSimReplay::waitDone(int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_impl->mutex);
    return m_impl->changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                    [&] { return m_impl->playedSteps >= m_impl->steps.size(); });
}

std::size_t ztSimReplay::steps() const
{
    return m_impl->steps.size();
}

std::size_t ztSimReplay::played() const
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    return m_impl->playedSteps;
}

int ztSimReplay::unmatchedCommands() const
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    return m_impl->unmatched;
}

void ztSimReplay::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_impl->mutex);
        m_impl->stopping = true;
        m_impl->changed.notify_all();
    }
    if (m_impl->player.joinable())
        m_impl->player.join();
    m_impl->netHead.reset();
#ifdef ZT_SIM_USB_HEAD
    m_impl->usbHead.reset();
#endif
}
