// Native threads by handle: creation with a stack size, join, detach, kill and exit.
//
// A handle is an untyped pointer: the thread's HANDLE on Windows, its pthread_t
// elsewhere. Results are 0 on success or a POSIX-style code: 11 (the wait timed out),
// 22 (any other failure), or the platform's error code when a thread could not be made.
#pragma once

namespace zt::thread {

using Entry = unsigned long (*)(void* arg);

// Starts entry(arg) on a new thread with the given stack size (0: the default) and
// stores its handle and id. 0 or the platform's error code.
int create(Entry entry, void* arg, unsigned int stackSize, void** handle, unsigned long* id);
// Ends the calling thread with exit code 0.
[[noreturn]] void exit();
// Lowers the calling thread's scheduling priority below the process's other threads, for
// background work that must yield the processor to them.
void yieldToOthers();

} // namespace zt::thread

// The members of the platform's thread class that this library defines.
class TThread {
public:
    // The calling thread's id as the operating system numbers threads.
    static int currentThreadId();
    // Waits without limit for the thread to end, then releases its handle.
    static int Join(void* handle);
    // Releases the handle; the thread runs on by itself.
    static int Detach(void* handle);
    // Terminates the thread with exit code 0.
    static int Kill(void* handle);
};
