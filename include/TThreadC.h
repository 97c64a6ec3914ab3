// TThreadC<void>: a thread object whose body is the virtual Run().
//
// Results follow POSIX numbering: 0 on success, 11 when a wait timed out, 22 on any other
// failure, or the platform's own error code when no thread could be made.
#ifndef ZT_TTHREADC_H
#define ZT_TTHREADC_H

#include "ztProxyExport.h"

template <typename T = void>
class TThreadC;

template <>
class ZT_PROXY_API TThreadC<void> {
public:
    TThreadC() = default;
    virtual ~TThreadC();
    // The thread body that ThreadMainHandler runs on the new thread.
    virtual void Run() = 0;

    // Clears the handle, starts Run() on a thread of the given stack size (0: default) and
    // stores the thread's handle and id. A detached thread's handle is released at once
    // (the stored value stays, and must not be joined). The last two flags are ignored.
    int Create(unsigned long& threadId, void** const& handle, const bool& detached, const unsigned int& stackSize,
               const bool& reserved1, const bool& reserved2);
    // As above, storing the handle only when handle points somewhere.
    int Create(void** const& handle, const bool& detached, const unsigned int& stackSize, const bool& reserved1,
               const bool& reserved2);
    // Starts fn on a new thread.
    static int Create(void (*const& fn)(), void** const& handle, const bool& detached,
                      const unsigned int& stackSize, const bool& reserved1, const bool& reserved2);

    // Waits without limit for the thread, then releases its handle: 0, 11 or 22.
    static int Join(void* const& handle);
    // Releases the handle: 0, or 22 if that failed.
    static int Detach(void* const& handle);
    // Terminates the thread with exit code 0: 0, or 22 on failure.
    static int Kill(void* const& handle);
    // Ends the calling thread with exit code 0.
    [[noreturn]] static void Exit();
    // The calling thread's id.
    static int Self();
    // Yields the processor; there is no deferred cancellation to act on.
    static void TestCancel();

    static unsigned long ThreadMainHandler(TThreadC<void>* self);
    static unsigned long ThreadMainHandler_S(void (*fn)());
};

#endif
