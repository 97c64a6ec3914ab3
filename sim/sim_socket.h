// The few socket calls of the simulated ends and the raw test peers, the same on BSD
// sockets and on Winsock. A socket is held as a std::intptr_t (a Winsock SOCKET fits), -1
// when there is none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zt::simnet {

using Socket = std::intptr_t;
constexpr Socket kNoSocket = -1;

// An IPv4 address and port, both in host byte order.
struct Endpoint {
    std::uint32_t address = 0;
    std::uint16_t port = 0;
    bool operator==(const Endpoint&) const = default;
    std::string text() const; // "a.b.c.d:port"
};

// The dotted IPv4 address, or false when the text is none.
bool parseIPv4(const std::string& text, std::uint32_t& address);

// A TCP socket, non-blocking or not; not inherited by child processes.
Socket openTcp(bool nonBlocking);
void closeSocket(Socket s);
// Closes a connection with a reset instead of an orderly end.
void resetSocket(Socket s);
// Ends both directions: the peer sees the end of the stream, a waiting receive wakes.
void shutdownBoth(Socket s);
void setNoDelay(Socket s);

// Binds a listening socket to ip:port (port 0 takes a free one) with a queue of `backlog`
// and tells the port taken. The port is the socket's own: no second listener may share it.
bool listenOn(Socket s, const std::string& ip, int port, int backlog, int& boundPort);
// listen() again on a listening socket: only the queue length changes.
bool relisten(Socket s, int backlog);
// A waiting connection (non-blocking or not, as asked), kNoSocket when there is none.
Socket acceptFrom(Socket listener, Endpoint& peer, bool nonBlocking);
// Starts a connect to `to` on a non-blocking socket; false when it failed at once.
bool startConnect(Socket s, const Endpoint& to);
bool localEndpoint(Socket s, Endpoint& out);

// A UDP socket bound to ip:port; kNoSocket when it cannot be.
Socket openUdp(const std::string& ip, int port);
long sendTo(Socket s, const char* p, std::size_t n, const Endpoint& to);
long recvFrom(Socket s, char* p, std::size_t n, Endpoint& from);

// send() and recv() of up to n bytes: the count, 0 for a closed peer (recv), -1 on error.
// A send never raises SIGPIPE.
long sendSome(Socket s, const char* p, std::size_t n);
long recvSome(Socket s, char* p, std::size_t n);
// A send on a blocking socket that takes only what fits now (-1 and tryAgain() when nothing did).
long sendNow(Socket s, const char* p, std::size_t n);
// After a -1: the call would have blocked (or was interrupted), so trying again is right.
bool tryAgain();

// Waits for the given events on up to four sockets; -1 on error, else how many are ready.
enum : short { kReadable = 1, kWritable = 2, kClosed = 4 };
struct Wait {
    Socket s = kNoSocket;
    short events = 0;  // kReadable, kWritable
    short revents = 0; // those of them that are ready, and kClosed for a peer that has gone
};
int waitFor(Wait* w, int n, int timeoutMs);

// true when the peer has closed its side of the connection (or the connection failed).
bool peerGone(Socket s);

// A socket that polls readable while raised: wakes threads waiting in waitFor.
class Signal {
public:
    Signal();
    ~Signal();
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;
    bool ok() const { return m_read != kNoSocket; }
    Socket socket() const { return m_read; }
    void raise();
    void clear();

private:
    Socket m_read = kNoSocket;
    Socket m_write = kNoSocket; // the other end of the pair on Windows; m_read on Linux
};

} // namespace zt::simnet
