#include "stream_view.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>

namespace zt::tools {

namespace {

std::int64_t nowNs(clockid_t clock)
{
    timespec t{};
    ::clock_gettime(clock, &t);
    return static_cast<std::int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

constexpr int kBarWidth = 40;

} // namespace

bool stdoutIsTerminal()
{
    return ::isatty(STDOUT_FILENO) == 1;
}

UsageMeter::UsageMeter()
    : m_wallStartNs(nowNs(CLOCK_MONOTONIC)), m_cpuStartNs(nowNs(CLOCK_PROCESS_CPUTIME_ID))
{
}

double UsageMeter::seconds() const
{
    return static_cast<double>(nowNs(CLOCK_MONOTONIC) - m_wallStartNs) / 1e9;
}

double UsageMeter::cpuPercent() const
{
    const double wall = seconds();
    const double cpu = static_cast<double>(nowNs(CLOCK_PROCESS_CPUTIME_ID) - m_cpuStartNs) / 1e9;
    return wall > 0 ? cpu / wall * 100 : 0;
}

double StreamFigures::framesPerSecond() const
{
    return seconds > 0 ? static_cast<double>(frames) / seconds : 0;
}

double StreamFigures::megabytesPerSecond() const
{
    return seconds > 0 ? static_cast<double>(bytes) / seconds / 1e6 : 0;
}

std::string StreamFigures::text() const
{
    char line[160];
    std::snprintf(line, sizeof line, "%lld frames in %.2f s: %.1f frames/s, %.1f MB/s, CPU %.0f %% of one core", frames,
                  seconds, framesPerSecond(), megabytesPerSecond(), cpuPercent);
    return line;
}

ProgressBar::ProgressBar(const char* label, long long total, bool terminal)
    : m_label(label), m_total(total > 0 ? total : 1), m_terminal(terminal)
{
}

void ProgressBar::update(long long done)
{
    if (done == m_shown)
        return;
    m_shown = done;
    if (m_terminal) {
        const long long clipped = done < m_total ? done : m_total;
        const int filled = static_cast<int>(clipped * kBarWidth / m_total);
        const std::string bar = std::string(static_cast<std::size_t>(filled), '#') +
                                std::string(static_cast<std::size_t>(kBarWidth - filled), '.');
        std::printf("\r  %-12s [%s] %lld/%lld frames", m_label.c_str(), bar.c_str(), done, m_total);
        std::fflush(stdout);
        return;
    }
    const long long quarter = done >= m_total ? 4 : done * 4 / m_total;
    if (quarter > m_quarter) {
        m_quarter = static_cast<int>(quarter);
        std::printf("  %-12s %3d %%  %lld/%lld frames\n", m_label.c_str(), m_quarter * 25, done, m_total);
    }
    std::fflush(stdout);
}

void ProgressBar::finish(long long done)
{
    update(done);
    if (m_terminal)
        std::printf("\n");
    std::fflush(stdout);
}

} // namespace zt::tools
