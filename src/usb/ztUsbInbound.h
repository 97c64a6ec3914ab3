// Drives the USB server's receive paths by hand, on the caller's thread and without a
// device: a transfer filled as libusb would fill a finished one goes to its path's
// completion callback, and ready frames go through the processing threads' step. The fuzz
// target for what a head sends over USB uses it.
//
// Every stop flag is set first, so a callback gives its transfer back instead of
// resubmitting it: libusb is never asked to submit a transfer made by hand. The server's
// threads are never started; the frame pools are made as init makes them.
#pragma once

#include "codec/QlensNetProto.h"
#include "foundation/ByteQueue.h"
#include "ztBufferPool.h"
#include "ztUsbProxyServer.h"

#include <libusb.h>

struct ztUsbInbound {
    // The server's numbering of its IN paths.
    enum Path { Stream = 0, Control = 1, Event = 2 };

    // 0 once the stop flags are set and the pools made; -1 when a pool cannot be made.
    static int prepare(ztUsbProxyServer& s)
    {
        for (auto& stop : s.m_stop)
            stop = true;
        return s.initPools();
    }

    // Hands transfer to path's completion callback as a finished transfer of s, counted
    // in flight as a submitted one is.
    static void complete(ztUsbProxyServer& s, Path path, libusb_transfer& transfer)
    {
        static constexpr libusb_transfer_cb_fn callbacks[3] = {&ztUsbProxyServer::xfer_callback_stream,
                                                               &ztUsbProxyServer::xfer_callback_ctrl,
                                                               &ztUsbProxyServer::xfer_callback_event};
        transfer.user_data = &s;
        ++s.m_pending[path];
        callbacks[path](&transfer);
    }

    static int pending(const ztUsbProxyServer& s, Path path) { return s.m_pending[path]; }

    static ztCamera::ztBufferPool& pool(ztUsbProxyServer& s, Path path)
    {
        return path == Event ? *s.m_eventPool : *s.m_streamPool;
    }

    // The control bytes waiting for a command.
    static const zt::ByteQueue& controlBytes(const ztUsbProxyServer& s) { return *s.m_ctrlRecv; }

    static bool alive(const ztUsbProxyServer& s) { return s.m_bHeartBeatAlive; }

    // What a processing thread does with a frame it took from the ready queue.
    static void processFrame(ztUsbProxyServer& s, Path path, ztCamera::ztPoolFrame* frame)
    {
        s.processFrame(pool(s, path), frame);
    }

    // Back to a fresh start: no packet half read (a stream frame it was written into goes
    // back), no control or event bytes held.
    static void clear(ztUsbProxyServer& s)
    {
        s.dropLentFrame();
        s.m_ctrlRecv->clear();
        s.m_eventRecv->clear();
    }
};
