#include "TcpClient.h"

#include "platform/zt_log.h"

#include <climits>
#include <cstdio>
#include <iostream>

namespace net {

namespace {
int clampLength(size_t size)
{
    return size > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(size);
}
} // namespace

TcpClient::TcpClient(const std::string& ip, unsigned int port)
    : m_ip(ip), m_port(port), m_address(ip + ":" + std::to_string(port)), m_recvBuffer(kRecvBufferSize, 0)
{
    m_serverAddrValid = zt::sock::makeAddress(m_ip, static_cast<unsigned short>(m_port), m_serverAddr);
    m_connectionCb = [](const std::string& address, bool connected) {
        if (connected)
            std::cout << "Connect to server: " << address << " success!" << std::endl;
        else
            std::cout << "Disconnect from server: " << address << std::endl;
    };
    m_dataCb = [](const char*, size_t) {};
    m_errorCb = [](TcpClient&) {};
    start();
}

TcpClient::~TcpClient()
{
    // The receive thread may be parked on the gate (no connection was ever made) or
    // blocked in a receive that the server never ends: release the gate and shut the
    // socket down so that the join returns. Nothing is reported from here on.
    {
        std::lock_guard<std::mutex> lock(m_gateMutex);
        m_stopping = true;
    }
    m_gate.notify_all();
    if (const zt_socket_t s = m_socket.load(); s != 0)
        SPR_ShutDown(s, 2);
    if (m_recvThread.joinable())
        m_recvThread.join();
    closeSocket();
}

void TcpClient::setConnectionCallback(ConnectionCallback cb)
{
    std::lock_guard<std::mutex> lock(m_cbMutex);
    m_connectionCb = std::move(cb);
}

void TcpClient::setDataCallback(DataCallback cb)
{
    std::lock_guard<std::mutex> lock(m_cbMutex);
    m_dataCb = std::move(cb);
}

void TcpClient::setErrorCallback(ErrorCallback cb)
{
    std::lock_guard<std::mutex> lock(m_cbMutex);
    m_errorCb = std::move(cb);
}

void TcpClient::start()
{
    std::lock_guard<std::mutex> startLock(m_startMutex);
    unsigned long generation;
    {
        std::lock_guard<std::mutex> lock(m_gateMutex);
        m_pending = 1;
        // A receive thread still parked on the gate is told to end, so that the join
        // below cannot wait forever for a connection that this start may not make either.
        generation = ++m_generation;
    }
    m_gate.notify_all();
    connect();
    if (m_recvThread.joinable())
        m_recvThread.join();
    m_recvThread = std::thread(&TcpClient::recvThreadFunc, this, generation);
}

bool TcpClient::connect()
{
    createSocket();
    const zt_socket_t s = m_socket.load();
    if (s != 0 && m_serverAddrValid && zt::sock::connectTo(s, m_serverAddr) == 0) {
        m_connected = true;
        notifyConnection(true);
        bool open;
        {
            std::lock_guard<std::mutex> lock(m_gateMutex);
            open = --m_pending == 0;
        }
        if (open)
            m_gate.notify_all();
        return true;
    }
    char text[64];
    std::snprintf(text, sizeof text, "Can not connect to server: %s", m_address.c_str());
    log(text);
    return false;
}

void TcpClient::createSocket()
{
    closeSocket();
    const zt_socket_t s = SPR_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s == 0) {
        log("socket() error!");
        return;
    }
    // An int-sized option value: Linux refuses the one-byte value that Winsock takes.
    zt::sock::setNoDelay(s, true);
    m_socket.store(s);
}

void TcpClient::closeSocket()
{
    const zt_socket_t s = m_socket.exchange(0);
    if (s == 0)
        return;
    // Shut down first: closing alone does not wake a thread blocked in a receive on the
    // socket here, as it does with Winsock.
    SPR_ShutDown(s, 2);
    SPR_CloseSocket(s, 0);
}

int TcpClient::send(const std::string& data)
{
    return send(data.data(), data.size());
}

int TcpClient::send(const char* data, size_t size)
{
    if (data == nullptr && size > 0) {
        ZTLOG_ERROR("net::TcpClient::[send] null data\n");
        return -1;
    }
    if (!m_connected)
        start();
    const zt_socket_t s = m_socket.load();
    if (s == 0)
        return -1;
    return zt::sock::sendOnce(s, data, clampLength(size));
}

bool TcpClient::bytesComing(zt_socket_t s)
{
#ifdef _WIN32
    // Shutting a socket down ends a receive blocked on it on Linux but not on Windows, so
    // there the receive waits for bytes in short steps, and a socket shut down meanwhile
    // (by the destructor or a disconnect) reads as the end of the stream, as on Linux.
    for (;;) {
        if (m_stopping || m_socket.load() != s)
            return false;
        const int ready = zt::sock::waitReadable(s, kShutdownCheckMs);
        if (ready != 0)
            return true; // bytes, an end or an error: the receive tells which
    }
#else
    (void)s;
    return true;
#endif
}

int TcpClient::receive(char* buf, size_t size)
{
    if (buf == nullptr || size == 0) {
        ZTLOG_ERROR("net::TcpClient::[receive] null buffer or size 0\n");
        return -1;
    }
    const zt_socket_t s = m_socket.load();
    const int n = s == 0 ? -1 : !bytesComing(s) ? 0 : zt::sock::recvOnce(s, buf, clampLength(size));
    if (n > 0)
        return n;
    if (n == 0)
        m_connected = false;
    if (m_stopping)
        return n;
    if (n == 0) {
        notifyConnection(false);
    } else {
        log("recvThreadFunc:recv error!");
        ErrorCallback cb;
        {
            std::lock_guard<std::mutex> lock(m_cbMutex);
            cb = m_errorCb;
        }
        if (cb)
            cb(*this);
    }
    return n;
}

void TcpClient::disconnect()
{
    if (m_connected)
        closeSocket();
}

void TcpClient::recvThreadFunc(unsigned long generation)
{
    {
        std::unique_lock<std::mutex> lock(m_gateMutex);
        m_gate.wait(lock, [&] { return m_pending <= 0 || m_generation != generation || m_stopping; });
        if (m_generation != generation || m_stopping)
            return;
    }
    // receive reports the end of the stream and errors through the callbacks.
    int n = receive(m_recvBuffer.data(), kRecvBlock);
    while (n > 0) {
        DataCallback cb;
        {
            std::lock_guard<std::mutex> lock(m_cbMutex);
            cb = m_dataCb;
        }
        if (cb)
            cb(m_recvBuffer.data(), static_cast<size_t>(n));
        n = receive(m_recvBuffer.data(), kRecvBlock);
    }
}

void TcpClient::log(const char* message) const
{
    std::fprintf(stderr, "net::TcpClient: %s\n", message);
}

void TcpClient::notifyConnection(bool connected)
{
    ConnectionCallback cb;
    {
        std::lock_guard<std::mutex> lock(m_cbMutex);
        cb = m_connectionCb;
    }
    if (cb)
        cb(m_address, connected);
}

} // namespace net
