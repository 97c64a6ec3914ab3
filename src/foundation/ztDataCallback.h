// The data callback of a proxy object and its user pointer, replaceable while worker
// threads raise it.
#pragma once

#include <mutex>

namespace zt {

class DataCallback {
public:
    using Fn = void (*)(int code, char* data, int length, void* user);

    void set(Fn fn, void* user)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_fn = fn;
        m_user = user;
    }

    // Calls the callback, if one is set, outside the lock: a callback may replace itself.
    void raise(int code, char* data, int length) const
    {
        Fn fn;
        void* user;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            fn = m_fn;
            user = m_user;
        }
        // A reply too short for its own header would give a negative length: the callback
        // is told there are no bytes instead.
        if (fn != nullptr)
            fn(code, data, length < 0 ? 0 : length, user);
    }

private:
    mutable std::mutex m_mutex;
    Fn m_fn = nullptr;
    void* m_user = nullptr;
};

} // namespace zt
