// libFuzzer target: a peer's transfer, as it sits in the shared section, read
// by the transfer reader and the block reader. The first input byte chooses
// whether the harness fixes up the CRC and the sequence number, so that the
// fuzzer also gets past them into the block walk.

#include <tamsel/ipc/ipclibTransfer.h>

#include "platform/LittleEndian.h"

#include <cstdint>
#include <cstring>
#include <vector>

using namespace tamsel::ipc;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const bool fixUp = data[0] & 1;
    ++data;
    --size;
    // The section is exactly the input, at least a header, at most the largest section.
    const uint32_t sectionSize =
        static_cast<uint32_t>(std::min<size_t>(std::max<size_t>(size, KxIpclibTransferHeaderSize), KxIpclibMaxSectionSize));
    std::vector<uint8_t> section(sectionSize, 0);
    std::memcpy(section.data(), data, std::min<size_t>(size, sectionSize));
    uint64_t recvSeqNo = 0;
    if (fixUp) {
        recvSeqNo = tolv::platform::LoadLe<uint64_t>(section.data() + 8) - 1;
        const uint32_t trxSize = tolv::platform::LoadLe<uint32_t>(section.data() + 20);
        if (trxSize >= KxIpclibTransferHeaderSize && trxSize <= sectionSize) {
            tolv::platform::StoreLe<uint32_t>(section.data() + 4, 0);
            tolv::platform::StoreLe<uint32_t>(section.data() + 4, kxCrc32(section.data(), trxSize));
        }
    }
    std::vector<uint8_t> buffer(sectionSize);
    size_t delivered = 0;
    readTransfer(section.data(), sectionSize, buffer.data(), recvSeqNo, [&](const KxIpclibBlock& block) {
        // Touch every payload byte the reader vouched for.
        for (uint32_t i = 0; i < block.header.payloadLength; ++i)
            delivered += block.payload[i];
        return KxIpcStatusSuccess;
    });
    return 0;
}
