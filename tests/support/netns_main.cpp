// main() of the test programs that use the protocol's fixed ports: the process first moves
// into a network namespace of its own, with only a loopback interface, so that tests
// running in parallel never meet on a port and no packet leaves the process's namespace.
// A route sends the limited broadcast address to that loopback, so UDP broadcasts made by
// a test arrive on loopback and nowhere else.
#include "netns.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

int main(int argc, char** argv)
{
    if (!zt::test::enterPrivateNetwork()) {
        std::fprintf(stderr, "cannot enter a private network namespace: %s\n", std::strerror(errno));
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
