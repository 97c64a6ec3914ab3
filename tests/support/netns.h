// Moves the calling process into a network namespace of its own with only a loopback
// interface, and routes the limited broadcast address to that loopback. Call it before any
// thread starts. false (with errno set) when the namespace cannot be made.
#pragma once

namespace zt::test {

bool enterPrivateNetwork();

// Moves the calling thread (and the threads it starts from then on) into a network
// namespace of its own with its loopback up. The process must already be allowed to make
// one (after enterPrivateNetwork, say).
bool enterThreadNetwork();

} // namespace zt::test
