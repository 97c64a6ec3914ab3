#include "ztDeviceProxyProtocol.h"

ztDeviceProxyProtocol::ztDeviceProxyProtocol() = default;
ztDeviceProxyProtocol::~ztDeviceProxyProtocol() = default;
ztDeviceProxyProtocol& ztDeviceProxyProtocol::operator=(const ztDeviceProxyProtocol&) = default;
