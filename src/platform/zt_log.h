// The library's logging macros: printf-style formats, formatted type-safely and written
// to the one library logger (see ztLog.h for the host application's controls).
#pragma once

#include "ztLog.h"

#include <fmt/printf.h>

#include <string>

namespace zt::log {

bool enabled(int level);
void write(int level, const std::string& text);

template <class... Args>
void printf(int level, const char* format, const Args&... args)
{
    if (!enabled(level))
        return;
    try {
        write(level, fmt::sprintf(format, args...));
    } catch (const std::exception&) {
        // A format that does not match its arguments still leaves a trace.
        write(level, format);
    }
}

} // namespace zt::log

#define ZTLOG_INFO(...) ::zt::log::printf(ZTLOG_LEVEL_INFO, __VA_ARGS__)
#define ZTLOG_WARN(...) ::zt::log::printf(ZTLOG_LEVEL_WARN, __VA_ARGS__)
#define ZTLOG_ERROR(...) ::zt::log::printf(ZTLOG_LEVEL_ERROR, __VA_ARGS__)
