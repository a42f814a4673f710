#pragma once
// One drive service per peer process id. A newer admitted connection of the
// same process replaces the older one's service: the replaced service is
// uninitialised at once (its drives are unlocked and closed) but stays alive
// until the older stream lets go of it, so a request or a channel-down still
// in flight on that stream never reaches a deleted object.
//
// Threads: m_mutex is held only inside the calls, never across a call into a
// service; services are uninitialised and destroyed after it is released.

#include "worker/StorageDrives.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace tolv::worker {

class StorageDrivesRegistry {
public:
    static StorageDrivesRegistry& Instance();

    // A new service stored under `pid`; the one stored there before, if any,
    // is uninitialised.
    std::shared_ptr<StorageDrives> GetOrCreate(uint32_t pid);
    // Removes the service stored under `pid` if it is `service` (a newer
    // connection's service is left alone). Null `service` removes whatever is
    // stored. The service's drives close when its last holder lets go.
    void Erase(uint32_t pid, const std::shared_ptr<StorageDrives>& service = nullptr);
    // Uninitialises and removes every service (process exit).
    void Clear();

    size_t Size();
    std::shared_ptr<StorageDrives> Find(uint32_t pid);

private:
    std::mutex m_mutex;
    std::map<uint32_t, std::shared_ptr<StorageDrives>> m_services;  // guarded by m_mutex
};

} // namespace tolv::worker
