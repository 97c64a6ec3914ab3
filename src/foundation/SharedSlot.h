// A connection object shared between the thread that replaces it and the threads that
// use it: a user takes its own reference and keeps the object alive through a blocking
// call, while another thread drops the slot's reference at any time.
#pragma once

#include <memory>
#include <mutex>

namespace zt {

template <class T>
class SharedSlot {
public:
    std::shared_ptr<T> get() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_object;
    }
    void set(std::shared_ptr<T> object)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_object = std::move(object);
    }
    // Empties the slot and hands back what it held (null when empty).
    std::shared_ptr<T> take()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::move(m_object);
    }
    bool empty() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return !m_object;
    }

private:
    mutable std::mutex m_mutex;
    std::shared_ptr<T> m_object;
};

} // namespace zt
