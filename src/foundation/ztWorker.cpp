#include "ztWorker.h"

#include "platform/zt_log.h"

#include <cstdlib>
#include <system_error>

namespace zt {

int startWorker(std::thread& thread, WorkerEntry entry, void* object, const char* name)
{
    if (thread.joinable())
        return 0;
    try {
        thread = std::thread([entry, object] {
            const FineTimer fine;
            entry(object);
        });
    } catch (const std::system_error& e) {
        ZTLOG_ERROR("%s: cannot start thread: %s\n", name, e.what());
        return -1;
    }
    return 0;
}

void joinWorker(std::thread& thread, const char* name)
{
    if (!thread.joinable())
        return;
    if (thread.get_id() == std::this_thread::get_id()) {
        ZTLOG_ERROR("%s: stopped from its own thread; the thread ends by itself\n", name);
        thread.detach();
        return;
    }
    thread.join();
}

void joinWorker(std::thread& thread, const char* name, std::vector<std::thread>& leftBehind)
{
    if (thread.joinable() && thread.get_id() == std::this_thread::get_id()) {
        ZTLOG_ERROR("%s: stopped from its own thread; the thread ends by itself\n", name);
        leftBehind.push_back(std::move(thread));
        return;
    }
    joinWorker(thread, name);
}

void joinLeftBehind(std::vector<std::thread>& leftBehind, const char* name)
{
    for (auto it = leftBehind.begin(); it != leftBehind.end();) {
        if (it->get_id() == std::this_thread::get_id()) {
            ++it;
            continue;
        }
        joinWorker(*it, name);
        it = leftBehind.erase(it);
    }
}

void joinLeftBehindAtDestruction(std::vector<std::thread>& leftBehind, const char* name)
{
    for (const auto& t : leftBehind) {
        if (t.get_id() == std::this_thread::get_id()) {
            ZTLOG_ERROR("%s destroyed from its own data callback: not supported\n", name);
            std::abort();
        }
    }
    joinLeftBehind(leftBehind, name);
}

} // namespace zt
