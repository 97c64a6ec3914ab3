// Device commands whose outputs do not come back through plain output parameters, as
// functions that fill strings and records: shared by the tool's command table and the
// Python bindings.
#ifndef ZT_TOOLS_DEVICE_OUTPUTS_H
#define ZT_TOOLS_DEVICE_OUTPUTS_H

#include "ztDeviceCommandSet.h"

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

namespace zt::device_outputs {

// Every reply, and so every name in it, fits in the links' reply buffer of 10 MiB.
constexpr std::size_t kLargestReply = 0xA00000;

inline int getCameraROI(ztDeviceCommandSet& d, std::string& name, short& x, short& y, short& width, short& height)
{
    std::vector<char> buffer(kLargestReply);
    int length = 0;
    const int result = d.getCameraROI(buffer.data(), length, x, y, width, height);
    if (result == 0 && length >= 0 && static_cast<std::size_t>(length) <= buffer.size())
        name.assign(buffer.data(), static_cast<std::size_t>(length));
    return result;
}

inline int getCurDeviceAbilityInfo(ztDeviceCommandSet& d, DeviceAbilityInfo& ability)
{
    ability = d.getCurDeviceAbilityInfo();
    return 0;
}

inline int getWifi(ztDeviceCommandSet& d, std::string& ssid, std::string& password)
{
    // Each text has a one-byte length: 255 bytes and the terminator the zeros provide.
    char ssidBuffer[256] = {};
    char passwordBuffer[256] = {};
    const int result = d.getWifi(ssidBuffer, passwordBuffer);
    ssid.assign(ssidBuffer, strnlen(ssidBuffer, sizeof ssidBuffer));
    password.assign(passwordBuffer, strnlen(passwordBuffer, sizeof passwordBuffer));
    return result;
}

} // namespace zt::device_outputs

#endif
