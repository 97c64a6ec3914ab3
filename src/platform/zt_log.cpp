#include "zt_log.h"

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace zt::log {
namespace {

// Hands each line to the host application's callback, exactly as formatted.
class CallbackSink final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
public:
    CallbackSink(ztLogCallback cb, void* user) : cb_(cb), user_(user) {}

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override
    {
        const std::string text(msg.payload.data(), msg.payload.size());
        cb_(static_cast<int>(msg.level), text.c_str(), user_);
    }
    void flush_() override {}

private:
    ztLogCallback cb_;
    void* user_;
};

// %q: the message without the line ends that many of the library's texts carry, so
// that a line on standard error is one line.
class TrimmedMessage final : public spdlog::custom_flag_formatter {
public:
    void format(const spdlog::details::log_msg& msg, const std::tm&, spdlog::memory_buf_t& dest) override
    {
        std::size_t n = msg.payload.size();
        while (n > 0 && (msg.payload[n - 1] == '\n' || msg.payload[n - 1] == '\r'))
            --n;
        dest.append(msg.payload.data(), msg.payload.data() + n);
    }
    std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<TrimmedMessage>(); }
};

struct Backend {
    std::shared_ptr<spdlog::sinks::dist_sink_mt> dist = std::make_shared<spdlog::sinks::dist_sink_mt>();
    std::shared_ptr<spdlog::sinks::sink> stderrSink;
    std::shared_ptr<spdlog::logger> logger;

    Backend()
    {
        auto formatter = std::make_unique<spdlog::pattern_formatter>();
        formatter->add_flag<TrimmedMessage>('q').set_pattern("%Y-%m-%d %H:%M:%S.%e [%l] [ztProxyProtocol] %q");
        stderrSink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
        stderrSink->set_formatter(std::move(formatter));
        dist->add_sink(stderrSink);
        // Not registered in spdlog's global registry, so a host application that uses
        // spdlog itself cannot clash with this logger's name.
        logger = std::make_shared<spdlog::logger>("ztProxyProtocol", dist);
        int level = ZTLOG_LEVEL_WARN;
        const char* env = std::getenv("ZTPROXY_LOG_LEVEL");
        const int parsed = env != nullptr ? ztLogParseLevel(env) : -1;
        if (parsed >= 0)
            level = parsed;
        logger->set_level(static_cast<spdlog::level::level_enum>(level));
        logger->flush_on(spdlog::level::trace);
        if (env != nullptr && parsed < 0)
            logger->warn("ZTPROXY_LOG_LEVEL={} is no level (trace, debug, info, warn, error, off): the level stays warn",
                         env);
    }
};

Backend& backend()
{
    // Never destroyed: worker threads may still log while the process exits.
    static Backend* b = new Backend();
    return *b;
}

} // namespace

bool enabled(int level)
{
    return backend().logger->should_log(static_cast<spdlog::level::level_enum>(level));
}

void write(int level, const std::string& text)
{
    backend().logger->log(static_cast<spdlog::level::level_enum>(level), spdlog::string_view_t(text));
}

} // namespace zt::log

extern "C" {

void ztLogSetLevel(int level)
{
    if (level < ZTLOG_LEVEL_TRACE || level > ZTLOG_LEVEL_OFF)
        return;
    zt::log::backend().logger->set_level(static_cast<spdlog::level::level_enum>(level));
}

int ztLogGetLevel(void)
{
    return static_cast<int>(zt::log::backend().logger->level());
}

int ztLogParseLevel(const char* name)
{
    if (name == nullptr)
        return -1;
    static const struct {
        const char* name;
        int level;
    } names[] = {{"trace", ZTLOG_LEVEL_TRACE}, {"debug", ZTLOG_LEVEL_DEBUG}, {"info", ZTLOG_LEVEL_INFO},
                 {"warn", ZTLOG_LEVEL_WARN},   {"error", ZTLOG_LEVEL_ERROR}, {"off", ZTLOG_LEVEL_OFF}};
    for (const auto& n : names)
        if (std::strcmp(name, n.name) == 0)
            return n.level;
    return -1;
}

void ztLogSetCallback(ztLogCallback cb, void* user)
{
    auto& b = zt::log::backend();
    if (cb != nullptr)
        b.dist->set_sinks({std::make_shared<zt::log::CallbackSink>(cb, user)});
    else
        b.dist->set_sinks({b.stderrSink});
}

} // extern "C"
