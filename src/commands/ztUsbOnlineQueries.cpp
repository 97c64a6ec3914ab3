// The queries a USB head answers when it comes online: its ability record and its SET file.
#include "ztUsbProxyServer.h"

#include "DeviceAbility.h"
#include "platform/zt_log.h"
#include "zt_embedded_msg.h"

#include <cstring>

namespace {
constexpr unsigned short kAbilityType = 345;
constexpr unsigned short kSETFileType = 264;
constexpr int kReplyTimeoutMs = 3000;
} // namespace

int ztUsbProxyServer::parseDeviceAblityInfo(const char* data, DeviceAbilityInfo* info)
{
    return zt::commands::parseAbility(data, info);
}

DeviceAbilityInfo ztUsbProxyServer::getCurDeviceAbilityInfo()
{
    std::lock_guard<std::mutex> lock(m_abilityMutex);
    return m_abilityInfo;
}

int ztUsbProxyServer::getDeviceAbilityInfo(DeviceAbilityInfo* info)
{
    if (m_pDataRecv_ctrl == nullptr)
        return -1;
    std::memset(m_pDataRecv_ctrl, 0, 1024);
    void* msg = zt_embedded_msg_create(8, kAbilityType, nullptr);
    if (msg == nullptr)
        return -1;
    const int rc = sendCtrlCmd(static_cast<char*>(msg), 8, m_pDataRecv_ctrl, true, kReplyTimeoutMs);
    zt_embedded_msg_release(msg);
    if (rc == -1) {
        ZTLOG_ERROR("ztUsbProxyServer::[getDeviceAbilityInfo] send cmd failed");
        return -1;
    }
    return zt::commands::judgeAbilityReply(m_pDataRecv_ctrl, info, "ztUsbProxyServer::getDeviceAbilityInfo, msgType is 0");
}

int ztUsbProxyServer::getSETFile(SetFileDataType type)
{
    const std::int32_t value = type;
    if (command("getSETFile", kSETFileType, &value, sizeof value, kSETFileType) != 0)
        return -1;
    // The SET file reaches the application like any other message from the head.
    preProcessMsg(m_pDataRecv_ctrl);
    return 0;
}
