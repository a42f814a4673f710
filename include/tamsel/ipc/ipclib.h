#pragma once
// KxIpclib: the root object of the IPC library in a process. It brings up the
// task executor, creates listeners on endpoints, keeps the listeners and the
// links they produce, and takes everything down in a fixed order at uninit.
//
// Lock: m_mutex guards every field. It is never held while calling into
// listeners, links or the task object; the handlers take it without holding
// any link or stream lock.

#include <tamsel/expected.h>
#include <tamsel/ipc/ipclibListener.h>
#include <tamsel/ipc/ipclibTask.h>
#include <tamsel/ipc/ipclibTypes.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

namespace tamsel::ipc {

class KxIpclibLink;
class KxIpclibStream;

class KxIpclib : public std::enable_shared_from_this<KxIpclib> {
public:
    // How long uninit waits, twice at most, for links to go away.
    static constexpr std::chrono::seconds kUninitWait{10};

    KxIpclib();
    virtual ~KxIpclib();

    KxIpcStatusCode init(uint32_t flags);
    tamsel::expected<std::shared_ptr<KxIpclibListener>, KxIpcStatusCode> listen(
        const _GUID& ep, Flags<KxIpclibListenerFlag> flags, std::function<void(std::shared_ptr<KxIpclibStream>)> onConnect,
        _KxIpclibListenerEx* ex);
    KxIpcStatusCode uninit();

    void onListenerClosed(KxIpclibListener& listener);
    KxIpcStatusCode onLinkOpened(std::shared_ptr<KxIpclibLink> link);
    void onLinkClosed(KxIpclibLink& link);
    void removeLink(KxIpclibLink& link);

    KxIpclibState state();
    size_t linkCount();
    // Empty unless started.
    std::shared_ptr<tamsel::task::TaskExecutor> executor();

private:
    std::mutex m_mutex;
    KxIpclibState m_state = KxIpclibState::Init;
    uint32_t m_initFlags = 0;
    std::map<_GUID, std::shared_ptr<KxIpclibListener>, EndpointLess> m_listeners;
    std::map<uint64_t, std::shared_ptr<KxIpclibLink>> m_links;
    std::map<_GUID, std::shared_ptr<KxIpclibLink>, EndpointLess> m_endpointLinks;
    std::unique_ptr<KxIpclibTask> m_task;
    std::shared_ptr<std::mutex> m_handlerMutex = std::make_shared<std::mutex>();
    std::condition_variable m_linksChanged;
};

} // namespace tamsel::ipc
