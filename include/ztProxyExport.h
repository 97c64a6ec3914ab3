// Export macro of libztProxyProtocol.
//
// Every exported class and function is marked ZT_PROXY_API; everything else in the
// library is hidden. Windows builds export while building the DLL and import otherwise,
// except in programs linked with the library's objects directly (ZT_PROXY_STATIC).
#ifndef ZT_PROXY_EXPORT_H
#define ZT_PROXY_EXPORT_H

#if defined(_WIN32)
#  if defined(ZT_PROXY_BUILDING)
#    define ZT_PROXY_API __declspec(dllexport)
#  elif defined(ZT_PROXY_STATIC)
#    define ZT_PROXY_API
#  else
#    define ZT_PROXY_API __declspec(dllimport)
#  endif
#else
#  define ZT_PROXY_API __attribute__((visibility("default")))
#endif

#endif
