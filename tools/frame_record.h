// Full-frame records as a head streams them, and saving one as a PNG image.
//
// A record (little-endian): 64 header bytes, u64 timestamp, u16 width, u16 height, then
// width x height u16 pixels row by row. It travels as the payload of a stream packet with
// the 76-byte extended header; the data callback delivers the packet from byte 7 on, so
// the record starts 69 bytes into what the callback receives.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

class ztImageAssembler;

namespace zt::tools {

constexpr unsigned short kFullFrameType = 1280;
constexpr std::size_t kRecordHeaderSize = 76;
constexpr std::size_t kRecordInCallback = 69;

// A record whose pixels, scaled to 8 bits, show what a scanner head sees: laser lines
// across a shaded object on a floor with circular markers. Some 30 ms for 1280 x 1024:
// make it once and send it repeatedly.
std::vector<char> scanRecord(unsigned short width, unsigned short height, unsigned long long stamp);
// That record as a full-frame stream packet (extended header, type kFullFrameType), as the
// simulated heads stream it.
std::vector<char> scanPacket(unsigned short width, unsigned short height, unsigned long long stamp);

// The record within what the data callback delivered for a full-frame packet, or null when
// the data is too short for the record's header or for the pixels it declares.
char* recordIn(char* data, int length);

// The record's timestamp.
unsigned long long recordStamp(const char* record);

// Scales the record's pixels to 8 bits with the assembler (rewriting them in place) and
// writes the image to path as PNG. false with a one-line reason.
bool saveRecordAsPng(ztImageAssembler& assembler, char* record, const std::string& path, std::string& error);

} // namespace zt::tools
