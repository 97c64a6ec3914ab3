// Listening TCP server with its own serving thread.
//
// startThread(port) listens on every local address and serves accepted connections on
// one thread: each received block is handed to onData; connection changes to the other
// event slots. sendMsg writes to the connected peer (the most recently accepted
// connection that is still open) and returns when the bytes are written.
//
// A subclass that overrides the events must call stopThread() in its own destructor, so
// that no event runs on a partly destroyed object.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace zt {

class TCPServer {
public:
    // reuseAddress: allow listening on the port again at once after a previous server on
    // it has closed (connections of the old one may still be in TIME_WAIT). A port that
    // another listener holds is refused either way.
    explicit TCPServer(bool reuseAddress);
    virtual ~TCPServer();

    TCPServer(const TCPServer&) = delete;
    TCPServer& operator=(const TCPServer&) = delete;

    // Starts listening on port (0: any free port) and the serving thread. 0 on success,
    // -1 if the port cannot be had or the server is already running.
    int startThread(int port);
    // Closes the listener and every connection and ends the serving thread.
    void stopThread();
    // The port listened on, or 0 when not listening.
    int port() const;
    // Writes all length bytes to the connected peer: length on success, 0 for an empty
    // message, -1 when no peer is connected or the write failed, or when the peer took
    // nothing for 3 s (its connection is then closed, so no half message follows).
    int sendMsg(const char* data, int length);
    // Number of open connections.
    int connectionCount() const;

protected:
    virtual void onConnect(int connection, const std::string& peer);
    virtual void onDisconnect(int connection);
    virtual void onError(int connection, int error);
    // Received bytes of one connection; the handler takes what it wants from bytes.
    virtual void onData(int connection, std::vector<char>& bytes) = 0;
    // Asked before each receive: false pauses receiving on every connection (the peer is
    // then held back by TCP flow control) until resumeReceive() is called.
    virtual bool canReceive();
    void resumeReceive();

private:
    struct Impl;
    const bool m_reuseAddress;
    mutable std::mutex m_stateMutex; // guards m_impl against start and stop
    std::mutex m_sendMutex;          // one sendMsg at a time, so writes never interleave
    std::shared_ptr<Impl> m_impl;
};

} // namespace zt
