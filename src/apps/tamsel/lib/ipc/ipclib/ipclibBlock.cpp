#include <tamsel/ipc/ipclibBlock.h>

#include "platform/LittleEndian.h"

#include <cstring>

using tolv::platform::LeReader;
using tolv::platform::StoreLe;

namespace tamsel::ipc {

uint32_t writeBlock(KxIpclibMsg& msg, uint8_t* out, uint32_t room)
{
    const bool first = msg.remaining() == msg.size();
    if (room <= KxIpclibMinBlockRoom || (!first && msg.remaining() == 0))
        return 0;
    const uint32_t header = first ? KxIpclibFirstBlockHeaderSize : KxIpclibNextBlockHeaderSize;
    const uint32_t payloadRoom = room - header;
    uint32_t flags = msg.flags() & ~KxIpclibBlockFlagMask;
    if (first)
        flags |= KxIpclibBlockFirst;
    uint32_t payload = payloadRoom;
    if (msg.remaining() <= payloadRoom) {
        payload = msg.remaining();
        flags |= KxIpclibBlockLast;
    }
    StoreLe<uint32_t>(out + 0, static_cast<uint32_t>(msg.msgType()));
    StoreLe<uint32_t>(out + 4, flags);
    StoreLe<uint32_t>(out + 8, msg.status());
    StoreLe<uint64_t>(out + 12, msg.srcStreamId());
    StoreLe<uint64_t>(out + 20, msg.destStreamId());
    StoreLe<uint32_t>(out + 28, header + payload);
    StoreLe<uint32_t>(out + 32, payload);
    if (first)
        StoreLe<uint32_t>(out + 36, msg.size());
    if (payload != 0)
        std::memcpy(out + header, msg.sendCursor(), payload);
    msg.advance(payload);
    return header + payload;
}

KxIpcStatusCode readBlock(const uint8_t* data, size_t available, KxIpclibBlock& out)
{
    LeReader reader(data, available);
    KxIpclibBlockHeader h;
    if (!reader.u32(h.msgType) || !reader.u32(h.flags) || !reader.u32(h.status) || !reader.u64(h.srcStreamId) ||
        !reader.u64(h.destStreamId) || !reader.u32(h.blockLength) || !reader.u32(h.payloadLength))
        return KxIpcStatusProtocolError;
    if (h.first() && !reader.u32(h.totalSize))
        return KxIpcStatusProtocolError;
    // A message is at least its first block, and exactly it when that is also its last.
    if (h.first() && (h.totalSize < h.payloadLength || (h.last() && h.totalSize != h.payloadLength)))
        return KxIpcStatusProtocolError;
    if ((h.flags & KxIpclibBlockFlagMask & ~(KxIpclibBlockFirst | KxIpclibBlockLast)) != 0)
        return KxIpcStatusProtocolError;

    const auto type = static_cast<KxIpclibMsgType>(h.msgType);
    if (h.msgType < 1 || h.msgType > 6)
        return KxIpcStatusProtocolError;
    const uint32_t header = h.headerLength();
    const bool control = type != KxIpclibMsgType::Open && type != KxIpclibMsgType::Msg;
    if (control && (!h.first() || !h.last() || h.blockLength != header))
        return KxIpcStatusProtocolError;
    if (type == KxIpclibMsgType::Open && h.destStreamId != 0)
        return KxIpcStatusProtocolError;
    // Compared in 64 bits: a payloadLength near 2^32 must not wrap the sum.
    if (uint64_t{h.blockLength} != uint64_t{header} + h.payloadLength)
        return KxIpcStatusProtocolError;
    if (h.blockLength > available)
        return KxIpcStatusProtocolError;

    out.header = h;
    out.payload = data + header;
    return KxIpcStatusSuccess;
}

} // namespace tamsel::ipc
