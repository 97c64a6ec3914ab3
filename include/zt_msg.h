// Proxy message: the record exchanged between a host process and a device-module process.
//
// One heap block of 16 + data length bytes, little-endian:
//   offset 0  uint16 magic 0x2324
//   offset 2  2 reserved bytes
//   offset 4  int32  msg type (1 notification, 2 answer, 3 request, 4 reply; 0 is not allowed)
//   offset 8  uint32 sub type (high 16 bits: group, low 16 bits: command)
//   offset 12 int32  data length
//   offset 16 data
// The block is both the in-memory and the wire form: it is written to a socket as it stands.
#ifndef ZT_MSG_H
#define ZT_MSG_H

#include "ztProxyExport.h"

#include <stdint.h>

#define ZT_MSG_MAGIC 0x2324
#define ZT_MSG_HEADER_SIZE 16

#pragma pack(push, 1)
typedef struct _ZT_PROXY_MSG_ {
    uint16_t magic;
    uint8_t reserved[2];
    int32_t msgType;
    uint32_t subType;
    int32_t dataLen;
    /* dataLen payload bytes follow */
} _ZT_PROXY_MSG_;
#pragma pack(pop)

#ifdef __cplusplus
extern "C" {
#endif

/* New record of 16 + dataLen bytes, or null when msgType is 0 or memory is short.
   The payload is copied only when dataLen > 0 and data is not null; otherwise it is
   left for the caller to fill through zt_msg_get_data. */
ZT_PROXY_API _ZT_PROXY_MSG_* zt_msg_create(int msgType, unsigned int subType, int dataLen, const void* data);
/* 0 when the record is not null and carries the magic, -1 otherwise. */
ZT_PROXY_API int zt_msg_is_avalible(const void* msg);
/* The getters check for null only (0, or null for the data pointer). */
ZT_PROXY_API int zt_msg_get_msg_type(const void* msg);
ZT_PROXY_API unsigned int zt_msg_get_sub_type(const void* msg);
ZT_PROXY_API void* zt_msg_get_data(void* msg);
ZT_PROXY_API int zt_msg_get_data_len(const void* msg);
ZT_PROXY_API int zt_msg_get_full_size(const void* msg);
/* Frees a record made by zt_msg_create; null is ignored. */
ZT_PROXY_API void zt_msg_release(void* msg);

#ifdef __cplusplus
}
#endif

#endif
