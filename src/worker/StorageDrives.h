#pragma once
// Executes the drive requests of one peer. It owns the table of drives the peer
// has opened, keyed by drive letter, and releases them all when the peer goes.
//
// Threads: HandleRequest runs on any IPC thread, several at once. m_mutex guards
// only the table and is never held across device I/O or a call out of the
// service; a transfer works on its own copy of the handle, which keeps the
// descriptor open until the transfer ends even if the drive is released
// meanwhile.

#include "worker/DriveHandle.h"
#include <tolv/worker/DriveRequests.h>
#include "worker/StorageDrivesInterface.h"

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>

namespace tolv::worker {

class StorageDrives final : public StorageDrivesInterface {
public:
    // Where reply blocks come from: malloc unless replaced. The replacement
    // may return null or throw std::bad_alloc; either answers the request with
    // 0xC000009A. Blocks are released with free. Returns the previous one;
    // null puts malloc back.
    using ReplyAllocator = void* (*)(size_t size);
    static ReplyAllocator SetReplyAllocator(ReplyAllocator allocator);

    StorageDrives() = default;
    ~StorageDrives() override;
    StorageDrives(const StorageDrives&) = delete;
    StorageDrives& operator=(const StorageDrives&) = delete;

    bool Init() override;
    void Uninit() override;
    bool HandleRequest(const uint8_t* request, uint32_t requestSize, uint8_t** response, uint32_t* responseSize,
                       void** responseContext) override;
    void FreeResponse(void* buffer) override;

private:
    struct FreeDeleter {
        void operator()(uint8_t* block) const { std::free(block); }
    };
    // A whole reply: DR_RSP_HEADER_SIZE bytes of room for the header, then the
    // payload, so a payload is written once, in place.
    using ReplyBlock = std::unique_ptr<uint8_t, FreeDeleter>;

    struct LocalDrive {
        std::shared_ptr<DriveHandle> handle;
        uint64_t diskSize = 0;
    };

    // Null when the memory cannot be had, or when the whole reply would not
    // fit in one message (its size is a 32-bit count).
    static ReplyBlock AllocateReply(size_t payloadLength);
    static uint8_t* PayloadOf(const ReplyBlock& block) { return block.get() + DR_RSP_HEADER_SIZE; }

    bool RequestDrive(const DR_REQ_HEADER& header, const DR_QUERY_DISK_REQ& request, DR_RSP_HEADER& reply,
                      ReplyBlock& block);
    void TearDownAndLockVolume(const DriveHandle& handle);
    void ReleaseDrive(const DR_REQ_HEADER& header);
    bool Read(const DR_REQ_HEADER& header, const DR_READ_REQ& request, DR_RSP_HEADER& reply, ReplyBlock& block);
    bool Write(const DR_REQ_HEADER& header, const DR_WRITE_REQ& request, DR_RSP_HEADER& reply);

    // Decodes the payload for the code and runs its handler. False with a
    // 0xC000000D reply when the payload is too short for its code.
    bool Dispatch(const DR_REQ_HEADER& header, const uint8_t* payload, size_t payloadSize, DR_RSP_HEADER& reply,
                  ReplyBlock& block);

    LocalDrive GetLocalDrive(uint8_t letter);
    void Cleanup();

    std::mutex m_mutex;
    std::map<uint8_t, LocalDrive> m_drives;  // guarded by m_mutex
};

} // namespace tolv::worker
