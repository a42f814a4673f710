#include <tamsel/ipc/ipclibTransfer.h>

#include "platform/LittleEndian.h"

#include <isa-l/crc.h>

#include <array>
#include <cstring>

using tolv::platform::LoadLe;
using tolv::platform::StoreLe;

namespace tamsel::ipc {

namespace {

constexpr std::array<uint32_t, 256> MakeTable()
{
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int k = 0; k < 8; ++k)
            c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        table[i] = c;
    }
    return table;
}

constexpr auto kTable = MakeTable();

} // namespace

uint32_t kxCrc32Bytewise(const uint8_t* data, size_t size)
{
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; ++i)
        crc = kTable[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

uint32_t kxCrc32(const uint8_t* data, size_t size)
{
    // ISA-L's reflected IEEE CRC (as gzip) gives the same results, many times faster.
    return crc32_gzip_refl(0, data, size);
}

void finishTransfer(uint8_t* unit, uint32_t trxSize, uint32_t blockCount, uint64_t trxSeqNo)
{
    StoreLe<uint32_t>(unit + 0, 0);
    StoreLe<uint32_t>(unit + 4, 0);
    StoreLe<uint64_t>(unit + 8, trxSeqNo);
    StoreLe<uint32_t>(unit + 16, 0);
    StoreLe<uint32_t>(unit + 20, trxSize);
    StoreLe<uint32_t>(unit + 24, blockCount);
    StoreLe<uint32_t>(unit + 4, kxCrc32(unit, trxSize));
}

KxIpcStatusCode readTransfer(const volatile uint8_t* section, uint32_t sectionSize, uint8_t* buffer,
                             uint64_t& recvSeqNo, const std::function<KxIpcStatusCode(const KxIpclibBlock&)>& onBlock)
{
    constexpr auto kBad = KxIpcStatusProtocolError;
    if (sectionSize < KxIpclibTransferHeaderSize)
        return kBad;
    // The peer can change the section at any time: its size is read once, and
    // everything else only from the private copy.
    uint8_t sizeBytes[4];
    for (int i = 0; i < 4; ++i)
        sizeBytes[i] = section[20 + i];
    const uint32_t trxSize = LoadLe<uint32_t>(sizeBytes);
    if (trxSize < KxIpclibTransferHeaderSize || trxSize > sectionSize)
        return kBad;
    std::memcpy(buffer, const_cast<const uint8_t*>(section), trxSize);

    const uint32_t crc = LoadLe<uint32_t>(buffer + 4);
    StoreLe<uint32_t>(buffer + 4, 0);
    if (kxCrc32(buffer, trxSize) != crc)
        return kBad;
    const uint32_t blockCount = LoadLe<uint32_t>(buffer + 24);
    if (trxSize < KxIpclibMinTransferSize || blockCount == 0)
        return kBad;
    if (LoadLe<uint64_t>(buffer + 8) != ++recvSeqNo)
        return kBad;

    // Every block is checked before any is handed on, so that a bad transfer
    // delivers nothing.
    uint32_t offset = KxIpclibTransferHeaderSize;
    for (uint32_t i = 0; i < blockCount; ++i) {
        KxIpclibBlock block;
        if (offset >= trxSize || readBlock(buffer + offset, trxSize - offset, block) != KxIpcStatusSuccess)
            return kBad;
        offset += block.header.blockLength;
    }
    offset = KxIpclibTransferHeaderSize;
    for (uint32_t i = 0; i < blockCount; ++i) {
        KxIpclibBlock block;
        readBlock(buffer + offset, trxSize - offset, block);
        const KxIpcStatusCode status = onBlock(block);
        if (status != KxIpcStatusSuccess)
            return status;
        offset += block.header.blockLength;
    }
    return KxIpcStatusSuccess;
}

} // namespace tamsel::ipc
