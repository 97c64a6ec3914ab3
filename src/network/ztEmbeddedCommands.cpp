// The commands only a network head offers, and the light-pen text packets it relays.
#include "ztEmbeddedModuleProxyServer.h"

#include "commands/Catalogue.h"
#include "platform/zt_log.h"

using zt::commands::Cmd;
using zt::commands::Payload;
using zt::commands::ReplyView;
using zt::commands::run;

namespace {
// Whether n bytes from pos lie inside the packet; a position outside it is logged.
bool fits(const char* method, int pos, std::size_t n, const std::string& out)
{
    if (pos >= 0 && static_cast<std::size_t>(pos) + n <= out.size())
        return true;
    ZTLOG_ERROR("ztEmbeddedModuleProxyServer::[%s] position %d outside the packet", method, pos);
    return false;
}
// The light-pen key 6 and its second byte, then the value character "0" or "1".
void putKeyAndValue(const char* method, char key, bool value, int pos, std::string& out)
{
    if (!fits(method, pos, 3, out))
        return;
    out[static_cast<std::size_t>(pos)] = 6;
    out[static_cast<std::size_t>(pos) + 1] = key;
    out[static_cast<std::size_t>(pos) + 2] = value ? '1' : '0';
}
} // namespace

int ztEmbeddedModuleProxyServer::switchHardwareFrameRate(int type)
{
    return run(commandLink(), Cmd::switchHardwareFrameRate, Payload().i32(type));
}

int ztEmbeddedModuleProxyServer::getHardwareFrameRateType(int& type)
{
    return run(commandLink(), Cmd::getHardwareFrameRateType, Payload(), [&type](const ReplyView& r) {
        if (!r.covers(8))
            return r.tooShort();
        if (r.i32(0) != 0)
            return -1;
        type = r.i32(4);
        return 0;
    });
}

int ztEmbeddedModuleProxyServer::preheatRKWithTrigger(int value)
{
    return run(commandLink(), Cmd::preheatRKWithTrigger, Payload().i32(value));
}

int ztEmbeddedModuleProxyServer::getTemp()
{
    return run(commandLink(), Cmd::getTemp);
}

int ztEmbeddedModuleProxyServer::getRGFFile()
{
    return run(commandLink(), Cmd::getRGFFile);
}

void ztEmbeddedModuleProxyServer::dataInitSet(const std::string& deviceId, std::string& out, int n)
{
    // A negative data length would make a frame shorter than its own markers.
    if (n < 0) {
        ZTLOG_ERROR("ztEmbeddedModuleProxyServer::[dataInitSet] bad data length %d", n);
        out.clear();
        return;
    }
    out.assign(static_cast<std::size_t>(n) + 12, static_cast<char>(0xFF));
    out[0] = '*';
    out[static_cast<std::size_t>(n) + 11] = '#';
    setKey(n + 8, out);
    if (deviceId.size() < 4) {
        ZTLOG_ERROR("device id error:%s\r\n", deviceId);
        return;
    }
    out.replace(1, 4, deviceId, 0, 4);
}

void ztEmbeddedModuleProxyServer::setKey(int pos, std::string& out)
{
    if (!fits("setKey", pos, 2, out))
        return;
    out[static_cast<std::size_t>(pos)] = 6;
    out[static_cast<std::size_t>(pos) + 1] = 7;
}

void ztEmbeddedModuleProxyServer::selectDeviceParaCMDSet(int pos, std::string& out)
{
    if (!fits("selectDeviceParaCMDSet", pos, 2, out))
        return;
    out[static_cast<std::size_t>(pos)] = 8;
    out[static_cast<std::size_t>(pos) + 1] = 1;
}

void ztEmbeddedModuleProxyServer::setLPEnabled(bool enable, int pos, std::string& out)
{
    putKeyAndValue("setLPEnabled", 25, enable, pos, out);
}

void ztEmbeddedModuleProxyServer::setLPWorkResult(bool result, int pos, std::string& out)
{
    putKeyAndValue("setLPWorkResult", 27, result, pos, out);
}

void ztEmbeddedModuleProxyServer::packageLPCanWork(const std::string& deviceId, bool enable, std::string& out)
{
    dataInitSet(deviceId, out, 8);
    setLPEnabled(enable, m_lpFrameIndexB, out);
}

void ztEmbeddedModuleProxyServer::packageLPWorkResult(const std::string& deviceId, bool result, std::string& out)
{
    dataInitSet(deviceId, out, 8);
    setLPWorkResult(result, m_lpFrameIndexB, out);
}

void ztEmbeddedModuleProxyServer::packageSelectFirewareVersion(const std::string& deviceId, std::string& out)
{
    dataInitSet(deviceId, out, 8);
    selectDeviceParaCMDSet(m_lpFrameIndexB, out);
    out[static_cast<std::size_t>(m_lpFrameIndexA) + 2] = '0';
}
