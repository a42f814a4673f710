#include "worker/StorageDrivesRegistry.h"

#include <vector>

namespace tolv::worker {

StorageDrivesRegistry& StorageDrivesRegistry::Instance()
{
    static StorageDrivesRegistry registry;
    return registry;
}

std::shared_ptr<StorageDrives> StorageDrivesRegistry::GetOrCreate(uint32_t pid)
{
    auto service = std::make_shared<StorageDrives>();
    std::shared_ptr<StorageDrives> replaced;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto& slot = m_services[pid];
        replaced = std::move(slot);
        slot = service;
    }
    if (replaced)
        replaced->Uninit();
    return service;
}

void StorageDrivesRegistry::Erase(uint32_t pid, const std::shared_ptr<StorageDrives>& service)
{
    std::shared_ptr<StorageDrives> removed;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_services.find(pid);
        if (it == m_services.end() || (service && it->second != service))
            return;
        removed = std::move(it->second);
        m_services.erase(it);
    }
    // The last holder's release closes whatever drives are still open.
}

void StorageDrivesRegistry::Clear()
{
    std::map<uint32_t, std::shared_ptr<StorageDrives>> all;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        all.swap(m_services);
    }
    for (auto& [pid, service] : all)
        service->Uninit();
}

size_t StorageDrivesRegistry::Size()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_services.size();
}

std::shared_ptr<StorageDrives> StorageDrivesRegistry::Find(uint32_t pid)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_services.find(pid);
    return it == m_services.end() ? nullptr : it->second;
}

} // namespace tolv::worker
