#pragma once
// Runs request records through a StorageDrives the way the connection layer
// does, from an exactly sized heap copy (so the sanitizer sees any over-read),
// and splits the reply into header and payload.

#include <tolv/worker/DriveRequests.h>
#include "worker/StorageDrives.h"

#include "common/TempDir.h"
#include "platform/LittleEndian.h"
#include "platform/Utf.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

using namespace tolv::worker;
using tolv::platform::LoadLe;

struct ServiceReply {
    bool result = false;
    bool present = false;
    std::vector<uint8_t> raw;  // the whole reply record
    DR_RSP_HEADER header;

    // Data of a read reply, after its 4-byte count (which must match).
    std::vector<uint8_t> readData() const
    {
        EXPECT_GE(raw.size(), DR_RSP_HEADER_SIZE + 4);
        if (raw.size() < DR_RSP_HEADER_SIZE + 4)
            return {};
        EXPECT_EQ(LoadLe<uint32_t>(raw.data() + DR_RSP_HEADER_SIZE), raw.size() - DR_RSP_HEADER_SIZE - 4);
        EXPECT_EQ(header.information, raw.size() - DR_RSP_HEADER_SIZE - 4);
        return std::vector<uint8_t>(raw.begin() + DR_RSP_HEADER_SIZE + 4, raw.end());
    }
};

inline ServiceReply CallService(StorageDrivesInterface& service, const std::vector<uint8_t>& request,
                                size_t size = SIZE_MAX)
{
    size = std::min(size, request.size());
    std::unique_ptr<uint8_t[]> exact(new uint8_t[size]);
    std::copy(request.begin(), request.begin() + static_cast<ptrdiff_t>(size), exact.get());
    uint8_t* response = reinterpret_cast<uint8_t*>(1);
    uint32_t responseSize = 12345;
    void* context = reinterpret_cast<void*>(1);
    ServiceReply reply;
    reply.result = service.HandleRequest(size == 0 ? nullptr : exact.get(), static_cast<uint32_t>(size), &response,
                                         &responseSize, &context);
    EXPECT_EQ(static_cast<void*>(response), context);
    reply.present = response != nullptr;
    if (response) {
        reply.raw.assign(response, response + responseSize);
        EXPECT_TRUE(DecodeResponseHeader(response, responseSize, reply.header));
        EXPECT_EQ(responseSize, DR_RSP_HEADER_SIZE + reply.header.payloadLength);
        // Reserved bytes of the header are zero.
        EXPECT_EQ(LoadLe<uint32_t>(response + 12), 0u);
        EXPECT_EQ(LoadLe<uint32_t>(response + 28), 0u);
    }
    EXPECT_EQ(responseSize, reply.raw.size());
    service.FreeResponse(context);
    return reply;
}

// The bytes WritePatternFile puts at [offset, offset + length).
inline std::vector<uint8_t> PatternBytes(uint64_t offset, size_t length, uint32_t seed = 1)
{
    std::vector<uint8_t> out(length);
    for (size_t i = 0; i < length; ++i)
        out[i] = PatternByte(offset + i, seed);
    return out;
}

inline std::u16string Wide(const std::string& path)
{
    return *tolv::platform::Utf8ToUtf16(path);
}

// The whole reply to a successful query of a fixed disk of 255 heads, 63
// sectors a track and 512-byte sectors, laid out by hand, not by the encoder
// under test.
inline std::vector<uint8_t> QueryReplyBytes(uint64_t ioContext, uint64_t diskSize, uint8_t readOnly)
{
    std::vector<uint8_t> bytes(64, 0);
    tolv::platform::StoreLe<uint64_t>(&bytes[0], ioContext);
    bytes[24] = 32;  // payloadLength
    tolv::platform::StoreLe<uint64_t>(&bytes[32], diskSize);
    bytes[40] = readOnly;
    bytes[44] = MEDIA_TYPE_FIXED;
    bytes[48] = 255;
    bytes[52] = 63;
    bytes[57] = 2;  // 512
    return bytes;
}
