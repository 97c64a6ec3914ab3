// The device ability record as both device links read it from a head's reply.
#pragma once

#include "Catalogue.h"
#include "ztProxyTypes.h"

namespace zt::commands {

// Fills info from the ability reply's payload behind its status word. A zero second word
// marks the long form, whose third word is the header; the body then starts with its
// format version, which must be 1, and eleven values in wire order (the record's sixth
// field comes last). -1 for a null pointer, else 0 (also when the version is not 1 and
// nothing but the header was filled). Reads at most 60 bytes from data.
int parseAbility(const char* data, DeviceAbilityInfo* info);

// Judges an ability reply of type 345 or 0: a non-zero status is logged and returned; type
// 0 with status 0 logs a warning naming className and leaves info alone; otherwise the
// record is parsed into info. A reply shorter than its form needs fails with -1.
int judgeAbilityReply(const ReplyView& reply, DeviceAbilityInfo* info, const char* className);

} // namespace zt::commands
