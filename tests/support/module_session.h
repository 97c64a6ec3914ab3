// A host and a simulated module connected on loopback, and a byte builder for the
// payloads the tests expect.
#pragma once

#include "ztModuleProxyServer.h"
#include "ztSimModule.h"

#include <cstdint>
#include <string>
#include <vector>

namespace zt::test {

// Little-endian bytes, built independently of the library's own encoders.
class Bytes {
public:
    Bytes& i32(std::int32_t v) { return raw(&v, 4); }
    Bytes& u32(std::uint32_t v) { return raw(&v, 4); }
    Bytes& u64(std::uint64_t v) { return raw(&v, 8); }
    Bytes& f32(float v) { return raw(&v, 4); }
    Bytes& f64(double v) { return raw(&v, 8); }
    Bytes& u8(std::uint8_t v) { return raw(&v, 1); }
    Bytes& text(const std::string& s) { return raw(s.data(), s.size()); }
    Bytes& raw(const void* p, std::size_t n)
    {
        const auto* b = static_cast<const unsigned char*>(p);
        m_bytes.insert(m_bytes.end(), b, b + n);
        return *this;
    }
    Bytes& zeros(std::size_t n)
    {
        m_bytes.insert(m_bytes.end(), n, 0);
        return *this;
    }
    std::vector<char> chars() const { return std::vector<char>(m_bytes.begin(), m_bytes.end()); }
    std::string str() const { return std::string(m_bytes.begin(), m_bytes.end()); }

private:
    std::vector<unsigned char> m_bytes;
};

// Starts the simulated module and a host connected to it on loopback, and waits until the
// host's register exchange is done.
struct ModuleSession {
    ztSimModule module;
    ztModuleProxyServer host;

    // The module sees the register request once the host has both channels; the host is
    // registered once it has taken the reply. The register exchange runs outside the
    // command mutex, so no request may be sent before that.
    bool start()
    {
        ztSimModule::Request r;
        return module.start() == 0 && host.init("127.0.0.1") == 0 && module.nextRequest(r, 5000) && r.code == 1 &&
               host.waitRegistered(5000);
    }

    ~ModuleSession()
    {
        // The module goes first: closing its end ends the host's pending data receive.
        module.stop();
        host.deInit();
    }
};

} // namespace zt::test
