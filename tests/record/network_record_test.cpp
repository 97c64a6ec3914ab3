// A network head's session recorded, then replayed to a fresh server: the application
// sees the same results and the same callbacks, in the same order.
#include "network/online.h"
#include "record_app.h"
#include "ztProxyVersion.h"
#include "ztRecorder.h"
#include "ztSimReplay.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace zt::test;

constexpr std::size_t kFrames = 4;
constexpr std::size_t kFrameBytes = 150000; // several receives per frame

// The application; the stream's marker packet is of type 513.
Outcome runApplication(ztRecorder* recorder, const std::function<void(int)>& between)
{
    return runApplicationOn<ztEmbeddedModuleProxyServer>(
        [](ztEmbeddedModuleProxyServer& s) { return s.init(kIP, kIP, "SN-REC"); }, kFrames, 513, recorder, between);
}

// What the head sends in the live session: frames whole, two in one write and one in two
// writes, a marker packet; then two events in one write.
void liveHead(Head& head, int phase)
{
    if (phase == 0) {
        std::vector<std::vector<char>> frames;
        for (std::size_t i = 0; i < kFrames; ++i)
            frames.push_back(streamPacket(kFrameBytes, static_cast<char>('a' + i), 100 + i));
        ASSERT_GT(head.sendBytes(Head::Data, frames[0].data(), frames[0].size()), 0);
        std::vector<char> two = frames[1];
        two.insert(two.end(), frames[2].begin(), frames[2].end());
        ASSERT_GT(head.sendBytes(Head::Data, two.data(), two.size()), 0);
        ASSERT_GT(head.sendBytes(Head::Data, frames[3].data(), 1000), 0);
        ASSERT_GT(head.sendBytes(Head::Data, frames[3].data() + 1000, frames[3].size() - 1000), 0);
        const std::string marker(300, 'm');
        ASSERT_GT(head.sendPlainPacket(Head::Data, 513, marker.data(), marker.size()), 0);
    } else {
        std::vector<char> events = Head::message(300, "alarm", 5);
        const std::vector<char> sync = Head::message(301, "sync!", 5);
        events.insert(events.end(), sync.begin(), sync.end());
        ASSERT_GT(head.sendBytes(Head::CommandData, events.data(), events.size()), 0);
    }
}

TEST(NetworkRecord, ReplayGivesTheApplicationWhatItSawLive)
{
    const std::string path = tempFile("network.ztrec");
    ztRecorder::Contents rec;
    std::vector<unsigned short> commands;
    Outcome live;
    {
        Head head;
        ASSERT_EQ(head.start(), 0);
        live = recordLive(
            path, [&](ztRecorder* r) { return runApplication(r, [&](int phase) { liveHead(head, phase); }); }, rec,
            commands);
    }
    EXPECT_EQ(rec.header.link, ztRecorder::NetworkLink);
    EXPECT_EQ(rec.header.serialNumber, "SN-REC");
    EXPECT_EQ(rec.header.libraryVersion, ztProxyVersion());
    EXPECT_EQ(rec.header.ability.productType, Head::kDefaultProductType);
    // Every frame byte the head sent is on the data connection, in order.
    EXPECT_EQ(bytesIn(rec, Head::Data), kFrames * (kFrameBytes + 77) + 300 + 8);
    // The online procedure's ability query and three SET files, then the application's.
    EXPECT_EQ(commands, (std::vector<unsigned short>{345, 264, 264, 264, 8, 7, 13, 8, 13}));

    {
        ztSimReplay replay;
        ASSERT_EQ(replay.load(path), 0);
        ASSERT_EQ(replay.startNetwork(kIP), 0);
        expectSameOutcome(runApplication(nullptr, [](int) {}), live, replay);

        // A command the recording never saw gets no reply and is counted.
        ztEmbeddedModuleProxyServer other;
        ASSERT_EQ(other.init(kIP, kIP, "SN-REC"), 0);
        EXPECT_TRUE(other.isConnected());
        EXPECT_EQ(other.sendPreTrigger(), 0);
        EXPECT_TRUE(waitUntil(3000, [&] { return replay.unmatchedCommands() == 1; }));
    }

    // A file cut anywhere reads up to its last whole record.
    const std::string cutPath = tempFile("network-cut.ztrec");
    const auto size = std::filesystem::file_size(path);
    ztRecorder::Contents cut;
    const auto loadCut = [&](std::uintmax_t n) {
        std::filesystem::copy_file(path, cutPath, std::filesystem::copy_options::overwrite_existing);
        std::filesystem::resize_file(cutPath, n);
        return ztRecorder::load(cutPath, cut);
    };
    EXPECT_EQ(loadCut(100), -1); // inside the header: no recording
    ASSERT_EQ(loadCut(150), 0); // inside the first record
    EXPECT_TRUE(cut.cut);
    EXPECT_TRUE(cut.records.empty());
    ASSERT_EQ(loadCut(size - 1), 0); // the last record one byte short
    EXPECT_TRUE(cut.cut);
    ASSERT_EQ(cut.records.size(), rec.records.size() - 1);
    for (std::size_t i = 0; i < cut.records.size(); ++i)
        EXPECT_TRUE(cut.records[i].bytes == rec.records[i].bytes && cut.records[i].kind == rec.records[i].kind) << i;
    // A replay of the cut file plays what it holds, and says so.
    ztSimReplay replay;
    std::string said;
    replay.setLog([&said](const std::string& line) { said += line; });
    ASSERT_EQ(replay.load(cutPath), 0);
    EXPECT_NE(said.find("ends inside a record"), std::string::npos) << said;
    std::remove(cutPath.c_str());
    std::remove(path.c_str());
}

