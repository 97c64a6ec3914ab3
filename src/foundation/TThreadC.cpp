#include "TThreadC.h"

#include "platform/TThread.h"

#include <thread>

namespace {

unsigned long runObject(void* arg)
{
    return TThreadC<void>::ThreadMainHandler(static_cast<TThreadC<void>*>(arg));
}

// Carries a plain function pointer through the untyped thread argument.
struct PlainFunction {
    void (*fn)();
};

unsigned long runFunction(void* arg)
{
    const PlainFunction f = *static_cast<PlainFunction*>(arg);
    delete static_cast<PlainFunction*>(arg);
    return TThreadC<void>::ThreadMainHandler_S(f.fn);
}

int start(zt::thread::Entry entry, void* arg, void** handle, unsigned long* id, bool detached,
          unsigned int stackSize)
{
    void* made = nullptr;
    const int rc = zt::thread::create(entry, arg, stackSize, &made, id);
    if (rc != 0)
        return rc;
    if (handle != nullptr)
        *handle = made;
    if (detached)
        TThread::Detach(made);
    return 0;
}

} // namespace

TThreadC<void>::~TThreadC() = default;

int TThreadC<void>::Create(unsigned long& threadId, void** const& handle, const bool& detached,
                           const unsigned int& stackSize, const bool&, const bool&)
{
    if (handle != nullptr)
        *handle = nullptr;
    return start(runObject, this, handle, &threadId, detached, stackSize);
}

int TThreadC<void>::Create(void** const& handle, const bool& detached, const unsigned int& stackSize, const bool&,
                           const bool&)
{
    if (handle != nullptr)
        *handle = nullptr;
    return start(runObject, this, handle, nullptr, detached, stackSize);
}

int TThreadC<void>::Create(void (*const& fn)(), void** const& handle, const bool& detached,
                           const unsigned int& stackSize, const bool&, const bool&)
{
    if (handle != nullptr)
        *handle = nullptr;
    auto* f = new PlainFunction{fn};
    const int rc = start(runFunction, f, handle, nullptr, detached, stackSize);
    if (rc != 0)
        delete f;
    return rc;
}

int TThreadC<void>::Join(void* const& handle)
{
    return TThread::Join(handle);
}

int TThreadC<void>::Detach(void* const& handle)
{
    return TThread::Detach(handle);
}

int TThreadC<void>::Kill(void* const& handle)
{
    return TThread::Kill(handle);
}

void TThreadC<void>::Exit()
{
    zt::thread::exit();
}

int TThreadC<void>::Self()
{
    return TThread::currentThreadId();
}

void TThreadC<void>::TestCancel()
{
    std::this_thread::yield();
}

unsigned long TThreadC<void>::ThreadMainHandler(TThreadC<void>* self)
{
    self->Run();
    Exit();
}

unsigned long TThreadC<void>::ThreadMainHandler_S(void (*fn)())
{
    if (fn != nullptr)
        fn();
    Exit();
}
