#include "peer/ProgressMeter.h"

#include <cinttypes>

namespace {

// How often a line is redrawn on a terminal, and printed elsewhere.
constexpr auto kRedrawEvery = std::chrono::milliseconds(200);
constexpr auto kLineEvery = std::chrono::seconds(5);

} // namespace

ProgressMeter::ProgressMeter(std::FILE* out, bool redraw, std::string what)
    : m_out(out), m_redraw(redraw), m_what(std::move(what)), m_start(Clock::now()), m_lastShown(m_start)
{
}

std::string ProgressMeter::Bytes(uint64_t count)
{
    static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    char text[32];
    if (count < 1024) {
        std::snprintf(text, sizeof text, "%" PRIu64 " B", count);
        return text;
    }
    double value = static_cast<double>(count) / 1024;
    size_t unit = 0;
    while (value >= 1024 && unit + 1 < sizeof kUnits / sizeof kUnits[0]) {
        value /= 1024;
        ++unit;
    }
    std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
    return text;
}

std::string ProgressMeter::Duration(uint64_t seconds)
{
    char text[32];
    if (seconds >= 3600)
        std::snprintf(text, sizeof text, "%" PRIu64 ":%02u:%02u", seconds / 3600,
                      static_cast<unsigned>(seconds / 60 % 60), static_cast<unsigned>(seconds % 60));
    else
        std::snprintf(text, sizeof text, "%u:%02u", static_cast<unsigned>(seconds / 60),
                      static_cast<unsigned>(seconds % 60));
    return text;
}

void ProgressMeter::Update(uint64_t done, uint64_t total, Clock::time_point now)
{
    if (!m_out || m_finished || total == 0)
        return;
    const bool last = done >= total;
    const int percent = static_cast<int>(static_cast<double>(done) * 100 / static_cast<double>(total));
    const auto since = now - m_lastShown;
    if (!last && (m_redraw ? (percent == m_lastPercent && since < kRedrawEvery) : since < kLineEvery))
        return;
    m_lastPercent = percent;
    m_lastShown = now;
    m_finished = last;

    const double seconds = std::chrono::duration<double>(now - m_start).count();
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
    std::string tail;
    if (last)
        tail = "in " + Duration(static_cast<uint64_t>(seconds + 0.5));
    else if (rate > 0)
        tail = Duration(static_cast<uint64_t>(static_cast<double>(total - done) / rate + 0.5)) + " left";
    else
        tail = "--:-- left";
    std::fprintf(m_out, "%s%s %3d%% %s of %s, %s/s, %s%s", m_redraw ? "\r" : "", m_what.c_str(), percent,
                 Bytes(done).c_str(), Bytes(total).c_str(), Bytes(static_cast<uint64_t>(rate)).c_str(), tail.c_str(),
                 m_redraw && !last ? "\x1b[K" : (m_redraw ? "\x1b[K\n" : "\n"));
    std::fflush(m_out);
}
