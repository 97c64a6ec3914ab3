// Uses the installed headers and library the way an application would.
#include <TThreadC.h>
#include <ztDeviceProxyProtocol.h>
#include <ztLog.h>
#include <ztProxyConfig.h>
#include <ztProxyVersion.h>
#include <ztModuleProxyClient.h>
#include <zt_embedded_msg.h>
#include <zt_msg.h>
#include <ztModuleProxyServer.h>
#include <ztScanEmbeddedUDPClient.h>
#ifdef CONSUMER_WITH_IMAGE
#include <ztImageAssembler.h>
#endif

#include <cstdio>
#include <cstring>

namespace {
class Job : public TThreadC<void> {
public:
    int done = 0;
    void Run() override { done = 1; }
};
} // namespace

int main()
{
    const int value = 7;
    _ZT_PROXY_MSG_* msg = zt_msg_create(3, 0x10006, 4, &value);
    if (msg == nullptr || zt_msg_is_avalible(msg) != 0 || zt_msg_get_full_size(msg) != 20) {
        std::puts("consumer: zt_msg functions misbehave");
        return 1;
    }
    int read = 0;
    std::memcpy(&read, zt_msg_get_data(msg), 4);
    zt_msg_release(msg);

    Job job;
    void* handle = nullptr;
    void** out = &handle;
    if (job.Create(out, false, 0, false, false) != 0 || TThreadC<void>::Join(handle) != 0 || job.done != 1) {
        std::puts("consumer: TThreadC misbehaves");
        return 1;
    }

    void* embedded = zt_embedded_msg_create(8, 2, nullptr);
    if (embedded == nullptr || zt_embedded_msg_is_avalible(embedded) != 0 || zt_embedded_msg_get_full_size(embedded) != 8) {
        std::puts("consumer: zt_embedded_msg functions misbehave");
        return 1;
    }
    zt_embedded_msg_release(embedded);

    if (std::strcmp(ztProxyVersion(), ZT_PROXY_VERSION) != 0) {
        std::printf("consumer: library version %s, headers %s\n", ztProxyVersion(), ZT_PROXY_VERSION);
        return 1;
    }

    ztLogSetLevel(ztLogParseLevel("error"));
    ztModuleProxyServer host;
    if (host.sendTrigger() != -1) {
        std::puts("consumer: a host without a module must fail its requests");
        return 1;
    }
    ztScanEmbeddedUDPClient udp;
    ztScanEmbeddedUDPClient copy(udp);
    if (copy.IsConnected()) {
        std::puts("consumer: a new UDP client is not connected");
        return 1;
    }
    ztModuleProxyClient client;
    client.registerModuleClientDataCB(nullptr, nullptr);
    ztDeviceProxyProtocol device;
    ztDeviceProxyProtocol other;
    other = device;
#ifdef CONSUMER_WITH_IMAGE
    // OpenCV core comes with the package: cv::Mat is created, read and freed here.
    ztImageAssembler assembler;
    unsigned short pixels[4] = {0, 1024, 1200, 65535};
    const cv::Mat image = assembler.imageFormat_16To8(pixels, 4, 2, 2);
    if (image.rows != 2 || image.at<unsigned char>(0, 1) != 255 || image.at<unsigned char>(1, 0) != 50 ||
        pixels[3] != 18948) {
        std::puts("consumer: imageFormat_16To8 misbehaves");
        return 1;
    }
#endif
    std::printf("consumer ok %d\n", read);
    return 0;
}
