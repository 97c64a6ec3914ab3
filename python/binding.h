// Pieces shared by the parts of the Python module: objects that own a library object and
// its callback delivery, the command binder, and the error every failed command raises.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ztpy {

namespace py = pybind11;

// ---- log lines of a failed command ----------------------------------------------------

// Routes the library's log lines to standard error and lets a thread collect the warnings
// and errors it logs itself while a LogCapture lives on it.
void installLogRouting();

void appendCaptured(const char* text);

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    // The lines captured so far, one per line, without the final line end.
    std::string text() const;

private:
    std::string m_lines;
    LogCapture* m_outer;
    friend void appendCaptured(const char* text);
};

// ---- results ---------------------------------------------------------------------------

// The error type raised by failed commands (ztproxy.CommandError), made at import.
void defineCommandError(py::module_& m);
// Raises ztproxy.CommandError(command, result, log).
[[noreturn]] void raiseCommandError(const char* command, int result, const std::string& log);

// What a command hands back: with check, None or the value(s) on success and the error
// otherwise; without, the raw result, paired with the value(s) when there are outputs.
py::object finish(const char* command, int result, bool ok, const std::string& log, py::object outputs,
                  bool hasOutputs, bool check);

// A text from the device as str: UTF-8, with undecodable bytes kept as surrogates.
py::str deviceText(const std::string& bytes);

// ---- callback delivery -------------------------------------------------------------------

// Hands the library's data callbacks to a Python callable as (code, numpy.uint8 array).
//
// While the callable keeps up, it is called on the library's own thread with an array
// that views the library's buffer; the GIL is taken only around the call. Once a call
// takes longer than slowCall (the GIL wait included), later callbacks are copied into a
// queue of `capacity` messages that a thread of this object hands to the callable, and
// messages that find the queue full are dropped and counted, so that a slow consumer
// never holds up the library. Back to direct calls when the queue has emptied and calls
// are quick again. Online and offline notices (283, 284) are never dropped.
class Dispatcher {
public:
    // The owner stops it (stop()) before it goes.
    Dispatcher() = default;
    Dispatcher(const Dispatcher&) = delete;
    Dispatcher& operator=(const Dispatcher&) = delete;

    // GIL held. None stops delivery.
    void setCallable(py::object fn, std::size_t capacity);
    // The library's callback; user is the Dispatcher.
    static void onData(int code, char* data, int length, void* user);
    // Ends the queue thread; queued messages are discarded. GIL released.
    void stop();

    std::size_t delivered() const { return m_delivered; }
    std::size_t dropped() const { return m_dropped; }

    static constexpr std::chrono::milliseconds kSlowCall{20};

private:
    struct Message {
        int code;
        std::vector<char> bytes;
    };

    void enqueue(int code, const char* data, int length);
    void run();
    // GIL held. owned: the bytes belong to this object and may be kept by the callable.
    void call(int code, char* data, int length, std::vector<char>* owned);

    py::object m_fn; // guarded by the GIL
    std::atomic<bool> m_active{false};
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_queuedMode = false;
    bool m_stopping = false;
    std::size_t m_capacity = 4;
    std::deque<Message> m_queue;
    std::vector<std::vector<char>> m_spare; // buffers to reuse
    std::thread m_worker;
    std::atomic<std::size_t> m_delivered{0};
    std::atomic<std::size_t> m_dropped{0};
    bool m_warnedKept = false; // guarded by the GIL
};

// A data callback in C++ that only counts, for measuring a link without Python in the way
// (ztproxy.FrameCounter).
class FrameCounter {
public:
    explicit FrameCounter(int code) : m_code(code) {}
    static void onData(int code, char* data, int length, void* user);
    // Waits (GIL released by the caller) until count messages arrived or seconds passed.
    bool wait(std::size_t count, double seconds);
    std::size_t frames();
    std::size_t bytes();
    void reset();

private:
    int m_code; // -1: every code
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::size_t m_frames = 0;
    std::size_t m_bytes = 0;
};

