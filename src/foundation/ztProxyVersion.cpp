#include "ztProxyVersion.h"

#include "ztProxyConfig.h"

extern "C" const char* ztProxyVersion(void)
{
    return ZT_PROXY_VERSION;
}
