#include "support/DurationText.h"

#include <cmath>
#include <cstdio>

namespace {

constexpr int kMaxPrecision = 32;
// A fraction of more digits does not fit a 64-bit value; the rest print as 0.
constexpr int kMaxFractionDigits = 18;

std::string Format(const char* format, auto... args)
{
    char buffer[128];
    const int n = std::snprintf(buffer, sizeof buffer, format, args...);
    return std::string(buffer, n < 0 ? 0 : static_cast<size_t>(std::min<int>(n, sizeof buffer - 1)));
}

} // namespace

std::string DurationText(double seconds, int precision)
{
    if (precision < 0)
        precision = 0;
    if (precision > kMaxPrecision)
        precision = kMaxPrecision;
    if (std::isnan(seconds))
        seconds = 0;
    std::string text;
    if (seconds < 0) {
        text = "-";
        seconds = -seconds;
    }

    long long whole;
    long long fraction = 0;
    if (precision > 0) {
        // Truncated: 1.9999 with 3 decimals is 1.999, never 2.000.
        const double truncated = std::floor(seconds);
        whole = static_cast<long long>(truncated);
        const int digits = std::min(precision, kMaxFractionDigits);
        // The slack absorbs the binary representation of decimal input
        // (3599.999 is stored as 3599.99899999...); it is far below a digit.
        const long double scaled = static_cast<long double>(seconds - truncated) * std::pow(10.0L, digits);
        fraction = static_cast<long long>(std::floor(scaled + 1e-4L));
        const long long limit = static_cast<long long>(std::pow(10.0, digits));
        if (fraction >= limit) // the multiplication rounded up to the next second
            fraction = limit - 1;
    } else {
        whole = std::llround(seconds);
    }
    const int pad = precision > kMaxFractionDigits ? precision - kMaxFractionDigits : 0;
    const std::string zeros(static_cast<size_t>(pad), '0');
    const int width = precision - pad;

    const long long days = whole / 86400;
    const int hours = static_cast<int>((whole / 3600) % 24);
    const int minutes = static_cast<int>((whole / 60) % 60);
    const int secs = static_cast<int>(whole % 60);

    if (days >= 1) {
        text += Format("%lld day%s", days, days == 1 ? "" : "s");
        if (hours == 0 && minutes == 0 && secs == 0 && fraction == 0)
            return text;
        text += ' ';
    } else if (hours == 0 && minutes == 0) {
        if (precision == 0)
            return text + Format("%ds", secs);
        if (secs == 0) {
            if (precision == 3)
                return text + Format("%lldms", fraction);
            if (precision == 6)
                return text + Format("%lldus", fraction);
            if (precision == 9)
                return text + Format("%lldns", fraction);
        }
        return text + Format("%d.%0*lld", secs, width, fraction) + zeros + "s";
    }
    if (precision == 0)
        return text + Format("%d:%02d:%02d", hours, minutes, secs);
    return text + Format("%d:%02d:%02d.%0*lld", hours, minutes, secs, width, fraction) + zeros;
}

std::string SizeText(int64_t bytes, int precision)
{
    if (bytes > -1000 && bytes < 1000)
        return Format("%dB", static_cast<int>(bytes));
    if (precision < 0)
        precision = 0;
    if (precision > kMaxPrecision)
        precision = kMaxPrecision;
    static constexpr char kUnits[] = "KMGTP";
    double value = static_cast<double>(bytes);
    int unit = -1;
    do {
        value /= 1024.0;
        ++unit;
    } while (std::fabs(value) >= 1000.0 && unit < 4);
    return Format("%*.*f%cB", precision + 2, precision, value, kUnits[unit]);
}
