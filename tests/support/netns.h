// Moves the calling process into a network namespace of its own with only a loopback
// interface, and routes the limited broadcast address to that loopback. Call it before any
// thread starts. false (with errno set) when the namespace cannot be made.
#pragma once

namespace zt::test {

bool enterPrivateNetwork();

} // namespace zt::test
