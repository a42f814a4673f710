#include <tamsel/ipc/ipclib.h>

#include "apps/tamsel/lib/ipc/ipclib/ipclibLink.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

#include <vector>

namespace tamsel::ipc {

namespace {
constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclib";
constexpr uint32_t kLocal = 0x8, kUnsupported1 = 0x10, kUnsupported2 = 0x20;
} // namespace

KxIpclib::KxIpclib() = default;

KxIpclib::~KxIpclib() = default;

KxIpclibState KxIpclib::state()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_state;
}

size_t KxIpclib::linkCount()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_links.size();
}

std::shared_ptr<tamsel::task::TaskExecutor> KxIpclib::executor()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_task ? m_task->executor() : nullptr;
}

KxIpcStatusCode KxIpclib::init(uint32_t flags)
{
    std::lock_guard<std::mutex> guard(m_mutex);
    KXIPC_TRACE(Lib, "> state: {}", m_state);
    if (m_state != KxIpclibState::Init) {
        KXIPC_TRACE(Lib, "< state: {}, status: {}", m_state, KxIpcStatusInvalidState);
        return KxIpcStatusInvalidState;
    }
    auto task = KxIpclibTask::create();
    const KxIpcStatusCode status = task ? task->init() : KxIpcStatusOutOfMemory;
    if (status != KxIpcStatusSuccess) {
        KXIPC_TRACE(Lib, "< state: {}, status: {}", m_state, status);
        return status;
    }
    m_task = std::move(task);
    m_initFlags = flags;
    m_state = KxIpclibState::Started;
    KXIPC_TRACE(Lib, "< state: {}, status: {}", m_state, KxIpcStatusSuccess);
    return KxIpcStatusSuccess;
}

tamsel::expected<std::shared_ptr<KxIpclibListener>, KxIpcStatusCode> KxIpclib::listen(
    const _GUID& ep, Flags<KxIpclibListenerFlag> flags, std::function<void(std::shared_ptr<KxIpclibStream>)> onConnect,
    _KxIpclibListenerEx* ex)
{
    using Result = tamsel::expected<std::shared_ptr<KxIpclibListener>, KxIpcStatusCode>;
    auto fail = [this](KxIpcStatusCode status) {
        KXIPC_TRACE(Lib, "< state: {}, status: {}", state(), status);
        return Result(tamsel::unexpected<KxIpcStatusCode>(status));
    };
    KXIPC_TRACE(Lib, "> state: {}, ep: {}", state(), ep);
    if (!flags.any(kLocal | kUnsupported1))
        return fail(KxIpcStatusInvalidParam);
    if (flags.any(kUnsupported1 | kUnsupported2))
        return fail(KxIpcStatusNotImplemented);

    std::shared_ptr<KxIpclibListener> listener;
    std::shared_ptr<tamsel::task::TaskExecutor> executor;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        if (m_state != KxIpclibState::Started)
            return KXIPC_TRACE(Lib, "< state: {}, status: {}", m_state, KxIpcStatusInvalidState),
                   Result(tamsel::unexpected<KxIpcStatusCode>(KxIpcStatusInvalidState));
        if (m_listeners.count(ep))
            return KXIPC_TRACE(Lib, "< state: {}, status: {}", m_state, KxIpcStatusAlreadyExists),
                   Result(tamsel::unexpected<KxIpcStatusCode>(KxIpcStatusAlreadyExists));
        executor = m_task ? m_task->executor() : nullptr;
        if (!executor)
            return KXIPC_TRACE(Lib, "< state: {}, status: {}", m_state, KxIpcStatusInvalidState),
                   Result(tamsel::unexpected<KxIpcStatusCode>(KxIpcStatusInvalidState));
        // The handlers never keep the library alive.
        std::weak_ptr<KxIpclib> weak = weak_from_this();
        listener = std::make_shared<KxIpclibListener>(
            ep, flags, std::move(onConnect),
            [weak](KxIpclibListener& l) {
                if (auto lib = weak.lock())
                    lib->onListenerClosed(l);
            },
            [weak](std::shared_ptr<KxIpclibLink> link) {
                auto lib = weak.lock();
                return lib ? lib->onLinkOpened(std::move(link)) : KxIpcStatusInvalidState;
            },
            [weak](KxIpclibLink& link) {
                if (auto lib = weak.lock())
                    lib->onLinkClosed(link);
            });
        m_listeners.emplace(ep, listener);
    }
    const KxIpcStatusCode status = listener->start(flags, executor, ex);
    if (status != KxIpcStatusSuccess) {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_listeners.erase(ep);
        KXIPC_TRACE(Lib, "< state: {}, status: {}", m_state, status);
        return Result(tamsel::unexpected<KxIpcStatusCode>(status));
    }
    KXIPC_TRACE(Lib, "< state: {}, status: {}", state(), KxIpcStatusSuccess);
    return Result(std::move(listener));
}

