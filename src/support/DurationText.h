#pragma once
// Durations and byte counts as the log messages of the logging framework and
// the poll thread print them.

#include <cstdint>
#include <string>

// `seconds` with `precision` decimals (0..32; callers use 3): "1.500s", "250ms",
// "1:02:03.500", "2 days 0:00:01.000", "1 day". With a precision above 0 the
// whole seconds and the fraction are truncated; with 0 the seconds are rounded.
// Precisions above 18 print their 19th and later digits as 0. A negative
// duration prints as its magnitude with a leading '-'.
std::string DurationText(double seconds, int precision = 3);

// A byte count: "%dB" below 1000 in magnitude, else divided by 1024 until below
// 1000 (units K, M, G, T, at most P) and printed with "%*.*f%cB", width
// precision + 2.
std::string SizeText(int64_t bytes, int precision = 3);
