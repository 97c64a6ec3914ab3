// The version of the library. ztProxyConfig.h names the version of the headers a program
// was compiled with (ZT_PROXY_VERSION); ztProxyVersion() tells which library is loaded.
#ifndef ZT_PROXY_VERSION_H
#define ZT_PROXY_VERSION_H

#include "ztProxyExport.h"

#ifdef __cplusplus
extern "C" {
#endif

// "MAJOR.MINOR.PATCH" of the loaded library, a static text.
ZT_PROXY_API const char* ztProxyVersion(void);

#ifdef __cplusplus
}
#endif

#endif