void KxIpclib::onListenerClosed(KxIpclibListener& listener)
{
    KXIPC_TRACE(Lib, "> ep: {}", listener.endpoint());
    std::shared_ptr<KxIpclibListener> erased;  // released after the lock
    std::lock_guard<std::mutex> guard(m_mutex);
    auto it = m_listeners.find(listener.endpoint());
    if (it != m_listeners.end() && it->second.get() == &listener) {
        erased = std::move(it->second);
        m_listeners.erase(it);
    }
    KXIPC_TRACE(Lib, "< state: {}", m_state);
}

KxIpcStatusCode KxIpclib::onLinkOpened(std::shared_ptr<KxIpclibLink> link)
{
    std::lock_guard<std::mutex> guard(m_mutex);
    KXIPC_TRACE(Lib, "> linkId: {:#x}", link->linkId());
    if (m_state != KxIpclibState::Started) {
        KXIPC_TRACE(Lib, "< state: {}, status: {}", m_state, KxIpcStatusInvalidState);
        return KxIpcStatusInvalidState;
    }
    m_links.emplace(link->linkId(), std::move(link));
    KXIPC_TRACE(Lib, "< state: {}, status: {}", m_state, KxIpcStatusSuccess);
    return KxIpcStatusSuccess;
}

void KxIpclib::onLinkClosed(KxIpclibLink& link)
{
    KXIPC_TRACE(Lib, "> linkId: {:#x}", link.linkId());
    removeLink(link);
}

void KxIpclib::removeLink(KxIpclibLink& link)
{
    std::shared_ptr<KxIpclibLink> erased, erasedEndpoint;  // released after the lock
    std::lock_guard<std::mutex> guard(m_mutex);
    KXIPC_TRACE(Lib, "> state: {}, linkId: {:#x}", m_state, link.linkId());
    auto it = m_links.find(link.linkId());
    if (it != m_links.end()) {
        erased = std::move(it->second);
        m_links.erase(it);
    }
    if ((link.linkFlags() & 1) != 0 || link.linkFlags() > 0x7FFF) {
        auto ep = m_endpointLinks.find(link.endpoint());
        if (ep != m_endpointLinks.end()) {
            erasedEndpoint = std::move(ep->second);
            m_endpointLinks.erase(ep);
        }
    }
    if (m_state == KxIpclibState::Stopping)
        m_linksChanged.notify_all();
    KXIPC_TRACE(Lib, "< state: {}", m_state);
}

KxIpcStatusCode KxIpclib::uninit()
{
    std::vector<std::shared_ptr<KxIpclibListener>> listeners;
    std::vector<std::shared_ptr<KxIpclibLink>> links;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        KXIPC_TRACE(Lib, "> state: {}", m_state);
        m_state = KxIpclibState::Stopping;
        for (auto& [ep, l] : m_listeners)
            listeners.push_back(l);
        for (auto& [id, l] : m_links)
            links.push_back(l);
    }
    KXIPC_TRACE(Lib, "- Closing listeners");
    for (auto& l : listeners)
        l->close();
    listeners.clear();
    KXIPC_TRACE(Lib, "- Closing links");
    for (auto& l : links)
        l->close();
    links.clear();

    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_links.empty()) {
        KXIPC_TRACE(Lib, "- Waiting for deferred stops");
        const auto deadline = std::chrono::steady_clock::now() + kUninitWait;
        m_linksChanged.wait_until(lock, deadline, [&] { return m_links.empty(); });
    }
    if (!m_links.empty()) {
        for (auto& [id, l] : m_links)
            links.push_back(l);
        lock.unlock();
        KXIPC_TRACE(Lib, "- Shutting down links");
        for (auto& l : links)
            l->shutdown();
        links.clear();
        lock.lock();
        KXIPC_TRACE(Lib, "- Waiting for deferred stops");
        const auto deadline = std::chrono::steady_clock::now() + kUninitWait;
        m_linksChanged.wait_until(lock, deadline, [&] { return m_links.empty(); });
    }
    const bool abandoned = !m_links.empty();
    // Maps are emptied outside the lock: a link's last reference may run its handlers.
    auto keepLinks = std::move(m_links);
    auto keepEndpoints = std::move(m_endpointLinks);
    auto keepListeners = std::move(m_listeners);
    m_links.clear();
    m_endpointLinks.clear();
    m_listeners.clear();
    if (m_task) {
        m_task->uninit(lock);
        m_task.reset();
    }
    m_state = KxIpclibState::Init;
    const KxIpcStatusCode status = abandoned ? KxIpcStatusStreamClosedOnUninit : KxIpcStatusSuccess;
    KXIPC_TRACE(Lib, "< state: {}, status: {}", m_state, status);
    lock.unlock();
    return status;
}

} // namespace tamsel::ipc
