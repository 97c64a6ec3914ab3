// Log capture, command results, callback delivery and the lifetime of owned objects.
#include "binding.h"

#include "ztLog.h"
#include "ztProxyTypes.h"

#include <pybind11/eval.h>

#include <cstdio>
#include <optional>
#include <set>

namespace ztpy {

// ---- log lines ---------------------------------------------------------------------------

namespace {

thread_local LogCapture* t_capture = nullptr;

void onLogLine(int level, const char* text, void*)
{
    std::string line = text;
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    if (level >= ZTLOG_LEVEL_WARN && t_capture != nullptr)
        appendCaptured(line.c_str());
    // The shape of the library's own lines on standard error.
    static const char* const kNames[] = {"trace", "debug", "info", "warning", "error"};
    std::fprintf(stderr, "[%s] [ztProxyProtocol] %s\n", level >= 0 && level <= 4 ? kNames[level] : "log",
                 line.c_str());
}

} // namespace

void installLogRouting()
{
    ztLogSetCallback(&onLogLine, nullptr);
}

void appendCaptured(const char* text)
{
    std::string& lines = t_capture->m_lines;
    if (!lines.empty())
        lines += '\n';
    lines += text;
}

LogCapture::LogCapture() : m_outer(t_capture)
{
    t_capture = this;
}

LogCapture::~LogCapture()
{
    t_capture = m_outer;
}

std::string LogCapture::text() const
{
    return m_lines;
}

// ---- results -----------------------------------------------------------------------------

namespace {

py::object g_commandError;

} // namespace

void defineCommandError(py::module_& m)
{
    py::dict scope;
    py::exec(R"(
class CommandError(RuntimeError):
    """A command of the library failed.

    command: the C++ name of the command; result: the code it returned; log: the warnings
    and errors the library logged while it ran (empty when it logged none).
    """

    def __init__(self, command, result, log):
        text = f"{command} failed with {result}"
        if log:
            text += ": " + log
        super().__init__(text)
        self.command = command
        self.result = result
        self.log = log
)",
             scope);
    g_commandError = scope["CommandError"];
    g_commandError.attr("__module__") = "ztproxy";
    m.attr("CommandError") = g_commandError;
}

void raiseCommandError(const char* command, int result, const std::string& log)
{
    py::object error = g_commandError(command, result, deviceText(log));
    PyErr_SetObject(g_commandError.ptr(), error.ptr());
    throw py::error_already_set();
}

py::object finish(const char* command, int result, bool ok, const std::string& log, py::object outputs,
                  bool hasOutputs, bool check)
{
    if (!check)
        return hasOutputs ? py::object(py::make_tuple(result, outputs)) : py::object(py::int_(result));
    if (!ok)
        raiseCommandError(command, result, log);
    return outputs;
}

py::str deviceText(const std::string& bytes)
{
    PyObject* text = PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), "surrogateescape");
    if (text == nullptr)
        throw py::error_already_set();
    return py::reinterpret_steal<py::str>(text);
}

py::object toPython(const std::string& value)
{
    return deviceText(value);
}

py::object toPython(const std::vector<std::string>& values)
{
    py::list list;
    for (const std::string& v : values)
        list.append(deviceText(v));
    return list;
}

py::buffer_info contiguousBytes(const py::buffer& b, bool writable)
{
    py::buffer_info info = b.request(writable);
    bool contiguous = true;
    py::ssize_t expected = info.itemsize;
    for (py::ssize_t d = info.ndim - 1; d >= 0; --d) {
        contiguous = contiguous && (info.shape[d] <= 1 || info.strides[d] == expected);
        expected *= info.shape[d];
    }
    if (!contiguous)
        throw py::value_error("the buffer must be contiguous (numpy.ascontiguousarray)");
    return info;
}

// ---- callback delivery ---------------------------------------------------------------

namespace {

using Clock = std::chrono::steady_clock;

bool isLinkNotice(int code)
{
    return code == ZT_CODE_DEVICE_ONLINE || code == ZT_CODE_DEVICE_OFFLINE;
}

} // namespace

// The GIL for a call on one of the library's threads. A thread that Python does not know
// gets a thread state on its first call and keeps it until it ends, instead of making and
// freeing one per call.
class LibraryThreadGil {
public:
    LibraryThreadGil()
    {
        const bool known = PyGILState_GetThisThreadState() != nullptr;
        m_gil.emplace();
        if (!known && !t_kept.kept) {
            m_gil->inc_ref();
            t_kept.kept = true;
        }
    }

private:
    struct Kept {
        bool kept = false;
        ~Kept()
        {
            // Threads of a closed object end before the interpreter does (see atexit).
            if (kept && Py_IsInitialized()) {
                py::gil_scoped_acquire gil;
                gil.dec_ref();
            }
        }
    };
    static thread_local Kept t_kept;
    std::optional<py::gil_scoped_acquire> m_gil;
};

thread_local LibraryThreadGil::Kept LibraryThreadGil::t_kept;

void Dispatcher::setCallable(py::object fn, std::size_t capacity)
{
    m_fn = fn.is_none() ? py::object() : fn;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_capacity = capacity;
    m_active = static_cast<bool>(m_fn);
}