// With the disk (here: the queue) behind, the stream goes on, and what was not recorded
// is counted and noted in the file.
TEST(NetworkRecord, FullQueueCountsWhatItCouldNotRecord)
{
    const std::string path = tempFile("network-full.ztrec");
    Online o;
    ztRecorder recorder(1); // the smallest queue, 4 KiB: most receives of a large frame do not fit
    ASSERT_EQ(recorder.open(path), 0);
    o.server.attachRecorder(&recorder);
    o.start();
    // Two rounds of large frames, each followed by small packets one at a time until the
    // queue has gone round its end three more times (a record that crosses the end must
    // come out whole) and one was recorded with nothing lost meanwhile: each round's
    // losses go into a note of their own.
    const std::vector<char> frame = streamPacket(1 << 20, 'f');
    const std::string marker(300, 'm');
    std::size_t markers = 0;
    unsigned long long lost = 0;
    for (unsigned round = 1; round <= 2; ++round) {
        for (int i = 0; i < 4; ++i)
            ASSERT_GT(o.head.sendBytes(Head::Data, frame.data(), frame.size()), 0);
        ASSERT_EQ(o.seen.waitCount(1280, 4 * round, 5000), 4 * round);
        EXPECT_GT(recorder.stats().notRecorded, lost);
        for (bool clean = false; !clean || recorder.stats().bytes <= round * 3 * 4096u;) {
            ASSERT_LT(markers, 2000u);
            const ztRecorder::Stats before = recorder.stats();
            ASSERT_GT(o.head.sendPlainPacket(Head::Data, 513, marker.data(), marker.size()), 0);
            ASSERT_EQ(o.seen.waitCount(513, ++markers, 5000), markers);
            const ztRecorder::Stats after = recorder.stats();
            clean = clean || (after.records > before.records && after.notRecorded == before.notRecorded);
        }
        lost = recorder.stats().notRecorded;
    }
    o.server.deInit();
    o.server.attachRecorder(nullptr);
    recorder.close();
    const ztRecorder::Stats stats = recorder.stats();
    EXPECT_GT(stats.notRecordedBytes, 0u);
    EXPECT_GT(stats.bytes, 6 * 4096u);

    ztRecorder::Contents rec;
    ASSERT_EQ(ztRecorder::load(path, rec), 0);
    EXPECT_FALSE(rec.cut);
    // Each note: the number of records in its status, of bytes in its 8 bytes (little-endian).
    std::uint64_t notes = 0, noted = 0, notedBytes = 0;
    for (const auto& r : rec.records) {
        if (r.kind == ztRecorder::BytesIn && r.channel == Head::Data && r.bytes.size() == 308 && r.bytes[8] == 'm') {
            EXPECT_EQ(std::count(r.bytes.begin(), r.bytes.end(), 'm'), 300);
        }
        if (r.kind != ztRecorder::NotRecorded)
            continue;
        ++notes;
        noted += static_cast<std::uint64_t>(r.status);
        std::uint64_t n = 0;
        ASSERT_EQ(r.bytes.size(), sizeof n);
        std::memcpy(&n, r.bytes.data(), sizeof n);
        notedBytes += n;
    }
    EXPECT_GE(notes, 2u);
    EXPECT_EQ(noted, stats.notRecorded);
    EXPECT_EQ(notedBytes, stats.notRecordedBytes);
    std::remove(path.c_str());
}

} // namespace
