// Showing a stream of frames: a progress bar (or live counters) redrawn on one line when
// standard output is a terminal, plain lines otherwise, and the figures of a summary.
#pragma once

#include <cstdint>
#include <string>

namespace zt::tools {

bool stdoutIsTerminal();

// Wall time and the CPU time of the whole process (all its threads) since construction.
class UsageMeter {
public:
    UsageMeter();
    double seconds() const;
    // CPU time over wall time, in percent of one core.
    double cpuPercent() const;

private:
    std::int64_t m_wallStartNs;
    std::int64_t m_cpuStartNs;
};

struct StreamFigures {
    long long frames = 0;
    long long bytes = 0;
    double seconds = 0;
    double cpuPercent = 0;

    double framesPerSecond() const;
    double megabytesPerSecond() const; // 10^6 bytes
    // "100 frames in 0.71 s: 141.0 frames/s, 369.8 MB/s, CPU 128 % of one core"
    std::string text() const;
};

// Progress of a stream of a known number of frames. On a terminal a bar redrawn in place;
// otherwise a line each time a further quarter is reached.
class ProgressBar {
public:
    ProgressBar(const char* label, long long total, bool terminal);
    void update(long long done);
    // Ends the bar's line (on a terminal).
    void finish(long long done);

private:
    std::string m_label;
    long long m_total;
    bool m_terminal;
    long long m_shown = -1;
    int m_quarter = 0;
};

} // namespace zt::tools
