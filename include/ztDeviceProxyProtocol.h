// ztDeviceProxyProtocol: an exported class that carries no behaviour; it exists so that
// code written against it keeps linking.
#ifndef ZT_DEVICE_PROXY_PROTOCOL_H
#define ZT_DEVICE_PROXY_PROTOCOL_H

#include "ztProxyExport.h"

class ZT_PROXY_API ztDeviceProxyProtocol {
public:
    ztDeviceProxyProtocol();
    ~ztDeviceProxyProtocol();
    ztDeviceProxyProtocol& operator=(const ztDeviceProxyProtocol& other);
};

#endif
