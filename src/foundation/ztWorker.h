// The worker-thread convention of the proxy classes.
//
// Each worker is a static entry taking the object as an untyped pointer and returning the
// result of the object's member of the same name with the suffix Func. The member loops:
// sleep a fixed period, do one round of work, then end when the object's stop flag is set.
// Stopping sets the flag and joins every worker without a time-out before any buffer or
// socket that the workers use is freed.
#pragma once

#include "platform/zt_time.h"

#include <atomic>
#include <thread>
#include <vector>

namespace zt {

using WorkerEntry = unsigned int (*)(void* object);

// Starts entry(object) on thread unless a worker already runs there: 0 on success (or
// when already running), -1 when no thread could be started.
int startWorker(std::thread& thread, WorkerEntry entry, void* object, const char* name);

// Waits without limit for the worker to end and clears its handle. A worker that asks to
// join itself (a stop requested from its own callback) is detached instead.
void joinWorker(std::thread& thread, const char* name);
// The same, but a worker that asks to join itself moves to leftBehind instead, for its
// owner to join from another thread before the object it works on goes away.
void joinWorker(std::thread& thread, const char* name, std::vector<std::thread>& leftBehind);
// Joins the workers left behind that way, except the calling thread's own, and forgets
// them. Called before a restart, since the stop flag they end on is about to be cleared.
void joinLeftBehind(std::vector<std::thread>& leftBehind, const char* name);
// The same for the owner's destructor. Called on one of those workers (the object
// destroyed from its own data callback), it reports that and aborts: the worker would go
// on through the freed object, and nothing safe is left to do.
void joinLeftBehindAtDestruction(std::vector<std::thread>& leftBehind, const char* name);

// What one round of a worker's loop did: Stop ends the loop, Idle pauses the period before
// the next round, Busy (it handled work, more may be waiting) goes on at once.
enum class Round { Stop, Idle, Busy };

// The loop of a worker: sleep periodMs, run one round, end when stop is set. A round that
// returns Round::Stop ends the loop at once; one that returns Round::Busy is followed by
// the next without the pause.
template <class RoundFn>
void workerLoop(const std::atomic<bool>& stop, unsigned int periodMs, RoundFn&& round)
{
    bool pause = true;
    for (;;) {
        if (pause)
            SPR_Sleep(periodMs);
        const Round result = round();
        if (result == Round::Stop || stop.load(std::memory_order_relaxed))
            return;
        pause = result != Round::Busy;
    }
}

} // namespace zt
