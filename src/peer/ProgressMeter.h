#pragma once
// Progress of one pass of a copy on standard error: percentage, bytes, rate
// and time left. On a terminal one line is redrawn in place; elsewhere (a
// log, a pipe) a whole line is printed every few seconds, and at the end.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

class ProgressMeter {
public:
    using Clock = std::chrono::steady_clock;

    // `out` null: shows nothing. `redraw`: `out` is a terminal.
    ProgressMeter(std::FILE* out, bool redraw, std::string what);

    void Update(uint64_t done, uint64_t total) { Update(done, total, Clock::now()); }
    void Update(uint64_t done, uint64_t total, Clock::time_point now);

    // "12.5 MiB", "3 B": a byte count as people read it.
    static std::string Bytes(uint64_t count);
    // "1:02:03", "4:05": seconds as a clock reads them.
    static std::string Duration(uint64_t seconds);

private:
    std::FILE* m_out;
    bool m_redraw;
    std::string m_what;
    Clock::time_point m_start;
    Clock::time_point m_lastShown;
    int m_lastPercent = -1;
    bool m_finished = false;
};
