#pragma once
// KxIpclibListener: waits for peers on one endpoint through its link
// listeners and presents every stream a peer opens to the application's
// connect function, which accepts or rejects it before returning.
//
// Lock: m_mutex guards the state and the link listeners; it is released before
// the connect function runs and before link listeners are started or stopped,
// and it is never held when a stream's lock is taken.

#include <tamsel/ipc/ipclibLinkListener.h>
#include <tamsel/ipc/ipclibTypes.h>

#include <tamsel/task/TaskExecutor.h>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

struct _KxIpclibListenerEx;

namespace tamsel::ipc {

class KxIpclib;
class KxIpclibLink;
class KxIpclibStream;

class KxIpclibListener : public std::enable_shared_from_this<KxIpclibListener> {
public:
    using ConnectFunction = std::function<void(std::shared_ptr<KxIpclibStream>)>;

    KxIpclibListener(const _GUID& ep, Flags<KxIpclibListenerFlag> flags, ConnectFunction onConnect,
                     std::function<void(KxIpclibListener&)> onListenerClosed,
                     std::function<KxIpcStatusCode(std::shared_ptr<KxIpclibLink>)> onLinkOpened,
                     std::function<void(KxIpclibLink&)> onLinkClosed);

    KxIpcStatusCode accepting();
    KxIpcStatusCode close();
    KxIpcStatusCode onIncomingConnect(std::shared_ptr<KxIpclibStream> stream);

    const _GUID& endpoint() const { return m_ep; }
    KxIpclibListenerState state();

private:
    friend class KxIpclib;
    KxIpcStatusCode start(Flags<KxIpclibListenerFlag> flags, std::shared_ptr<tamsel::task::TaskExecutor> executor,
                          _KxIpclibListenerEx* ex);

    std::mutex m_mutex;
    KxIpclibListenerState m_state = KxIpclibListenerState::Init;
    const _GUID m_ep;
    const Flags<KxIpclibListenerFlag> m_flags;
    ConnectFunction m_onConnect;
    std::function<void(KxIpclibListener&)> m_onListenerClosed;
    std::function<KxIpcStatusCode(std::shared_ptr<KxIpclibLink>)> m_onLinkOpened;
    std::function<void(KxIpclibLink&)> m_onLinkClosed;
    std::vector<std::shared_ptr<KxIpclibLinkListener>> m_linkListeners;
};

} // namespace tamsel::ipc
