#include <tamsel/ipc/ipclibListener.h>

#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkListenerRpcLinux.h"
#include <tamsel/ipc/ipclibStream.h>
#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

namespace tamsel::ipc {

namespace {
constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibListener";
} // namespace

KxIpclibListener::KxIpclibListener(const _GUID& ep, Flags<KxIpclibListenerFlag> flags, ConnectFunction onConnect,
                                   std::function<void(KxIpclibListener&)> onListenerClosed,
                                   std::function<KxIpcStatusCode(std::shared_ptr<KxIpclibLink>)> onLinkOpened,
                                   std::function<void(KxIpclibLink&)> onLinkClosed)
    : m_ep(ep),
      m_flags(flags),
      m_onConnect(std::move(onConnect)),
      m_onListenerClosed(std::move(onListenerClosed)),
      m_onLinkOpened(std::move(onLinkOpened)),
      m_onLinkClosed(std::move(onLinkClosed))
{
}

KxIpclibListenerState KxIpclibListener::state()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_state;
}

KxIpcStatusCode KxIpclibListener::start(Flags<KxIpclibListenerFlag> flags,
                                        std::shared_ptr<tamsel::task::TaskExecutor> executor, _KxIpclibListenerEx* ex)
{
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        if (m_state != KxIpclibListenerState::Init) {
            KXIPC_TRACE(Listener, "< state: {}, status: {}", m_state, KxIpcStatusInvalidState);
            return KxIpcStatusInvalidState;
        }
        m_state = KxIpclibListenerState::Starting;
    }
    std::vector<std::shared_ptr<KxIpclibLinkListener>> built;
    if (flags.test(KxIpclibListenerFlag::Local)) {
        std::weak_ptr<KxIpclibListener> weak = weak_from_this();
        auto connect = [weak](std::shared_ptr<KxIpclibStream> stream) {
            auto self = weak.lock();
            return self ? self->onIncomingConnect(std::move(stream)) : KxIpcStatusNotFound;
        };
        built.push_back(std::make_shared<KxIpclibLinkListenerRpcLinux>(m_ep, flags, executor, ex, connect,
                                                                       m_onLinkOpened, m_onLinkClosed));
    }
    KxIpcStatusCode status = KxIpcStatusSuccess;
    if (built.empty()) {
        status = KxIpcStatusNotFound;
    } else {
        for (auto& linkListener : built) {
            unsigned int out = 0;
            status = linkListener->start(flags, out);
            if (status != KxIpcStatusSuccess)
                break;
        }
        if (status != KxIpcStatusSuccess) {
            for (auto& linkListener : built) {
                unsigned int out = 0;
                linkListener->stop(out);
            }
            built.clear();
        }
    }
    std::lock_guard<std::mutex> guard(m_mutex);
    if (status == KxIpcStatusSuccess) {
        m_linkListeners = std::move(built);
        m_state = KxIpclibListenerState::Listening;
    } else {
        m_state = KxIpclibListenerState::Error;
    }
    KXIPC_TRACE(Listener, "< state: {}, status: {}", m_state, status);
    return status;
}

KxIpcStatusCode KxIpclibListener::accepting()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    KXIPC_TRACE(Listener, "> state: {}, ep: {}", m_state, m_ep);
    if (m_state != KxIpclibListenerState::Listening) {
        KXIPC_TRACE(Listener, "< state: {}, status: {}", m_state, KxIpcStatusInvalidState);
        return KxIpcStatusInvalidState;
    }
    for (auto& linkListener : m_linkListeners) {
        unsigned int out = 0;
        const KxIpcStatusCode status = linkListener->accepting(out);
        if (status != KxIpcStatusSuccess) {
            KXIPC_TRACE(Listener, "< state: {}, status: {}", m_state, status);
            return status;
        }
    }
    m_state = KxIpclibListenerState::Accepting;
    KXIPC_TRACE(Listener, "< state: {}, status: {}", m_state, KxIpcStatusSuccess);
    return KxIpcStatusSuccess;
}

KxIpcStatusCode KxIpclibListener::onIncomingConnect(std::shared_ptr<KxIpclibStream> stream)
{
    ConnectFunction onConnect;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        KXIPC_TRACE(Listener, "> state: {}, ep: {}", m_state, m_ep);
        if (m_state != KxIpclibListenerState::Accepting) {
            KXIPC_TRACE(Listener, "< state: {}, status: {}", m_state, KxIpcStatusInvalidState);
            return KxIpcStatusInvalidState;
        }
        onConnect = m_onConnect;
    }
    onConnect(stream);  // an empty function throws std::bad_function_call
    KxIpcStatusCode status;
    switch (stream->state()) {
    case KxIpclibStreamState::Closed:
        status = stream->rejectStatus();
        break;
    case KxIpclibStreamState::Connected:
        status = KxIpcStatusSuccess;
        break;
    default:
        status = KxIpcStatusUnexpected;
        break;
    }
    KXIPC_TRACE(Listener, "< state: {}, status: {}", state(), status);
    return status;
}

KxIpcStatusCode KxIpclibListener::close()
{
    std::vector<std::shared_ptr<KxIpclibLinkListener>> linkListeners;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        KXIPC_TRACE(Listener, "> state: {}, ep: {}", m_state, m_ep);
        if (m_state != KxIpclibListenerState::Listening && m_state != KxIpclibListenerState::Accepting) {
            KXIPC_TRACE(Listener, "< state: {}, status: {}", m_state, KxIpcStatusInvalidState);
            return KxIpcStatusInvalidState;
        }
        linkListeners = std::move(m_linkListeners);
        m_linkListeners.clear();
        m_state = KxIpclibListenerState::Closing;
    }
    // Link listeners report no status when they stop; a stop cannot fail here.
    KxIpcStatusCode status = KxIpcStatusSuccess;
    for (auto& linkListener : linkListeners) {
        unsigned int out = 0;
        linkListener->stop(out);
    }
    linkListeners.clear();
    std::function<void(KxIpclibListener&)> onClosed;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_state = status == KxIpcStatusSuccess ? KxIpclibListenerState::Closed : KxIpclibListenerState::Error;
        onClosed = std::move(m_onListenerClosed);
        m_onListenerClosed = nullptr;
    }
    if (onClosed)
        onClosed(*this);
    KXIPC_TRACE(Listener, "< state: {}, status: {}", state(), status);
    return status;
}

} // namespace tamsel::ipc
