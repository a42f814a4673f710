#pragma once
// GUID text to its 16 bytes.

// Accepts the 32-hex-digit packed form ("875ac244b80a420e90a29c69dfd8e728") and
// the 36-character 8-4-4-4-12 form, either of them with or without braces,
// hex digits in either case; refuses anything else (a null text, other
// lengths, stray characters, dashes elsewhere, one brace). On success writes
// 16 bytes to `bin` in the memory layout of a GUID: the first field (8 digits)
// as a host-order 32-bit value, the next two (4 digits each) as host-order
// 16-bit values, then the last 8 bytes in text order - so `bin` may point
// straight at the IPC library's endpoint GUID. On failure `bin` is untouched.
bool UUID_ConvertPackedToBin(void* bin, const char* text);