// ---- owning wrappers -------------------------------------------------------------------

// An object the module closes at interpreter exit, before Python's threads stop.
class Closable {
public:
    Closable();
    virtual ~Closable();
    Closable(const Closable&) = delete;
    Closable& operator=(const Closable&) = delete;
    // Ends the library object and its callback delivery. GIL released.
    virtual void close() = 0;
    // Closes every object still open; registered with atexit.
    static void closeAll();
};

// A library object of type T as Python sees it: the object itself, what it needs to
// outlive it (an opened USB device), and the delivery of its callbacks, which outlives it.
template <class T>
class Owned : public Closable {
public:
    explicit Owned(std::unique_ptr<T> object, std::shared_ptr<void> keep = nullptr)
        : m_keep(std::move(keep)), m_object(std::move(object))
    {
    }
    ~Owned() override { Owned::close(); }

    // The object for the duration of one call: close() waits until no call holds it, so
    // that a thread closing the object never frees it under another thread's call.
    class Use {
    public:
        explicit Use(Owned& owner) : m_owner(owner)
        {
            std::lock_guard<std::mutex> lock(owner.m_mutex);
            if (!owner.m_object)
                throw std::runtime_error("the object is closed");
            m_object = owner.m_object.get();
            ++owner.m_inUse;
        }
        ~Use()
        {
            std::lock_guard<std::mutex> lock(m_owner.m_mutex);
            if (--m_owner.m_inUse == 0)
                m_owner.m_idle.notify_all();
        }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        T& operator*() const { return *m_object; }
        T* operator->() const { return m_object; }

    private:
        Owned& m_owner;
        T* m_object;
    };

    Use use() { return Use(*this); }
    Dispatcher& dispatcher() { return m_dispatcher; }
    // A native counter registered as the callback stays alive while registered.
    py::object counter;

    void close() override
    {
        std::unique_ptr<T> object;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            object = std::move(m_object);
            m_idle.wait(lock, [this] { return m_inUse == 0; });
        }
        object.reset();
        m_keep.reset();
        m_dispatcher.stop();
    }

private:
    Dispatcher m_dispatcher;
    std::mutex m_mutex;
    std::condition_variable m_idle;
    int m_inUse = 0; // calls holding the object, guarded by m_mutex
    std::shared_ptr<void> m_keep;
    std::unique_ptr<T> m_object;
};

// Deletes an owned object with the GIL released, so that the library's threads, which may
// be waiting for the GIL to run a callback, can finish while the object joins them.
struct ReleasingDelete {
    template <class W>
    void operator()(W* w) const
    {
        {
            py::gil_scoped_release release;
            w->close();
        }
        delete w; // drops the callable, which needs the GIL
    }
};

template <class T>
using OwnedClass = py::class_<Owned<T>, std::unique_ptr<Owned<T>, ReleasingDelete>>;

// registerModuleServerDataCB(callback) and friends: a Python callable, None, or a
// FrameCounter, on an object whose register method is Register.
template <class T, class Register>
void setDataCallback(Owned<T>& w, py::object fn, std::size_t queue, Register reg)
{
    const auto use = w.use();
    T& object = *use;
    if (!fn.is_none() && !py::isinstance<FrameCounter>(fn) && !PyCallable_Check(fn.ptr()))
        throw py::type_error("the callback must be callable (code, data), a FrameCounter or None");
    if (queue == 0)
        throw py::value_error("queue must hold at least one message");
    if (py::isinstance<FrameCounter>(fn)) {
        w.dispatcher().setCallable(py::none(), queue);
        w.counter = fn;
        py::gil_scoped_release release;
        (object.*reg)(&FrameCounter::onData, fn.cast<FrameCounter*>());
        return;
    }
    w.dispatcher().setCallable(fn, queue);
    {
        py::gil_scoped_release release;
        (object.*reg)(&Dispatcher::onData, &w.dispatcher());
    }
    w.counter = py::none();
}

