#include "spr_socket.h"

#include <cerrno>
#include <cstring>

#ifndef _WIN32
#  include <fcntl.h>
#  include <poll.h>
#  include <unistd.h>
#endif

#ifdef _WIN32

zt_socket_t SPR_CreateSocket(int af, int type, int protocol)
{
    zt::sock::startup();
    SOCKET s = ::socket(af, type, protocol);
    return s == INVALID_SOCKET ? 0 : s;
}

int SPR_SetNonBlock(zt_socket_t s, int on)
{
    u_long mode = on ? 1 : 0;
    return ::ioctlsocket(s, FIONBIO, &mode) == 0 ? 0 : -1;
}

int SPR_ShutDown(zt_socket_t s, int how)
{
    return ::shutdown(s, how) == 0 ? 0 : -1;
}

int SPR_CloseSocket(zt_socket_t s, int linger)
{
    if (linger != 0) {
        ::linger l{1, 0};
        ::setsockopt(s, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&l), sizeof l);
    }
    return ::closesocket(s) == 0 ? 0 : -1;
}

namespace zt::sock {

int startup()
{
    WSADATA data;
    return ::WSAStartup(MAKEWORD(2, 2), &data);
}

int lastError()
{
    return ::WSAGetLastError();
}

bool isConnectPending(int error)
{
    return error == WSAEWOULDBLOCK;
}

bool isWouldBlock(int error)
{
    return error == WSAEWOULDBLOCK;
}

static int setTimeout(zt_socket_t s, int option, unsigned int ms)
{
    DWORD value = ms;
    return ::setsockopt(s, SOL_SOCKET, option, reinterpret_cast<const char*>(&value), sizeof value) == 0 ? 0 : -1;
}

} // namespace zt::sock

#else

zt_socket_t SPR_CreateSocket(int af, int type, int protocol)
{
    int s = ::socket(af, type | SOCK_CLOEXEC, protocol);
    if (s == 0) {
        // Descriptor 0 is free only when standard input was closed; 0 means "no socket"
        // to the callers, so move the socket to another descriptor.
        const int moved = ::fcntl(s, F_DUPFD_CLOEXEC, 1);
        ::close(s);
        s = moved;
    }
    return s < 0 ? 0 : s;
}

int SPR_SetNonBlock(zt_socket_t s, int on)
{
    const int flags = ::fcntl(s, F_GETFL, 0);
    if (flags < 0)
        return -1;
    return ::fcntl(s, F_SETFL, on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK)) == 0 ? 0 : -1;
}

int SPR_ShutDown(zt_socket_t s, int how)
{
    static const int hows[] = {SHUT_RD, SHUT_WR, SHUT_RDWR};
    if (how < 0 || how > 2)
        return -1;
    return ::shutdown(s, hows[how]) == 0 ? 0 : -1;
}

