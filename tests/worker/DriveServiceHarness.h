#pragma once
// Runs request records through a StorageDrives the way the connection layer
// does, from an exactly sized heap copy (so the sanitizer sees any over-read),
// and splits the reply into header and payload.

#include <tolv/worker/DriveRequests.h>
#include "worker/StorageDrives.h"

#include "platform/LittleEndian.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

using namespace tolv::worker;

struct ServiceReply {
    bool result = false;
    bool present = false;
    std::vector<uint8_t> raw;  // the whole reply record
    DR_RSP_HEADER header;

    std::vector<uint8_t> payload() const
    {
        return raw.size() > DR_RSP_HEADER_SIZE ? std::vector<uint8_t>(raw.begin() + DR_RSP_HEADER_SIZE, raw.end())
                                               : std::vector<uint8_t>();
    }
    // Data of a read reply, after its 4-byte count (which must match).
    std::vector<uint8_t> readData() const
    {
        const auto p = payload();
        EXPECT_GE(p.size(), 4u);
        if (p.size() < 4)
            return {};
        EXPECT_EQ(tolv::platform::LoadLe<uint32_t>(p.data()), p.size() - 4);
        EXPECT_EQ(header.information, p.size() - 4);
        return std::vector<uint8_t>(p.begin() + 4, p.end());
    }
};

inline ServiceReply CallService(StorageDrivesInterface& service, const std::vector<uint8_t>& request,
                                size_t size = SIZE_MAX)
{
    if (size == SIZE_MAX)
        size = request.size();
    std::unique_ptr<uint8_t[]> exact(new uint8_t[size == 0 ? 1 : size]);
    if (size != 0)
        std::memcpy(exact.get(), request.data(), size);
    uint8_t* response = reinterpret_cast<uint8_t*>(1);
    uint32_t responseSize = 12345;
    void* context = reinterpret_cast<void*>(1);
    ServiceReply reply;
    reply.result = service.HandleRequest(size == 0 ? nullptr : exact.get(), static_cast<uint32_t>(size), &response,
                                         &responseSize, &context);
    EXPECT_EQ(static_cast<void*>(response), context);
    if (response) {
        reply.present = true;
        reply.raw.assign(response, response + responseSize);
        EXPECT_TRUE(DecodeResponseHeader(response, responseSize, reply.header));
        EXPECT_EQ(responseSize, DR_RSP_HEADER_SIZE + reply.header.payloadLength);
        // Reserved bytes of the header are zero.
        EXPECT_EQ(tolv::platform::LoadLe<uint32_t>(response + 12), 0u);
        EXPECT_EQ(tolv::platform::LoadLe<uint32_t>(response + 28), 0u);
    } else {
        EXPECT_EQ(responseSize, 0u);
    }
    service.FreeResponse(context);
    return reply;
}

inline std::vector<uint8_t> Pattern(size_t size, uint8_t seed)
{
    std::vector<uint8_t> out(size);
    for (size_t i = 0; i < size; ++i)
        out[i] = static_cast<uint8_t>(i * 7 + seed + (i >> 8));
    return out;
}

// The whole 64-byte reply to a successful query, laid out by hand (not by the
// encoder under test).
inline std::vector<uint8_t> QueryReplyBytes(uint64_t ioContext, uint64_t diskSize, uint8_t readOnly, uint32_t mediaType,
                                            uint32_t heads, uint32_t sectorsPerTrack, uint32_t bytesPerSector)
{
    std::vector<uint8_t> bytes(64, 0);
    tolv::platform::StoreLe<uint64_t>(&bytes[0], ioContext);
    bytes[24] = 32;  // payloadLength
    tolv::platform::StoreLe<uint64_t>(&bytes[32], diskSize);
    bytes[40] = readOnly;
    tolv::platform::StoreLe<uint32_t>(&bytes[44], mediaType);
    tolv::platform::StoreLe<uint32_t>(&bytes[48], heads);
    tolv::platform::StoreLe<uint32_t>(&bytes[52], sectorsPerTrack);
    tolv::platform::StoreLe<uint32_t>(&bytes[56], bytesPerSector);
    return bytes;
}

// Number of this process's descriptors (optionally only those open on `target`).
size_t CountOpenDescriptors(const std::string& target = {});