// The methods every owning class shares: close, the context manager, the counters, and
// its data callback registration under the library's name.
template <class T, class Register>
void addOwnedBasics(OwnedClass<T>& cls, const char* registerName, Register reg)
{
    cls.def("close", [](Owned<T>& w) {
           py::gil_scoped_release release;
           w.close();
       },
            "Stops the object: its threads end and its callback is no longer called.")
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](Owned<T>& w, py::args) {
            py::gil_scoped_release release;
            w.close();
        })
        .def_property_readonly("frames_delivered", [](Owned<T>& w) { return w.dispatcher().delivered(); },
                               "Callbacks handed to the Python callable so far.")
        .def_property_readonly("frames_dropped", [](Owned<T>& w) { return w.dispatcher().dropped(); },
                               "Callbacks dropped because the callable fell behind.")
        .def(registerName,
             [reg](Owned<T>& w, py::object fn, std::size_t queue) { setDataCallback(w, fn, queue, reg); },
             py::arg("callback"), py::arg("queue") = 4,
             "Sets the data callback: a callable (code, data) with data a numpy.uint8 array that views the\n"
             "message only during the call (keep data.copy()), a FrameCounter, or None. queue: messages held\n"
             "for a callable that fell behind; more are dropped and counted in frames_dropped.");
}

// ---- the command binder ----------------------------------------------------------------

// How a parameter of a command method appears in Python. Values and const references are
// arguments; pointers and other references are outputs, returned after the call. Held is
// what the binder keeps for the parameter, Arg what Python passes.
template <class P>
struct Param {
    using Held = std::remove_cv_t<P>;
    using Arg = Held;
    static constexpr bool kOutput = false;
    static P pass(Held& held) { return std::move(held); }
};
template <class T>
struct Param<const T&> {
    using Held = T;
    using Arg = T;
    static constexpr bool kOutput = false;
    static const T& pass(Held& held) { return held; }
};
template <>
struct Param<const char*> {
    using Held = std::string;
    using Arg = std::string;
    static constexpr bool kOutput = false;
    static const char* pass(Held& held) { return held.c_str(); }
};
// A byte travels as a number from 0 to 255 (pybind11 takes a char from a one-letter str).
template <>
struct Param<char> {
    using Held = char;
    using Arg = unsigned char;
    static constexpr bool kOutput = false;
    static char pass(Held& held) { return held; }
};
template <class T>
struct Param<T*> {
    static_assert(!std::is_same_v<T, char> && !std::is_void_v<T>, "a buffer needs an adapter");
    using Held = T;
    using Arg = void;
    static constexpr bool kOutput = true;
    static T* pass(Held& held) { return &held; }
};
template <class T>
struct Param<T&> {
    using Held = T;
    using Arg = void;
    static constexpr bool kOutput = true;
    static T& pass(Held& held) { return held; }
};

template <class T>
py::object toPython(const T& value)
{
    return py::cast(value);
}
py::object toPython(const std::string& value);
py::object toPython(const std::vector<std::string>& values);

template <class Self, class... P>
struct Signature {};
template <class Self, class... P>
Signature<Self, P...> signatureOf(int (Self::*)(P...));
template <class Self, class... P>
Signature<Self, P...> signatureOf(int (*)(Self&, P...));

// A Python method made from a method of Self (or an adapter taking Self&) with
// parameters P, on a class whose objects are W (W::get() gives something that is a Self).
template <class W, auto F, class Self, class... P>
struct Command {
    using Held = std::tuple<typename Param<P>::Held...>;
    static constexpr bool kIsOutput[] = {Param<P>::kOutput..., false};
    static constexpr int kOutputs = (0 + ... + (Param<P>::kOutput ? 1 : 0));
    using Inputs = decltype(std::tuple_cat(
        std::declval<std::conditional_t<Param<P>::kOutput, std::tuple<>, std::tuple<typename Param<P>::Arg>>>()...));

