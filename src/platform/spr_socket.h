// Thin socket layer: the same calls on BSD sockets and on Winsock.
//
// A socket handle of 0 means "no socket" everywhere in the library, as the proxy classes
// keep it; the functions here never hand out 0 as a valid handle.
#pragma once

#ifdef _WIN32
#  ifndef WIN32_LEAN_AND_MEAN
#    define WIN32_LEAN_AND_MEAN
#  endif
#  include <winsock2.h>
#  include <ws2tcpip.h>
using zt_socket_t = SOCKET;
#else
#  include <arpa/inet.h>
#  include <netinet/in.h>
#  include <netinet/tcp.h>
#  include <sys/socket.h>
using zt_socket_t = int;
#endif

#include <string>

// Creates a socket; 0 on failure.
zt_socket_t SPR_CreateSocket(int af, int type, int protocol);
// Non-blocking mode on (1) or off (0); 0 on success, -1 on failure.
int SPR_SetNonBlock(zt_socket_t s, int on);
// Shuts down receiving (0), sending (1) or both (2); 0 on success, -1 on failure.
int SPR_ShutDown(zt_socket_t s, int how);
// Closes the socket. A non-zero linger drops unsent data at once (reset), 0 closes normally.
int SPR_CloseSocket(zt_socket_t s, int linger);

namespace zt::sock {

// Winsock start-up for version 2.2 (0 on success); nothing to do elsewhere.
int startup();
// The error code of the last failed socket call of this thread.
int lastError();
// True for the code that a non-blocking connect gives while it goes on in the background.
bool isConnectPending(int error);
// True for the code a non-blocking receive gives when no byte is there yet.
bool isWouldBlock(int error);
std::string errorText(int error);

int setSendTimeout(zt_socket_t s, unsigned int ms);
int setRecvTimeout(zt_socket_t s, unsigned int ms);
int setBroadcast(zt_socket_t s, bool on);
int setNoDelay(zt_socket_t s, bool on);

// Fills an IPv4 address from dotted text and a port; false if the text is no address.
bool makeAddress(const std::string& ip, unsigned short port, sockaddr_in& out);
std::string addressText(const sockaddr_in& addr);

int bindTo(zt_socket_t s, const sockaddr_in& addr);
int connectTo(zt_socket_t s, const sockaddr_in& addr);

// One send or receive call; a closed peer never raises a signal.
int sendOnce(zt_socket_t s, const void* data, int length);
int recvOnce(zt_socket_t s, void* buffer, int length);
int sendTo(zt_socket_t s, const void* data, int length, const sockaddr_in& to);
int recvFrom(zt_socket_t s, void* buffer, int length, sockaddr_in& from);

// Waits for a non-blocking connect to complete, as select reports it on Windows: 1 once
// the socket is writable, 0 on time-out, -1 on error. A connect that failed (refused, say)
// never makes a socket writable on Windows; on both platforms it gives 0 as soon as it is
// known, without waiting out the time.
int waitConnected(zt_socket_t s, long seconds, long microseconds);
// Waits for the socket to have bytes (or an end) to read: 1 readable, 0 time-out, -1 error.
int waitReadable(zt_socket_t s, int timeoutMs);

} // namespace zt::sock
