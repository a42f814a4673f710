#pragma once
#include <cstdint>

namespace tolv::worker {

// The drive service of one connected peer: one request record in, one reply
// record (or none) out.
class StorageDrivesInterface {
public:
    virtual ~StorageDrivesInterface() = default;
    virtual bool Init() = 0;
    virtual void Uninit() = 0;
    // `response` receives null (no reply) or a heap block of exactly
    // `responseSize` bytes; `responseContext` receives the same block, which the
    // caller hands to FreeResponse once the reply is sent. The result is false
    // when the request could not be processed; a reply may exist even then.
    virtual bool HandleRequest(const uint8_t* request, uint32_t requestSize, uint8_t** response,
                               uint32_t* responseSize, void** responseContext) = 0;
    // Releases a block from HandleRequest; null is harmless.
    virtual void FreeResponse(void* buffer) = 0;
};

} // namespace tolv::worker
