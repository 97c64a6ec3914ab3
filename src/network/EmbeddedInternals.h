// Pieces shared by the parts of ztEmbeddedModuleProxyServer.
#pragma once

#include "EmbeddedFramer.h"
#include "commands/Catalogue.h"
#include "foundation/ByteQueue.h"
#include "foundation/SharedSlot.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "zt_embedded_msg.h"

#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <limits>
#include <mutex>

// A byte stream from one connection, with its lock: embedded messages are cut out of
// `stream` once at least 12 bytes are held; the light-pen bytes are kept whole in `bytes`.
// arrived wakes a processor waiting for a whole message. A message declaring more than
// `limit` bytes drops what is held, which bounds the memory a head can make us hold.
struct ztEmbeddedModuleProxyServer::Accumulator {
    explicit Accumulator(std::size_t limit = 0)
        : stream(zt::EmbeddedFramer::kMinHeldStream, std::numeric_limits<std::size_t>::max(),
                 limit == 0 ? std::numeric_limits<std::size_t>::max() : limit)
    {
    }
    std::mutex mutex;
    std::condition_variable arrived;
    zt::EmbeddedFramer stream;
    zt::ByteQueue bytes;
};

namespace zt::embedded {
// The largest message a head sends on the command-data connection: as large as a command
// reply may be.
constexpr std::size_t kCommandDataLimit = 0xA00000;
// The largest raw message on the data connection: the largest packet any decoder takes.
constexpr std::size_t kRawDataLimit = 0x5000000;
// Command replies: the reply buffer and the largest reply taken into it.
constexpr std::size_t kCmdReplyBufSize = 0xA0000C;
constexpr int kReplyLimit = 0xA00000;
// Large replies (the whole log): the auxiliary buffer, its limit and time-out.
constexpr std::size_t kAuxBufSize = 0x640000C;
constexpr int kLargeReplyLimit = 104857600;
constexpr unsigned int kLargeReplyTimeoutMs = 20000;
// setCameraReverse waits this long for its reply.
constexpr unsigned int kLongReplyTimeoutMs = 10000;
} // namespace zt::embedded

// The command catalogue's exchange over the command connection, with the network link's
// result policy (0 or -1) and log texts.
struct ztEmbeddedModuleProxyServer::CommandLink final : zt::commands::Link {
    explicit CommandLink(ztEmbeddedModuleProxyServer& s) : server(s) {}
    const char* className() const override { return "ztEmbeddedModuleProxyServer"; }
    bool returnsStatusWord() const override { return false; }
    int exchange(const zt::commands::Command& c, const char* msg, int size,
                 const std::function<int(const char*)>& judge) override;
    void handOff(char* reply) override { server.processMsg(reply); }
    void programVersion(const int parts[4]) override;

    ztEmbeddedModuleProxyServer& server;
};

namespace zt::embedded {

// The 32-bit little-endian word at payload offset `offset` of an embedded message; bytes
// beyond the message's payload read as zero.
inline std::uint32_t payloadWord(const void* msg, int offset)
{
    const int length = zt_embedded_msg_get_data_len(msg);
    unsigned char bytes[4] = {0, 0, 0, 0};
    for (int i = 0; i < 4; ++i)
        if (offset + i < length)
            bytes[i] = static_cast<const unsigned char*>(msg)[7 + offset + i];
    std::uint32_t v;
    std::memcpy(&v, bytes, 4);
    return v;
}

// The signed status word that starts a reply's payload.
inline std::int32_t statusOf(const void* msg)
{
    return static_cast<std::int32_t>(payloadWord(msg, 0));
}

} // namespace zt::embedded
