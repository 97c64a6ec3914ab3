// Embedded message: the record exchanged with a network-attached scanner head (and with
// the USB head's control endpoints).
//
// One heap block of "full size" bytes, little-endian, no padding:
//   offset 0            uint8  head 0xAA (0xCC is accepted as well on receipt)
//   offset 1            uint32 full size: the whole message, head and tail included
//   offset 5            uint16 message type
//   offset 7            full size - 8 payload bytes
//   offset full size-1  uint8  tail 0xBB
// A message without payload is 8 bytes long. The block is both the in-memory and the
// wire form. The size field is what finds message boundaries in a byte stream.
#ifndef ZT_EMBEDDED_MSG_H
#define ZT_EMBEDDED_MSG_H

#include "ztProxyExport.h"

#define ZT_EMBEDDED_MSG_HEAD 0xAA
#define ZT_EMBEDDED_MSG_HEAD_ALT 0xCC
#define ZT_EMBEDDED_MSG_TAIL 0xBB
#define ZT_EMBEDDED_MSG_MIN_SIZE 8

#ifdef __cplusplus
extern "C" {
#endif

/* New message of size bytes (head and tail included), or null when size is 0 or below 8,
   or memory is short. With data, size - 8 payload bytes are copied from it and the tail
   goes to the last byte. Without data the payload is left as zeros and the tail 0xBB is
   written at offset 7, which is the last byte of the 8-byte messages built that way. */
ZT_PROXY_API void* zt_embedded_msg_create(unsigned int size, unsigned short msgType, const void* data);
/* 0 when the message is not null and starts with 0xAA or 0xCC, -1 otherwise. Neither the
   tail nor the size is checked. */
ZT_PROXY_API int zt_embedded_msg_is_avalible(const void* msg);
/* The getters check for null only (0, or null for the data pointer). */
ZT_PROXY_API unsigned short zt_embedded_msg_get_msg_type(const void* msg);
ZT_PROXY_API void* zt_embedded_msg_get_data(void* msg);
/* Full size - 8; negative for a size field below 8. */
ZT_PROXY_API int zt_embedded_msg_get_data_len(const void* msg);
ZT_PROXY_API int zt_embedded_msg_get_full_size(const void* msg);
/* Frees a message made by zt_embedded_msg_create; null is ignored. */
ZT_PROXY_API void zt_embedded_msg_release(void* msg);

#ifdef __cplusplus
}
#endif

#endif
