// A small event-driven TCP client: connects to one server when constructed, hands every
// received block to a data callback on its own receive thread, reports connection
// changes and receive errors through two more callbacks, and reconnects on the next send
// after the connection was lost.
//
// Log lines go to standard error as "net::TcpClient: " and the message. The default
// connection callback prints "Connect to server: ADDRESS success!" or
// "Disconnect from server: ADDRESS" on standard output; ADDRESS is "ip:port".
#pragma once

#include "platform/spr_socket.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace net {

class TcpClient : public std::enable_shared_from_this<TcpClient> {
public:
    using ConnectionCallback = std::function<void(const std::string& address, bool connected)>;
    using DataCallback = std::function<void(const char* data, size_t size)>;
    using ErrorCallback = std::function<void(TcpClient&)>;

    // Fills in the server address and starts at once (connect, then the receive thread).
    TcpClient(const std::string& ip, unsigned int port);
    ~TcpClient();
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;

    // Callbacks run on the receive thread (the connection callback also on the thread
    // that connects). A later call replaces the callback.
    void setConnectionCallback(ConnectionCallback cb);
    void setDataCallback(DataCallback cb);
    void setErrorCallback(ErrorCallback cb);

    // Connects and starts a new receive thread, after the previous one has ended.
    void start();
    // Creates a new socket and connects it; true on success, which releases the receive
    // thread.
    bool connect();
    // Starts first when not connected, then sends all bytes in one send: the count sent,
    // or -1.
    int send(const std::string& data);
    int send(const char* data, size_t size);
    // One receive: the count; 0 when the server closed (connection callback with false);
    // negative on an error (logged, error callback).
    int receive(char* buf, size_t size);
    // Closes the socket when connected.
    void disconnect();

    bool isConnected() const { return m_connected.load(); }
    const std::string& address() const { return m_address; }

private:
    static constexpr size_t kRecvBufferSize = 0x20000;
    static constexpr size_t kRecvBlock = 0x10000;
    static constexpr int kShutdownCheckMs = 50; // how often a waiting receive looks (Windows)

    void createSocket();
    void closeSocket();
    void recvThreadFunc(unsigned long generation);
    // Waits until the socket has bytes (or an end) to read; false once it was shut down.
    bool bytesComing(zt_socket_t s);
    void log(const char* message) const;
    void notifyConnection(bool connected);

    std::string m_ip;
    unsigned int m_port;
    std::string m_address;
    sockaddr_in m_serverAddr{};
    bool m_serverAddrValid = false;
    std::atomic<zt_socket_t> m_socket{0};
    std::vector<char> m_recvBuffer;
    std::thread m_recvThread;
    std::mutex m_startMutex; // one start at a time: sends may come from any thread

    std::mutex m_cbMutex;
    ConnectionCallback m_connectionCb;
    DataCallback m_dataCb;
    ErrorCallback m_errorCb;

    std::atomic<bool> m_connected{false};
    std::atomic<bool> m_stopping{false};

    // Start gate: the receive thread waits until the pending counter is 0.
    std::mutex m_gateMutex;
    std::condition_variable m_gate;
    int m_pending = 1;
    unsigned long m_generation = 0; // which receive thread the gate belongs to
};

} // namespace net
