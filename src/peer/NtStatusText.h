#pragma once
// NT statuses of reply records in words, for the peer's error messages.

#include <cstdint>
#include <string>

// "STATUS_END_OF_FILE (0xC0000011): end of file", or the number alone for a
// status the worker does not produce.
std::string NtStatusText(uint32_t status);
