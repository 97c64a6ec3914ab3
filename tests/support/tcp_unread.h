// Waits until every connected TCP socket of this network namespace has had its received
// bytes read by its owner (the rx_queue column of /proc/net/tcp is 0): a test that sends
// part of a message and must act only once the far end has taken that part waits on this
// rather than on a guessed time. The tests run in namespaces of their own, so the sockets
// are theirs. Where /proc is missing (Windows) it can only wait a while.
#pragma once

#include "support/fault_scenario.h"

#include <fstream>
#include <sstream>
#include <string>

namespace zt::test {

inline bool tcpInputTaken(int timeoutMs = 5000)
{
    if (!std::ifstream("/proc/net/tcp")) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return true;
    }
    const bool taken = waitUntil(timeoutMs, [] {
        for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
            std::ifstream in(table);
            std::string line, slot, local, remote, state, queues;
            std::getline(in, line); // the column names
            while (std::getline(in, line)) {
                std::istringstream(line) >> slot >> local >> remote >> state >> queues;
                // Established connections only: a listener's count is of waiting connections.
                if (state == "01" && std::stoul(queues.substr(queues.find(':') + 1), nullptr, 16) != 0)
                    return false;
            }
        }
        return true;
    });
    // The reader hands what it read to its decoder right after the read.
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return taken;
}

} // namespace zt::test
