// Control of the library's log output.
//
// The library writes one line per event to a single logger. By default warnings and
// errors go to standard error; the environment variable ZTPROXY_LOG_LEVEL (trace, debug,
// info, warn, error, off) sets the starting level. A host application may change the
// level at any time and route the lines to its own callback.
#ifndef ZT_LOG_H
#define ZT_LOG_H

#include "ztProxyExport.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum ztLogLevel {
    ZTLOG_LEVEL_TRACE = 0,
    ZTLOG_LEVEL_DEBUG = 1,
    ZTLOG_LEVEL_INFO = 2,
    ZTLOG_LEVEL_WARN = 3,
    ZTLOG_LEVEL_ERROR = 4,
    ZTLOG_LEVEL_OFF = 6,
} ztLogLevel;

// Receives each log line that passes the level: its level, the text exactly as the
// library formatted it (line ends included where the text has them), and the user pointer.
// It runs on whichever thread logged, so it must be thread-safe.
typedef void (*ztLogCallback)(int level, const char* text, void* user);

// Sets the lowest level that is written; lines below it are not even formatted.
ZT_PROXY_API void ztLogSetLevel(int level);
ZT_PROXY_API int ztLogGetLevel(void);
// Parses "trace", "debug", "info", "warn", "error" or "off"; -1 for anything else.
ZT_PROXY_API int ztLogParseLevel(const char* name);
// Routes every line to cb instead of standard error; a null cb restores standard error.
ZT_PROXY_API void ztLogSetCallback(ztLogCallback cb, void* user);

#ifdef __cplusplus
}
#endif

#endif
