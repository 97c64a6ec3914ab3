// Pieces shared by the end-to-end benchmarks.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "ztLog.h"

#include <sys/resource.h>
#include <unistd.h>

namespace zt::bench {

// Benchmarks print figures only: the library's own log lines stay off.
inline void quietLibrary()
{
    ztLogSetLevel(ZTLOG_LEVEL_OFF);
}

// CPU seconds of this process (user and system) so far.
inline double cpuSeconds()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// A parent and a child process that streams to it step in turn over a pipe: one byte each.
inline void waitForPeer(int fd)
{
    char c;
    if (::read(fd, &c, 1) != 1)
        std::_Exit(3);
}

inline void tellPeer(int fd)
{
    if (::write(fd, "g", 1) != 1)
        std::perror("bench: pipe");
}

// A child process that serves the benchmark, and the two pipes between them: the child
// says when it is ready, the parent says when to go (and when it has what it waited for).
// Each side holds only its own ends.
struct ForkedPeer {
    pid_t pid = -1;
    int go = -1;    // the child reads it, the parent writes it
    int ready = -1; // the child writes it, the parent reads it
    bool inChild() const { return pid == 0; }
};

inline ForkedPeer forkPeer()
{
    int go[2];
    int ready[2];
    if (::pipe(go) != 0 || ::pipe(ready) != 0)
        std::exit(1);
    ForkedPeer peer;
    peer.pid = ::fork();
    const bool child = peer.pid == 0;
    ::close(child ? go[1] : go[0]);
    ::close(child ? ready[0] : ready[1]);
    peer.go = child ? go[0] : go[1];
    peer.ready = child ? ready[1] : ready[0];
    return peer;
}

// Counts the packets of one type that a data callback delivers, and their bytes
// (payload and the 8 bytes of message frame).
struct Delivered {
    int type = 1280;
    std::mutex mutex;
    std::condition_variable arrived;
    std::size_t packets = 0;
    std::size_t bytes = 0;

    static void cb(int type, char*, int len, void* user)
    {
        auto* self = static_cast<Delivered*>(user);
        if (type != self->type)
            return;
        std::lock_guard<std::mutex> lock(self->mutex);
        ++self->packets;
        self->bytes += static_cast<std::size_t>(len) + 8;
        self->arrived.notify_all();
    }

    // Waits until count packets have arrived or seconds have passed; the bytes seen.
    std::size_t waitFor(std::size_t count, int seconds)
    {
        std::unique_lock<std::mutex> lock(mutex);
        arrived.wait_for(lock, std::chrono::seconds(seconds), [&] { return packets >= count; });
        return bytes;
    }
};

// The USB emulation lives in a preload library. Call when it is not active: runs the
// program again with the preload set and returns only on failure (1, with a line naming
// the program).
inline int rerunWithUsbEmulation(const char* program, char** argv)
{
    if (std::getenv("ZT_USB_BENCH_REEXEC") != nullptr) {
        std::fprintf(stderr, "%s: the umockdev preload does not take effect\n", program);
        return 1;
    }
    setenv("ZT_USB_BENCH_REEXEC", "1", 1);
    setenv("LD_PRELOAD", "libumockdev-preload.so.0", 1);
    execv("/proc/self/exe", argv);
    std::perror(program);
    return 1;
}

} // namespace zt::bench
