// UDP client for network-attached scanner heads.
//
// Requests go out as broadcasts to 255.255.255.255 on the port given to connect, from
// local port 32002; replies are whole embedded messages (zt_embedded_msg.h) of more than
// 12 bytes, collected by polling the non-blocking socket. The address of the last sender
// is kept as the connect IP.
//
// Copies share the socket: the copy constructor and the copy assignment copy every
// member, the socket handle included, and the destructor leaves the socket alone.
// deInit closes it for every copy. An object is used from one thread at a time.
#ifndef ZT_SCAN_EMBEDDED_UDP_CLIENT_H
#define ZT_SCAN_EMBEDDED_UDP_CLIENT_H

#include "ztProxyExport.h"

#include <cstdint>
#include <string>

class ZT_PROXY_API ztScanEmbeddedUDPClient {
public:
    ztScanEmbeddedUDPClient();
    ~ztScanEmbeddedUDPClient();
    ztScanEmbeddedUDPClient(const ztScanEmbeddedUDPClient& other);
    ztScanEmbeddedUDPClient& operator=(const ztScanEmbeddedUDPClient& other);

    // Creates the non-blocking UDP socket: 0 (also when it exists already), -1 on failure.
    int init();
    // Allows broadcasts, aims at 255.255.255.255:port and binds to bindIP:32002 (a bind
    // that fails is not reported): 0, or -1 without a socket.
    int connect(const std::string& bindIP, int port);
    // One datagram to the destination: the count, or -1.
    int send(const unsigned char* data, unsigned int len);
    // Sends the request, then polls every 15 ms for up to 4000 ms until the bytes held
    // form one embedded message of more than 12 bytes and at most replyCapacity bytes,
    // which is copied to the start of reply: 0, or -1.
    int sendn(const unsigned char* request, unsigned int length, unsigned char* reply, unsigned int replyCapacity);
    // The same collection without a request, for about 30 ms: 0, or -1. A round that
    // receives nothing empties the connect IP.
    int recv(unsigned char* buf, unsigned int len);
    // Shuts the socket down and closes it.
    void deInit();

    std::string getBindIP();
    std::string getConnectIP();
    void resetConnectIP();
    // Always false: no operation of this class sets the flag.
    bool IsConnected();

private:
    // Collects one message from recvfrom rounds while the elapsed time is below windowMs.
    int collect(unsigned char* buf, unsigned int len, unsigned int windowMs, bool resetOnNothing);

    bool m_bConnected;
    std::string m_connectIP;
    std::string m_bindIP;
    // The platform's socket handle (0 = none) and two IPv4 socket addresses, kept as
    // plain bytes so that this header needs no system header.
    std::uint64_t m_socket;
    alignas(8) unsigned char m_destAddr[16];
    // Bound address; also receives the sender's address of each datagram.
    alignas(8) unsigned char m_localAddr[16];
};

#endif
