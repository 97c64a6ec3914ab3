// The application the record tests run on either link, live against a head with a
// recorder attached and again against the replay of its recording: online, a setting, a
// query asked twice with another answer each time, a setting, a trigger, frames and a
// marker packet, two events, stop.
#pragma once

#include "support/data_calls.h"
#include "ztRecorder.h"
#include "ztSimReplay.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace zt::test {

// What the application saw.
struct Outcome {
    std::vector<int> results;
    float before = 0, exposure = 0; // the exposure before and after the setting
    std::vector<std::pair<int, std::string>> calls; // without the heartbeat answers, whose number depends on time
};

// Runs the application on a Server made of serverArgs: online() brings it online (its result
// counts among the results), then it waits for `frames` frames and one packet of
// markerType, and for the two events. between(n) runs at the two points where the head
// has something to send.
template <class Server, class... ServerArgs>
Outcome runApplicationOn(const std::function<int(Server&)>& online, std::size_t frames, int markerType,
                       ztRecorder* recorder, const std::function<void(int)>& between, ServerArgs&&... serverArgs)
{
    DataCalls seen;
    Server server(std::forward<ServerArgs>(serverArgs)...);
    server.registerModuleServerDataCB(&DataCalls::cb, &seen);
    if (recorder != nullptr)
        server.attachRecorder(recorder);
    Outcome o;
    o.results.push_back(online(server));
    o.results.push_back(server.getCameraExposure(&o.before));
    o.results.push_back(server.setCameraExposure(2500.0f));
    o.results.push_back(server.sendTrigger());
    between(0);
    EXPECT_EQ(seen.waitCount(1280, frames, 5000), frames);
    EXPECT_EQ(seen.waitCount(markerType, 1, 5000), 1u);
    o.results.push_back(server.getCameraExposure(&o.exposure));
    between(1);
    EXPECT_EQ(seen.waitCount(301, 1, 5000), 1u);
    o.results.push_back(server.sendStopTrigger());
    server.deInit();
    server.attachRecorder(nullptr);
    for (auto& c : seen.all())
        if (c.first != 2)
            o.calls.push_back(c);
    return o;
}

// A file in the temporary folder named for this process, so that two runs of the suite at
// once do not share it.
inline std::string tempFile(const std::string& name)
{
    return ::testing::TempDir() + std::to_string(::getpid()) + "-" + name;
}

// Runs the live session (run, with a recorder writing to path), checks what the
// application saw and that nothing went unrecorded, and loads the recording into rec: whole,
// its records in time order, the command types in recorded order into commandTypes.
inline Outcome recordLive(const std::string& path, const std::function<Outcome(ztRecorder*)>& run,
                          ztRecorder::Contents& rec, std::vector<unsigned short>& commandTypes)
{
    ztRecorder recorder;
    EXPECT_EQ(recorder.open(path), 0);
    const Outcome live = run(&recorder);
    recorder.close();
    EXPECT_EQ(recorder.stats().notRecorded, 0u);
    EXPECT_EQ(live.results, (std::vector<int>{0, 0, 0, 0, 0, 0}));
    EXPECT_NE(live.before, 2500.0f);
    EXPECT_EQ(live.exposure, 2500.0f);
    EXPECT_EQ(ztRecorder::load(path, rec), 0);
    EXPECT_FALSE(rec.cut);
    EXPECT_TRUE(rec.header.abilityKnown);
    unsigned long long lastTime = 0;
    for (const auto& r : rec.records) {
        EXPECT_GE(r.timeNs, lastTime);
        lastTime = r.timeNs;
        if (r.kind == ztRecorder::Command)
            commandTypes.push_back(static_cast<unsigned short>(static_cast<unsigned char>(r.bytes[5]) |
                                                               static_cast<unsigned char>(r.bytes[6]) << 8));
    }
    return live;
}

// The bytes received on one channel of the recording, all records together.
inline std::size_t bytesIn(const ztRecorder::Contents& rec, unsigned channel)
{
    std::size_t n = 0;
    for (const auto& r : rec.records)
        n += r.kind == ztRecorder::BytesIn && r.channel == channel ? r.bytes.size() : 0;
    return n;
}

// The replayed session gave the application the same results, values and callbacks, in
// the same order, and the replay played every step with no command it did not know.
inline void expectSameOutcome(const Outcome& again, const Outcome& live, ztSimReplay& replay)
{
    EXPECT_EQ(again.results, live.results);
    EXPECT_EQ(again.before, live.before);
    EXPECT_EQ(again.exposure, live.exposure);
    ASSERT_EQ(again.calls.size(), live.calls.size());
    for (std::size_t i = 0; i < live.calls.size(); ++i) {
        EXPECT_EQ(again.calls[i].first, live.calls[i].first) << "callback " << i;
        EXPECT_TRUE(again.calls[i].second == live.calls[i].second) << "payload of callback " << i;
    }
    EXPECT_TRUE(replay.waitDone(5000));
    EXPECT_EQ(replay.unmatchedCommands(), 0);
}

} // namespace zt::test
