// How a head that cannot be reached fails init, the same on Linux and on Windows.
#include "host_peer.h"
#include "support/log_capture.h"
#include "ztEmbeddedModuleProxyServer.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kHeadPort = 42001;
// A copy: the class's own constant lives in the library, out of reach of a comparison
// that takes its address.
constexpr int kConnectTimeout = ztEmbeddedModuleProxyServer::kConnectTimeout;

// First nothing listening: a refused connect never completes, as on Windows, so the head
// is not online; it is known at once rather than after the 3 s. Then a listener with a
// backlog of 0 that never accepts: once one connection waits in its queue, further
// attempts go unanswered for the whole 3 s.
TEST(EmbeddedServer, ConnectTimeOutIs205)
{
    zt::tools::RawListener silent;
    zt::tools::RawConnection queued;
    for (const bool listening : {false, true}) {
        if (listening) {
            ASSERT_TRUE(silent.listen(kHeadPort, 0));
            ASSERT_TRUE(queued.connect("127.0.0.1", kHeadPort, 1000));
        }
        zt::test::LogCapture log;
        ztEmbeddedModuleProxyServer server;
        const auto start = Clock::now();
        EXPECT_EQ(server.init("127.0.0.2", "127.0.0.1", "SN"), kConnectTimeout);
        const auto took = Clock::now() - start;
        // Short of the 3 s even when loaded; or the 3 s, with room for a loaded machine.
        EXPECT_GE(took, std::chrono::milliseconds(listening ? 2900 : 0));
        EXPECT_LT(took, std::chrono::milliseconds(listening ? 5000 : 2500));
        EXPECT_EQ(log.count("connect timeout, localIP: 127.0.0.2, remoteIP: 127.0.0.1"), 1);
        EXPECT_FALSE(server.isConnected());
    }
}

} // namespace
