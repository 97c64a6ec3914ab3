#include "TThread.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <new>

#ifdef _WIN32
#  ifndef WIN32_LEAN_AND_MEAN
#    define WIN32_LEAN_AND_MEAN
#  endif
#  include <windows.h>
#  include <process.h>
#else
#  include <pthread.h>
#  include <sys/resource.h>
#  include <sys/syscall.h>
#  include <unistd.h>
#endif

namespace {
constexpr int kTimedOut = 11; // EAGAIN
constexpr int kFailed = 22;   // EINVAL
} // namespace

#ifdef _WIN32

namespace {
struct Start {
    zt::thread::Entry entry;
    void* arg;
};

unsigned __stdcall trampoline(void* p)
{
    const Start start = *static_cast<Start*>(p);
    delete static_cast<Start*>(p);
    return static_cast<unsigned>(start.entry(start.arg));
}
} // namespace

namespace zt::thread {

int create(Entry entry, void* arg, unsigned int stackSize, void** handle, unsigned long* id)
{
    auto* start = new (std::nothrow) Start{entry, arg};
    if (start == nullptr)
        return ERROR_NOT_ENOUGH_MEMORY;
    unsigned threadId = 0;
    const uintptr_t h = _beginthreadex(nullptr, stackSize, trampoline, start, 0, &threadId);
    if (h == 0) {
        delete start;
        return static_cast<int>(GetLastError());
    }
    *handle = reinterpret_cast<void*>(h);
    if (id != nullptr)
        *id = threadId;
    return 0;
}

void exit()
{
    _endthreadex(0);
    for (;;) {
    }
}

} // namespace zt::thread

int TThread::currentThreadId()
{
    return static_cast<int>(GetCurrentThreadId());
}

int TThread::Join(void* handle)
{
    // A thread that waits for itself would wait for ever; it fails as pthread_join does.
    if (handle == nullptr || GetThreadId(static_cast<HANDLE>(handle)) == GetCurrentThreadId())
        return kFailed;
    const DWORD r = WaitForSingleObject(static_cast<HANDLE>(handle), INFINITE);
    if (r == WAIT_OBJECT_0) {
        CloseHandle(static_cast<HANDLE>(handle));
        return 0;
    }
    return r == WAIT_TIMEOUT ? kTimedOut : kFailed;
}

int TThread::Detach(void* handle)
{
    return CloseHandle(static_cast<HANDLE>(handle)) ? 0 : kFailed;
}

int TThread::Kill(void* handle)
{
    return TerminateThread(static_cast<HANDLE>(handle), 0) ? 0 : kFailed;
}

void zt::thread::yieldToOthers()
{
    SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_BELOW_NORMAL);
}

#else

namespace {
// The creator waits on this record until the new thread has told its kernel id, the id
// that currentThreadId() gives inside the thread, so that a thread can recognise itself.
struct Announced {
    zt::thread::Entry entry;
    void* arg;
    std::atomic<long> tid{0};
};

void* trampoline(void* p)
{
    auto* start = static_cast<Announced*>(p);
    const zt::thread::Entry entry = start->entry;
    void* const arg = start->arg;
    start->tid.store(static_cast<long>(syscall(SYS_gettid)), std::memory_order_release);
    start->tid.notify_one();
    return reinterpret_cast<void*>(static_cast<uintptr_t>(entry(arg)));
}

pthread_t toThread(void* handle)
{
    return static_cast<pthread_t>(reinterpret_cast<uintptr_t>(handle));
}
} // namespace

namespace zt::thread {

int create(Entry entry, void* arg, unsigned int stackSize, void** handle, unsigned long* id)
{
    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    if (rc != 0)
        return rc;
    if (stackSize != 0 && (rc = pthread_attr_setstacksize(&attr, stackSize)) != 0) {
        pthread_attr_destroy(&attr);
        return rc;
    }
    Announced start{entry, arg};
    pthread_t t{};
    rc = pthread_create(&t, &attr, trampoline, &start);
    pthread_attr_destroy(&attr);
    if (rc != 0)
        return rc;
    start.tid.wait(0, std::memory_order_acquire);
    *handle = reinterpret_cast<void*>(static_cast<uintptr_t>(t));
    if (id != nullptr)
        *id = static_cast<unsigned long>(start.tid.load(std::memory_order_acquire));
    return 0;
}

void exit()
{
    pthread_exit(nullptr);
}

} // namespace zt::thread

int TThread::currentThreadId()
{
    return static_cast<int>(syscall(SYS_gettid));
}

int TThread::Join(void* handle)
{
    // A null handle names no thread; pthread_join must not see it.
    if (handle == nullptr)
        return kFailed;
    const int rc = pthread_join(toThread(handle), nullptr);
    if (rc == 0)
        return 0;
    return rc == ETIMEDOUT ? kTimedOut : kFailed;
}

int TThread::Detach(void* handle)
{
    if (handle == nullptr)
        return kFailed;
    return pthread_detach(toThread(handle)) == 0 ? 0 : kFailed;
}

int TThread::Kill(void* handle)
{
    if (handle == nullptr)
        return kFailed;
    return pthread_cancel(toThread(handle)) == 0 ? 0 : kFailed;
}

void zt::thread::yieldToOthers()
{
    // On Linux the nice value is per thread.
    errno = 0;
    const int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)));
    if (errno == 0)
        setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), nice + 10 > 19 ? 19 : nice + 10);
}

#endif
