// Records, enumerations and callback types shared by the classes of libztProxyProtocol.
#ifndef ZT_PROXY_TYPES_H
#define ZT_PROXY_TYPES_H

#include <stdint.h>

// Data callback of every proxy object: code, data, length, user pointer.
// The code is the proxy message's sub type (module proxy), the received message's type
// (device links), or one of the link codes below.
typedef void (*ZT_DATA_CALLBACK)(int code, char* data, int length, void* user);

// Link codes raised through the data callback.
enum {
    ZT_CODE_DEVICE_OFFLINE = 283,
    ZT_CODE_DEVICE_ONLINE = 284,
    ZT_CODE_LIGHTPEN_DATA = 285,
};

// Message types of the module proxy (msgType field of _ZT_PROXY_MSG_).
enum {
    ZT_MSG_TYPE_NOTIFY = 1,  // module -> host, data channel
    ZT_MSG_TYPE_ANSWER = 2,  // host -> module, data channel
    ZT_MSG_TYPE_REQUEST = 3, // host -> module, command channel
    ZT_MSG_TYPE_REPLY = 4,   // module -> host, command channel
};

// TCP ports on which a device module listens for its host.
enum {
    ZT_MODULE_CMD_PORT = 9479,
    ZT_MODULE_DATA_PORT = 11300,
};

#endif