    // The position among the inputs of parameter i.
    static constexpr std::size_t inputIndex(std::size_t i)
    {
        std::size_t n = 0;
        for (std::size_t j = 0; j < i; ++j)
            n += kIsOutput[j] ? 0 : 1;
        return n;
    }

    template <std::size_t I, class In>
    static void store(Held& held, In& inputs)
    {
        if constexpr (!Param<std::tuple_element_t<I, std::tuple<P...>>>::kOutput)
            std::get<I>(held) = static_cast<std::tuple_element_t<I, Held>>(std::move(std::get<inputIndex(I)>(inputs)));
    }

    template <std::size_t... I>
    static int call(Self& self, Held& held, std::index_sequence<I...>)
    {
        if constexpr (std::is_member_function_pointer_v<decltype(F)>)
            return (self.*F)(Param<P>::pass(std::get<I>(held))...);
        else
            return F(self, Param<P>::pass(std::get<I>(held))...);
    }

    template <class Pr, class H>
    static void addOutput(py::list& values, const H& value)
    {
        if constexpr (Pr::kOutput)
            values.append(toPython(value));
    }

    template <std::size_t... I>
    static py::object outputs(const Held& held, std::index_sequence<I...>)
    {
        py::list values;
        (addOutput<Param<P>>(values, std::get<I>(held)), ...);
        if (values.size() == 0)
            return py::none();
        if (values.size() == 1)
            return values[0];
        return py::tuple(values);
    }

    template <class... A>
    static auto function(const char* name, std::tuple<A...>*)
    {
        return [name](W& w, A... args, bool check) -> py::object {
            const auto use = w.use();
            Self& self = *use;
            Held held{};
            std::tuple<A...> inputs(std::move(args)...);
            [&]<std::size_t... I>(std::index_sequence<I...>) {
                (store<I>(held, inputs), ...);
            }(std::index_sequence_for<P...>{});
            int result;
            std::string log;
            {
                py::gil_scoped_release release;
                LogCapture capture;
                result = call(self, held, std::index_sequence_for<P...>{});
                log = capture.text();
            }
            return finish(name, result, result >= 0, log, outputs(held, std::index_sequence_for<P...>{}),
                          kOutputs > 0, check);
        };
    }
};

constexpr const char* kCommandDoc =
    "Runs the device command of the same name. Returns None, the value, or a tuple of the values\n"
    "in the order of the C++ output parameters; raises ztproxy.CommandError (result, log) when the\n"
    "command fails. With check=False returns the raw result instead, paired with the value(s)\n"
    "when the command has outputs: (result, value).";

template <auto F, class Cls, class Self, class... P, class... Names>
void addCommand(Cls& cls, const char* name, Signature<Self, P...>, Names... names)
{
    using C = Command<typename Cls::type, F, Self, P...>;
    static_assert(sizeof...(Names) == std::tuple_size_v<typename C::Inputs>, "one name per argument");
    cls.def(name, C::function(name, static_cast<typename C::Inputs*>(nullptr)), py::arg(names)..., py::kw_only(),
            py::arg("check") = true, kCommandDoc);
}

// One row per command: the method (or adapter) named after the command, letter for
// letter, and a Python name for each of its arguments.
#define ZT_PY_COMMAND(cls, scope, method, ...)                                                                        \
    ::ztpy::addCommand<&scope::method>(cls, #method, decltype(::ztpy::signatureOf(&scope::method)){} __VA_OPT__(, )  \
                                                         __VA_ARGS__)

// ---- parts of the module ---------------------------------------------------------------

void bindRecords(py::module_& m);
void bindDeviceLinks(py::module_& m);
void bindModuleProxy(py::module_& m);
void bindSimulated(py::module_& m);

// Bytes-like Python object as a contiguous byte view (bytes, bytearray, numpy arrays).
py::buffer_info contiguousBytes(const py::buffer& b, bool writable);

} // namespace ztpy
