#pragma once
// The block framing of messages on a link: the one place where the block
// layout lives. A message crosses as one or more blocks, each a little-endian
// header (40 bytes on the first block of a message, 36 on the others) followed
// by its payload bytes.
//
//   0 msgType  4 flags  8 status  12 srcStreamId  20 destStreamId
//   28 blockLength (header + payload)  32 payloadLength  36 totalSize (first block only)
//
// Flags: bits 16..31 are the message's own; 0x0001 marks the first block of a
// message, 0x0002 the last; the other low bits are zero.

#include <tamsel/ipc/ipclibMsg.h>

#include <cstddef>
#include <cstdint>

namespace tamsel::ipc {

inline constexpr uint32_t KxIpclibBlockFirst = 0x0001;
inline constexpr uint32_t KxIpclibBlockLast = 0x0002;
inline constexpr uint32_t KxIpclibBlockFlagMask = 0xFFFF;
inline constexpr uint32_t KxIpclibFirstBlockHeaderSize = 40;
inline constexpr uint32_t KxIpclibNextBlockHeaderSize = 36;
// A block is started only when more room than this is left.
inline constexpr uint32_t KxIpclibMinBlockRoom = 40;

struct KxIpclibBlockHeader {
    uint32_t msgType = 0;
    uint32_t flags = 0;
    uint32_t status = 0;
    uint64_t srcStreamId = 0;
    uint64_t destStreamId = 0;
    uint32_t blockLength = 0;
    uint32_t payloadLength = 0;
    uint32_t totalSize = 0;  // first block only

    bool first() const { return (flags & KxIpclibBlockFirst) != 0; }
    bool last() const { return (flags & KxIpclibBlockLast) != 0; }
    uint32_t headerLength() const { return first() ? KxIpclibFirstBlockHeaderSize : KxIpclibNextBlockHeaderSize; }
};

// A block read from a received buffer: its header and where its payload lies
// (inside the buffer that was parsed).
struct KxIpclibBlock {
    KxIpclibBlockHeader header;
    const uint8_t* payload = nullptr;
};

// Writes the next block of `msg` into `out`, which has `room` bytes, and moves
// the message's cursor past the payload written. Returns the block's length,
// or 0 when no block may start (room of 40 bytes or less) or the message has
// nothing left to send. `msg.remaining() == 0` afterwards means its last block
// is written.
uint32_t writeBlock(KxIpclibMsg& msg, uint8_t* out, uint32_t room);

// Reads and checks one block from untrusted bytes: a known message type (1..6);
// control messages (2..5) as one block with no payload; an open addressed to
// stream 0 (open and data blocks may be empty); blockLength equal to the
// header plus payloadLength; a first block's totalSize at least its payload
// (and equal to it in a single-block message); no unknown low flag bits; header
// and payload inside the `available` bytes. ProtocolError otherwise, and `out` untouched.
KxIpcStatusCode readBlock(const uint8_t* data, size_t available, KxIpclibBlock& out);

} // namespace tamsel::ipc
