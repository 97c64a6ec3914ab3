// Host-side link to a USB3 scanner head.
//
// The caller opens the device with libusb (default context), claims its interface and
// passes the handle with the endpoint description. init keeps 32 stream, one control and
// one event transfer in flight, delivers the head's stream packets and events to the data
// callback, sends a heartbeat every 500 ms, reads the ability record and the SET file and
// raises 284 (online); five silent heartbeat periods raise 283 (offline). Commands go out
// on the control endpoint and wait for the next whole reply on the control IN stream.
#ifndef ZT_USB_PROXY_SERVER_H
#define ZT_USB_PROXY_SERVER_H

#include "ztDeviceCommandSet.h"
#include "ztProxyExport.h"
#include "ztProxyTypes.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct libusb_device_handle;
struct libusb_transfer;
namespace ztCamera {
class QlensNetCmd;
class QlensNetProto;
class ztBufferPool;
struct ztPoolFrame;
} // namespace ztCamera
namespace zt {
class ByteQueue;
class DataCallback;
} // namespace zt

class ZT_PROXY_API ztUsbProxyServer : public ztDeviceCommandSet {
public:
    ztUsbProxyServer(_ZT_USB3_DEVICE_INFO_ info, libusb_device_handle* handle);
    ~ztUsbProxyServer() override;
    ztUsbProxyServer(const ztUsbProxyServer&) = delete;
    ztUsbProxyServer& operator=(const ztUsbProxyServer&) = delete;

    int init();
    // Stops every thread and frees the buffers; safe twice and after a failed init.
    void deInit();

    void registerModuleServerDataCB(void (*cb)(int type, char* data, int length, void* user), void* user);
    // Sets every stop flag and clears connected, then waits 500 ms.
    void releaseClient();
    bool isConnected();
    void setHeartBeatAlive(bool alive);
    // Drops any partial packet of the stream decoder.
    void resetQlensNetProto();

    // Control exchange: sends cmd on the control OUT endpoint and, when waitReply is set,
    // waits up to timeoutMs for the next whole reply (below 10 MiB, or below replyLimit)
    // and copies it to reply. 0 or -1.
    int sendCtrlCmd(char* cmd, int cmdLength, char* reply, bool waitReply, int timeoutMs);
    int sendCtrlCmd_2(char* cmd, int cmdLength, char* reply, int replyLimit, bool waitReply, int timeoutMs);
    // Sends the bytes on the control OUT endpoint without waiting.
    int sendData(std::string& data);

    // The serial number of the device description passed at construction.
    std::string getDeviceSN();

private:
    // Drives the receive paths by hand, without a device (src/usb/ztUsbInbound.h).
    friend struct ztUsbInbound;

    static unsigned int onDataRecvThread(void* self);
    static unsigned int onStreamProcessThread(void* self);
    static unsigned int onEventProcessThread(void* self);
    static unsigned int onHeartBeatSendThread(void* self);
    unsigned int onDataRecvThreadFunc();
    unsigned int onStreamProcessThreadFunc();
    unsigned int onEventProcessThreadFunc();
    unsigned int onHeartBeatSendThreadFunc();

    int allocateReplyBuffers();
    // Drops a packet still being written into a stream frame and makes both frame pools.
    int initPools();
    // Whether the caller is the stream, event or transfer thread (a frame's callback).
    bool onFrameThread() const;
    // The threads, the ability query and the SET file of init, on a stopped object.
    int startUp();
    unsigned int allocateBuffer_stream();
    unsigned int allocateBuffer_ctrl();
    unsigned int allocateBuffer_event();
    unsigned int allocateTransfers(int path);
    void free_transfer_buffers(unsigned char** buffers, libusb_transfer** transfers, int count);
    static void xfer_callback_stream(libusb_transfer* transfer);
    static void xfer_callback_ctrl(libusb_transfer* transfer);
    static void xfer_callback_event(libusb_transfer* transfer);
    // Resubmits a finished transfer unless its path is stopping.
    void resubmit(libusb_transfer* transfer, int path);
    void preProcessMsg(char* msg);
    void raiseDataCB(int type, void* data, int length);
    int sendHeartbeat();
    int exchange(const char* name, char* cmd, int cmdLength, char* reply, int replyLimit, bool waitReply,
                 int timeoutMs);
    // The command catalogue's exchange over the control endpoints.
    struct CommandLink;
    zt::commands::Link& commandLink() override;
    void describeForRecording(zt::RecorderCore& recorder) override;
    void processFrames(ztCamera::ztBufferPool& pool, std::atomic<bool>& stop);
    // Hands a ready frame's message on and gives the frame back to its pool.
    void processFrame(ztCamera::ztBufferPool& pool, ztCamera::ztPoolFrame* frame);
    void dropLentFrame();

    std::atomic<bool> m_bConnected{false};
    int m_initResult = -1; // what the running init returned
    std::atomic<bool> m_bHeartBeatAlive{false};
    std::atomic<int> m_missedHeartBeats{0};
    std::mutex m_cmdMutex;
    std::mutex m_recvMutex;
    std::unique_ptr<zt::ByteQueue> m_ctrlRecv;
    std::condition_variable m_ctrlArrived; // bytes were added to m_ctrlRecv
    std::unique_ptr<zt::ByteQueue> m_eventRecv;
    std::unique_ptr<ztCamera::ztBufferPool> m_streamPool;
    std::unique_ptr<ztCamera::ztBufferPool> m_eventPool;
    char* m_pDataRecv_ctrl = nullptr;
    char* m_pFileRecv_ctrl = nullptr;
    std::shared_ptr<ztCamera::QlensNetCmd> m_cmd;
    std::mutex m_decoderMutex;
    // Lends the decoder stream frames to write packets into (declared before the decoder,
    // which gives a lent frame back when it is destroyed).
    struct StreamStorage;
    std::unique_ptr<StreamStorage> m_streamStorage;
    std::unique_ptr<ztCamera::QlensNetProto> m_decoder;
    std::unique_ptr<zt::DataCallback> m_dataCB;
    std::unique_ptr<CommandLink> m_link;
    libusb_device_handle* m_handle;
    _ZT_USB3_DEVICE_INFO_ m_info;
    unsigned int m_extra;
    // Transfers in flight per path. libusb runs completion callbacks on whichever thread
    // handles events, a command's or the heartbeat's synchronous transfer included, while
    // the receive thread submits and counts: the counts are atomic.
    std::atomic<int> m_pending[3] = {0, 0, 0};
    std::atomic<bool> m_stop[4];
    unsigned char** m_buffers[3] = {nullptr, nullptr, nullptr};
    libusb_transfer** m_transfers[3] = {nullptr, nullptr, nullptr};
    std::thread m_hDataRecvThread;
    std::thread m_hHeartBeatThread;
    std::thread m_hStreamProcessThread;
    std::thread m_hEventProcessThread;
    std::vector<std::thread> m_forgottenThreads;
};

#endif
