#pragma once
// The unit that one shared-memory channel carries: a 28-byte little-endian
// header, then blocks back to back.
//
//   0 reserved (0)  4 crc  8 trxSeqNo  16 reserved (0)  20 trxSize  24 blockCount  28 blocks...
//
// The CRC is CRC-32 (IEEE, reflected, as gzip) over the first trxSize bytes
// with the crc field taken as 0.

#include <tamsel/ipc/ipclibBlock.h>
#include <tamsel/ipc/ipclibTypes.h>

#include <cstddef>
#include <cstdint>
#include <functional>

namespace tamsel::ipc {

inline constexpr uint32_t KxIpclibTransferHeaderSize = 28;
// The smallest transfer that carries a block: the header and a 36-byte block header.
inline constexpr uint32_t KxIpclibMinTransferSize = 64;
// Sections are at most this large.
inline constexpr uint32_t KxIpclibMaxSectionSize = 1048575;

// CRC-32 of `size` bytes: the fast one the links use, and the bytewise table
// version that every result must equal.
uint32_t kxCrc32(const uint8_t* data, size_t size);
uint32_t kxCrc32Bytewise(const uint8_t* data, size_t size);

// Writes the header of a transfer whose `blockCount` blocks end at `trxSize`.
void finishTransfer(uint8_t* unit, uint32_t trxSize, uint32_t blockCount, uint64_t trxSeqNo);

// Reads the transfer in `section` (shared with the peer): copies it into the
// private `buffer` (sectionSize bytes) before any check, checks the size, CRC,
// sequence number (against ++recvSeqNo) and every block, and only then hands
// the blocks in order to `onBlock`, whose first failing status ends the walk.
// ProtocolError, with nothing handed on, for any fault of the transfer.
KxIpcStatusCode readTransfer(const volatile uint8_t* section, uint32_t sectionSize, uint8_t* buffer,
                             uint64_t& recvSeqNo, const std::function<KxIpcStatusCode(const KxIpclibBlock&)>& onBlock);

} // namespace tamsel::ipc
