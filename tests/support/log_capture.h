// Collects the library's log lines while it lives, for tests that assert log texts.
#pragma once

#include "ztLog.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace zt::test {

class LogCapture {
public:
    struct Line {
        int level;
        std::string text;
    };

    explicit LogCapture(int level = ZTLOG_LEVEL_TRACE) : m_savedLevel(ztLogGetLevel())
    {
        ztLogSetLevel(level);
        ztLogSetCallback(&LogCapture::collect, this);
    }
    ~LogCapture()
    {
        ztLogSetCallback(nullptr, nullptr);
        ztLogSetLevel(m_savedLevel);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Line> lines() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    std::vector<std::string> texts() const
    {
        std::vector<std::string> out;
        for (const auto& l : lines())
            out.push_back(l.text);
        return out;
    }
    // Number of lines whose text is exactly text.
    int count(const std::string& text) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        int n = 0;
        for (const auto& l : m_lines)
            n += l.text == text ? 1 : 0;
        return n;
    }
    // True when a line containing part arrives within timeoutMs.
    bool waitFor(const std::string& part, int timeoutMs) const
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_arrived.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
            for (const auto& l : m_lines)
                if (l.text.find(part) != std::string::npos)
                    return true;
            return false;
        });
    }
    void clear()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
    }

private:
    static void collect(int level, const char* text, void* user)
    {
        auto* self = static_cast<LogCapture*>(user);
        std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_lines.push_back({level, text});
        self->m_arrived.notify_all();
    }

    int m_savedLevel;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_arrived;
    std::vector<Line> m_lines;
};

} // namespace zt::test
