// The device ability record as both device links read it from a head's reply.
#pragma once

#include "ztProxyTypes.h"

namespace zt::commands {

// Fills info from the ability reply's payload behind its status word. A zero second word
// marks the long form, whose third word is the header; the body then starts with its
// format version, which must be 1, and eleven values in wire order (the record's sixth
// field comes last). -1 for a null pointer, else 0 (also when the version is not 1 and
// nothing but the header was filled). Reads at most 60 bytes from data.
int parseAbility(const char* data, DeviceAbilityInfo* info);

// Judges a whole ability reply message: only types 345 and 0 are taken (-1 otherwise); a
// non-zero status is logged and returned; type 0 with status 0 logs typeZeroLog and leaves
// info alone; otherwise the record is parsed into info. The reply is read only as far as
// it goes: a short one reads as zeros.
int judgeAbilityReply(const char* reply, DeviceAbilityInfo* info, const char* typeZeroLog);

} // namespace zt::commands
