// Records what a device server's data callback was given, for tests that wait for calls of
// a type, count them or read their payloads. The callback can be held on one type, so that
// the server's frame pool fills behind it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <initializer_list>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace zt::test {

class DataCalls {
public:
    // Register with registerModuleServerDataCB(&DataCalls::cb, &calls).
    static void cb(int type, char* data, int len, void* user)
    {
        auto* self = static_cast<DataCalls*>(user);
        std::unique_lock<std::mutex> lock(self->m_mutex);
        self->m_calls.emplace_back(type, data == nullptr ? std::string() : std::string(data, static_cast<std::size_t>(len)));
        self->m_cv.notify_all();
        self->m_cv.wait(lock, [&] { return !(self->m_hold && type == self->m_heldType); });
    }

    // Calls of this type wait in the callback until release.
    void holdOn(int type)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_hold = true;
        m_heldType = type;
    }
    void release()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_hold = false;
        m_cv.notify_all();
    }

    std::size_t count(int type) { return waitCount(type, 0, 0); }

    // Waits until at least n calls of this type arrived; returns how many there are.
    std::size_t waitCount(int type, std::size_t n, int timeoutMs)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        std::size_t got = 0;
        m_cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return (got = countLocked(type)) >= n; });
        return got;
    }

    std::vector<std::string> payloads(int type) { return of(type, 0, 0); }

    // The payloads of one type, in order, once there are at least n (or the time is up).
    std::vector<std::string> of(int type, std::size_t n, int timeoutMs = 3000)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return countLocked(type) >= n; });
        std::vector<std::string> out;
        for (const auto& c : m_calls)
            if (c.first == type)
                out.push_back(c.second);
        return out;
    }

    // The types of all calls of the given types, in order.
    std::vector<int> order(std::initializer_list<int> types)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<int> out;
        for (const auto& c : m_calls)
            for (int t : types)
                if (c.first == t)
                    out.push_back(t);
        return out;
    }

    // Every call so far, in order: (type, payload).
    std::vector<std::pair<int, std::string>> all()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

private:
    std::size_t countLocked(int type) const
    {
        std::size_t n = 0;
        for (const auto& c : m_calls)
            n += c.first == type ? 1 : 0;
        return n;
    }

    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<std::pair<int, std::string>> m_calls;
    bool m_hold = false;
    int m_heldType = -1;
};

} // namespace zt::test