int SPR_CloseSocket(zt_socket_t s, int linger)
{
    if (linger != 0) {
        ::linger l{1, 0};
        ::setsockopt(s, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    }
    return ::close(s) == 0 ? 0 : -1;
}

namespace zt::sock {

int startup()
{
    return 0;
}

int lastError()
{
    return errno;
}

bool isConnectPending(int error)
{
    return error == EINPROGRESS;
}

bool isWouldBlock(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK;
}

static int setTimeout(zt_socket_t s, int option, unsigned int ms)
{
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(ms / 1000);
    tv.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
    return ::setsockopt(s, SOL_SOCKET, option, &tv, sizeof tv) == 0 ? 0 : -1;
}

} // namespace zt::sock

#endif

namespace zt::sock {

std::string errorText(int error)
{
#ifdef _WIN32
    char text[256] = {};
    ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, static_cast<DWORD>(error), 0,
                     text, sizeof text, nullptr);
    return text;
#else
    return std::strerror(error);
#endif
}

int setSendTimeout(zt_socket_t s, unsigned int ms)
{
    return setTimeout(s, SO_SNDTIMEO, ms);
}

int setRecvTimeout(zt_socket_t s, unsigned int ms)
{
    return setTimeout(s, SO_RCVTIMEO, ms);
}

static int setFlag(zt_socket_t s, int level, int option, bool on)
{
    int value = on ? 1 : 0;
    return ::setsockopt(s, level, option, reinterpret_cast<const char*>(&value), sizeof value) == 0 ? 0 : -1;
}

int setBroadcast(zt_socket_t s, bool on)
{
    return setFlag(s, SOL_SOCKET, SO_BROADCAST, on);
}

int setNoDelay(zt_socket_t s, bool on)
{
    return setFlag(s, IPPROTO_TCP, TCP_NODELAY, on);
}

bool makeAddress(const std::string& ip, unsigned short port, sockaddr_in& out)
{
    std::memset(&out, 0, sizeof out);
    out.sin_family = AF_INET;
    out.sin_port = htons(port);
    return ::inet_pton(AF_INET, ip.c_str(), &out.sin_addr) == 1;
}

std::string addressText(const sockaddr_in& addr)
{
    char text[INET_ADDRSTRLEN] = {};
    if (::inet_ntop(AF_INET, &addr.sin_addr, text, sizeof text) == nullptr)
        return std::string();
    return text;
}

int bindTo(zt_socket_t s, const sockaddr_in& addr)
{
    return ::bind(s, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 ? 0 : -1;
}

int connectTo(zt_socket_t s, const sockaddr_in& addr)
{
    return ::connect(s, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 ? 0 : -1;
}

#ifdef _WIN32
static constexpr int kNoSignal = 0;
using sock_len = int;
#else
static constexpr int kNoSignal = MSG_NOSIGNAL;
using sock_len = socklen_t;
#endif

int sendOnce(zt_socket_t s, const void* data, int length)
{
    return static_cast<int>(::send(s, static_cast<const char*>(data), length, kNoSignal));
}

int recvOnce(zt_socket_t s, void* buffer, int length)
{
    return static_cast<int>(::recv(s, static_cast<char*>(buffer), length, 0));
}

int sendTo(zt_socket_t s, const void* data, int length, const sockaddr_in& to)
{
    return static_cast<int>(::sendto(s, static_cast<const char*>(data), length, kNoSignal,
                                     reinterpret_cast<const sockaddr*>(&to), sizeof to));
}

int recvFrom(zt_socket_t s, void* buffer, int length, sockaddr_in& from)
{
    sock_len size = sizeof from;
    return static_cast<int>(
        ::recvfrom(s, static_cast<char*>(buffer), length, 0, reinterpret_cast<sockaddr*>(&from), &size));
}

int waitConnected(zt_socket_t s, long seconds, long microseconds)
{
#ifdef _WIN32
    // A failed connect never makes the socket writable; select lists it among the
    // exceptions, which ends the wait at once with the same outcome as a time-out.
    fd_set writable, failed;
    FD_ZERO(&writable);
    FD_SET(s, &writable);
    FD_ZERO(&failed);
    FD_SET(s, &failed);
    timeval tv{};
    tv.tv_sec = seconds;
    tv.tv_usec = microseconds;
    const int n = ::select(0, nullptr, &writable, &failed, &tv);
    if (n > 0 && !FD_ISSET(s, &writable))
        return 0;
#else
    // poll rather than select: select cannot watch descriptors above FD_SETSIZE.
    pollfd p{};
    p.fd = s;
    p.events = POLLOUT;
    const int n = ::poll(&p, 1, static_cast<int>(seconds * 1000 + microseconds / 1000));
    if (n > 0) {
        // poll reports a failed connect as writable; Windows does not.
        int error = 0;
        socklen_t size = sizeof error;
        if (::getsockopt(s, SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0)
            return 0;
    }
#endif
    return n < 0 ? -1 : (n == 0 ? 0 : 1);
}

int waitReadable(zt_socket_t s, int timeoutMs)
{
#ifdef _WIN32
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(s, &readable);
    timeval tv{};
    tv.tv_sec = timeoutMs / 1000;
    tv.tv_usec = (timeoutMs % 1000) * 1000;
    const int n = ::select(0, &readable, nullptr, nullptr, &tv);
#else
    pollfd p{};
    p.fd = s;
    p.events = POLLIN;
    const int n = ::poll(&p, 1, timeoutMs);
#endif
    return n < 0 ? -1 : (n == 0 ? 0 : 1);
}

} // namespace zt::sock
