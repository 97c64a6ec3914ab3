// The queries a network head answers when it comes online (its ability record, its SET
// files, its controller program version) and the trigger.
#include "ztEmbeddedModuleProxyServer.h"

#include "DeviceAbility.h"
#include "network/EmbeddedInternals.h"
#include "platform/zt_log.h"

#include <string>

namespace {
constexpr unsigned short kAbilityType = 345;
constexpr unsigned short kSETFileType = 264;
constexpr unsigned short kRKVersionType = 276;
constexpr unsigned short kTriggerType = 13;
} // namespace

int ztEmbeddedModuleProxyServer::parseDeviceAblityInfo(const char* data, DeviceAbilityInfo* info)
{
    return zt::commands::parseAbility(data, info);
}

DeviceAbilityInfo ztEmbeddedModuleProxyServer::getCurDeviceAbilityInfo()
{
    std::lock_guard<std::mutex> lock(m_abilityMutex);
    return m_abilityInfo;
}

int ztEmbeddedModuleProxyServer::getDeviceAbilityInfo(DeviceAbilityInfo* info)
{
    int result = -1;
    const int rc = exchange(kAbilityType, nullptr, 0, ReplyRule::None,
                            "ztEmbeddedModuleProxyServer::[getDeviceAbilityInfo] zmq_send failed!",
                            [&](const char* reply) {
                                result = zt::commands::judgeAbilityReply(
                                    reply, info, "ztEmbeddedModuleProxyServer::getDeviceAbilityInfo, msgType is 0");
                            });
    return rc != 0 ? -1 : result;
}

int ztEmbeddedModuleProxyServer::getSETFile(SetFileDataType type)
{
    // Called while the head comes online: no command mutex, only the connection is checked.
    const std::int32_t value = type;
    return exchange(kSETFileType, &value, sizeof value, ReplyRule::Echo,
                    "ztEmbeddedModuleProxyServer [sendTrigger] zmq_send failed!\r\n", nullptr, false);
}

int ztEmbeddedModuleProxyServer::getRKProgramVersion(int* a, int* b, int* c, int* d)
{
    return exchange(kRKVersionType, nullptr, 0, ReplyRule::Echo,
                    "ztEmbeddedModuleProxyServer [getRKProgramVersion] zmq_send failed!\r\n", [&](const char* reply) {
                        const std::uint32_t word = zt::embedded::payloadWord(reply, 4);
                        const int parts[4] = {static_cast<int>(word >> 24), static_cast<int>((word >> 16) & 0xFF),
                                              static_cast<int>((word >> 8) & 0xFF), static_cast<int>(word & 0xFF)};
                        if (a != nullptr)
                            *a = parts[0];
                        if (b != nullptr)
                            *b = parts[1];
                        if (c != nullptr)
                            *c = parts[2];
                        if (d != nullptr)
                            *d = parts[3];
                        // The four numbers are kept as one text with no separator; a head
                        // reporting 7.3.4.0 is model 7340, which streams raw messages.
                        std::string model;
                        for (int part : parts)
                            model += std::to_string(part);
                        std::lock_guard<std::mutex> lock(m_modelMutex);
                        m_deviceModel = model;
                    });
}

int ztEmbeddedModuleProxyServer::sendTrigger()
{
    const std::int32_t start = 1;
    return exchange(kTriggerType, &start, sizeof start, ReplyRule::Status,
                    "ztEmbeddedModuleProxyServer [sendTrigger] zmq_send failed!\r\n");
}
