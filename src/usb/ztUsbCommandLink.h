// The command catalogue over the USB control exchange, with the USB link's result policy
// (the device's status word as it stands) and log texts.
#pragma once

#include "commands/Catalogue.h"
#include "ztUsbProxyServer.h"

#include <mutex>

struct ztUsbProxyServer::CommandLink final : zt::commands::Link {
    explicit CommandLink(ztUsbProxyServer& s) : server(s) {}
    const char* className() const override { return "ztUsbProxyServer"; }
    bool returnsStatusWord() const override { return true; }
    int exchange(const zt::commands::Command& c, const char* msg, int size,
                 const std::function<int(const char*)>& judge) override;
    void handOff(char* reply) override { server.preProcessMsg(reply); }
    // A reply is read from the head of the control buffer, whose first 1024 bytes are
    // cleared before each command: a short reply reads zeros there, as the head's protocol
    // has it, rather than failing.
    int readablePayload(int payloadLength) const override;

    ztUsbProxyServer& server;
    // One catalogue command at a time: the control reply buffer is shared by all of them
    // and read after the control exchange has let go of its own lock.
    std::mutex mutex;
};
