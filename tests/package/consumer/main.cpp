// Uses the installed headers and library the way an application would.
#include <TThreadC.h>
#include <ztDeviceProxyProtocol.h>
#include <ztLog.h>
#include <ztModuleProxyClient.h>
#include <ztModuleProxyServer.h>
#include <ztProxyConfig.h>
#include <ztProxyVersion.h>
#include <ztScanEmbeddedUDPClient.h>
#include <zt_embedded_msg.h>
#include <zt_msg.h>
#ifdef CONSUMER_WITH_IMAGE
#include <ztImageAssembler.h>
#endif

#include <cstdio>
#include <cstring>

namespace {
struct Job : TThreadC<void> {
    int done = 0;
    void Run() override { done = 1; }
};

bool fails(bool bad, const char* what)
{
    if (bad)
        std::printf("consumer: %s\n", what);
    return bad;
}
} // namespace

int main()
{
    const int value = 7;
    _ZT_PROXY_MSG_* msg = zt_msg_create(3, 0x10006, 4, &value);
    int read = 0;
    if (fails(msg == nullptr || zt_msg_is_avalible(msg) != 0 || zt_msg_get_full_size(msg) != 20, "zt_msg functions"))
        return 1;
    std::memcpy(&read, zt_msg_get_data(msg), 4);
    zt_msg_release(msg);
    Job job;
    void* handle = nullptr;
    void** out = &handle;
    void* embedded = zt_embedded_msg_create(8, 2, nullptr);
    if (fails(job.Create(out, false, 0, false, false) != 0 || TThreadC<void>::Join(handle) != 0 || job.done != 1, "TThreadC") ||
        fails(embedded == nullptr || zt_embedded_msg_get_full_size(embedded) != 8, "zt_embedded_msg functions") ||
        fails(std::strcmp(ztProxyVersion(), ZT_PROXY_VERSION) != 0, "library and header versions differ"))
        return 1;
    zt_embedded_msg_release(embedded);
    ztLogSetLevel(ztLogParseLevel("error"));
    ztModuleProxyServer host;
    ztScanEmbeddedUDPClient udp;
    ztScanEmbeddedUDPClient copy(udp);
    ztModuleProxyClient client;
    client.registerModuleClientDataCB(nullptr, nullptr);
    ztDeviceProxyProtocol device, other;
    other = device;
    if (fails(host.sendTrigger() != -1, "a host without a module must fail its requests") ||
        fails(copy.IsConnected(), "a new UDP client is not connected"))
        return 1;
#ifdef CONSUMER_WITH_IMAGE
    // OpenCV core comes with the package: cv::Mat is created, read and freed here.
    ztImageAssembler assembler;
    unsigned short pixels[4] = {0, 1024, 1200, 65535};
    const cv::Mat image = assembler.imageFormat_16To8(pixels, 4, 2, 2);
    if (fails(image.rows != 2 || image.at<unsigned char>(0, 1) != 255 || image.at<unsigned char>(1, 0) != 50 ||
                  pixels[3] != 18948, "imageFormat_16To8"))
        return 1;
#endif
    std::printf("consumer ok %d\n", read);
    return 0;
}