void Dispatcher::stop()
{
    m_active = false;
    std::thread worker;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        worker = std::move(m_worker);
        m_queue.clear();
        m_queuedMode = false;
    }
    m_wake.notify_all();
    if (worker.joinable())
        worker.join();
}

void Dispatcher::onData(int code, char* data, int length, void* user)
{
    auto* self = static_cast<Dispatcher*>(user);
    if (!self->m_active.load(std::memory_order_relaxed))
        return;
    {
        std::lock_guard<std::mutex> lock(self->m_mutex);
        if (self->m_stopping)
            return;
        if (self->m_queuedMode) {
            self->enqueue(code, data, length);
            return;
        }
    }
    const auto start = Clock::now();
    {
        LibraryThreadGil gil;
        self->call(code, data, length, nullptr);
    }
    if (Clock::now() - start <= kSlowCall)
        return;
    // The callable fell behind: from now on it is fed from the queue.
    std::lock_guard<std::mutex> lock(self->m_mutex);
    if (self->m_stopping)
        return;
    self->m_queuedMode = true;
    if (!self->m_worker.joinable())
        self->m_worker = std::thread([self] { self->run(); });
}

// Called with m_mutex held.
void Dispatcher::enqueue(int code, const char* data, int length)
{
    if (m_queue.size() >= m_capacity && !isLinkNotice(code)) {
        ++m_dropped;
        return;
    }
    std::vector<char> bytes;
    if (!m_spare.empty()) {
        bytes = std::move(m_spare.back());
        m_spare.pop_back();
    }
    bytes.assign(data, data + length);
    m_queue.push_back({code, std::move(bytes)});
    m_wake.notify_one();
}

void Dispatcher::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
        if (m_stopping)
            return;
        Message message = std::move(m_queue.front());
        m_queue.pop_front();
        lock.unlock();
        const auto start = Clock::now();
        {
            LibraryThreadGil gil;
            call(message.code, message.bytes.data(), static_cast<int>(message.bytes.size()), &message.bytes);
        }
        const bool quick = Clock::now() - start <= kSlowCall;
        lock.lock();
        if (message.bytes.capacity() > 0 && m_spare.size() < m_capacity)
            m_spare.push_back(std::move(message.bytes));
        if (quick && m_queue.empty())
            m_queuedMode = false;
    }
}

void Dispatcher::call(int code, char* data, int length, std::vector<char>* owned)
{
    if (!m_fn)
        return;
    static char empty = 0;
    char* bytes = data != nullptr ? data : &empty;
    // A queued message's bytes move into the array's owner, so that an array the callable
    // keeps stays valid; when nobody kept it they come back for reuse.
    auto* keep = owned != nullptr ? new std::vector<char>(std::move(*owned)) : nullptr;
    py::capsule base = keep != nullptr ? py::capsule(keep, [](void* p) { delete static_cast<std::vector<char>*>(p); })
                                       : py::capsule(&empty, [](void*) {});
    if (keep != nullptr)
        bytes = keep->empty() ? &empty : keep->data();
    py::array_t<unsigned char> array({static_cast<py::ssize_t>(length)}, {static_cast<py::ssize_t>(1)},
                                     reinterpret_cast<unsigned char*>(bytes), base);
    ++m_delivered;
    // Held here: the callable may be replaced while it runs.
    const py::object fn = m_fn;
    try {
        fn(code, array);
    } catch (py::error_already_set& e) {
        e.discard_as_unraisable(fn);
    }
    if (array.ref_count() == 1) {
        if (keep != nullptr)
            *owned = std::move(*keep);
        return;
    }
    if (keep == nullptr && !m_warnedKept) {
        m_warnedKept = true;
        if (PyErr_WarnEx(PyExc_RuntimeWarning,
                         "ztproxy: a callback kept its data array, which views the library's buffer only "
                         "during the call; keep data.copy() instead",
                         1) != 0)
            PyErr_Clear();
    }
}

// ---- native counter -----------------------------------------------------------------------

void FrameCounter::onData(int code, char*, int length, void* user)
{
    auto* self = static_cast<FrameCounter*>(user);
    if (self->m_code >= 0 && code != self->m_code)
        return;
    std::lock_guard<std::mutex> lock(self->m_mutex);
    ++self->m_frames;
    self->m_bytes += static_cast<std::size_t>(length);
    self->m_arrived.notify_all();
}

bool FrameCounter::wait(std::size_t count, double seconds)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_arrived.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return m_frames >= count; });
}

std::size_t FrameCounter::frames()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_frames;
}

std::size_t FrameCounter::bytes()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bytes;
}

void FrameCounter::reset()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_frames = 0;
    m_bytes = 0;
}

// ---- lifetime ------------------------------------------------------------------------------

namespace {

std::mutex g_openMutex;
std::set<Closable*> g_open;

} // namespace

Closable::Closable()
{
    std::lock_guard<std::mutex> lock(g_openMutex);
    g_open.insert(this);
}

Closable::~Closable()
{
    std::lock_guard<std::mutex> lock(g_openMutex);
    g_open.erase(this);
}

void Closable::closeAll()
{
    std::set<Closable*> open;
    {
        std::lock_guard<std::mutex> lock(g_openMutex);
        open = g_open;
    }
    for (Closable* c : open)
        c->close();
}

} // namespace ztpy
