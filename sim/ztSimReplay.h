// Plays a recorded scanner head (a file written by ztRecorder) back to an unmodified
// server: the network recording as a simulated network head (ztSimNetworkHead) listening
// on loopback, the USB recording through the emulated USB head (ztSimUsbHead).
//
// What the head sent unasked (the data, command-data and light-pen connections; the
// stream and event endpoints) goes out as recorded, in the same order and, unless fast, with
// the recorded spacing. Each of those bytes waits for the command requests that came
// before it in the recording, so that a stream recorded after a trigger command starts
// only after the replayed server sent that command. Commands are answered with the
// recorded replies, matched by the whole request (type code and request bytes); a request
// asked again gets the next reply recorded for it (the last one once they are used up).
// A request without a recorded reply gets no answer and a log line. Heartbeats are
// answered as the head answered them.
//
// Bytes that the recording lost (the recorder fell behind) are missing in the replay too;
// loading such a file logs it. The whole file is held in memory.
#pragma once

#include "ztProxyTypes.h"
#include "ztRecorder.h"
#include "ztSimNetworkHead.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

class ztSimUsbHead;

class ztSimReplay {
public:
    ztSimReplay();
    ~ztSimReplay(); // stops
    ztSimReplay(const ztSimReplay&) = delete;
    ztSimReplay& operator=(const ztSimReplay&) = delete;

    // Where the replay's log lines go (standard error by default).
    void setLog(std::function<void(const std::string&)> log);

    // Reads a recording: 0, or -1 when it cannot be read. A file cut short plays up to its
    // last whole record.
    int load(const std::string& path);
    const ztRecorder::Header& header() const;

    // Starts playing a network recording as a head listening on bindIP:port: 0, or -1
    // when nothing network is loaded or the port cannot be bound. A running replay is
    // stopped first.
    int startNetwork(const std::string& bindIP = "127.0.0.1", int port = ztSimNetworkHead::kDefaultPort,
                     bool fast = false);
    // Starts playing a USB recording through the emulated USB head (the process needs
    // umockdev's preload, see ztSimUsbHead): 0, or -1. Open the head with
    // ztSimUsbHead::openEmulated and hand it to ztUsbProxyServer with usbDeviceInfo().
    int startUsb(bool fast = false);
    // The endpoint description of the emulated head that a USB replay plays on.
    static _ZT_USB3_DEVICE_INFO_ usbDeviceInfo();

    // true once everything the head sent unasked has been played (within timeoutMs).
    bool waitDone(int timeoutMs);
    // Steps of the replay (each wait for a command request, each unasked send), and how
    // many are done.
    std::size_t steps() const;
    std::size_t played() const;
    // Requests that found no recorded reply.
    int unmatchedCommands() const;
    // Ends the playing and closes the head.
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
