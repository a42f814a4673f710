#pragma once
// KxIpclibLinkListener: what makes links for one endpoint and presents the
// streams that arrive on them to the library's listener. The transport's
// listener (the local bootstrap) derives from it.

#include <tamsel/ipc/ipclibTypes.h>

#include <tamsel/task/TaskExecutor.h>

#include <functional>
#include <memory>

namespace tamsel::ipc {

class KxIpclibLink;
class KxIpclibStream;

enum class KxIpclibListenerFlag : uint32_t {
    Local = 0x8,        // the local shared-memory transport; required
    Unsupported1 = 0x10,
    Unsupported2 = 0x20,
};

class KxIpclibLinkListener {
public:
    using ConnectEntry = std::function<KxIpcStatusCode(std::shared_ptr<KxIpclibStream>)>;
    using LinkOpened = std::function<KxIpcStatusCode(std::shared_ptr<KxIpclibLink>)>;
    using LinkClosed = std::function<void(KxIpclibLink&)>;

    KxIpclibLinkListener(const _GUID& endpoint, Flags<KxIpclibListenerFlag> flags,
                         std::shared_ptr<tamsel::task::TaskExecutor> executor, ConnectEntry connect,
                         LinkOpened onLinkOpened, LinkClosed onLinkClosed);
    virtual ~KxIpclibLinkListener() = default;

    virtual KxIpcStatusCode start(Flags<KxIpclibListenerFlag> flags, unsigned int& out) = 0;
    virtual void stop(unsigned int& out) = 0;
    virtual KxIpcStatusCode accepting(unsigned int& out) = 0;

    // Presents a new server stream to the connect entry. With
    // `onAcceptSendOpenAck` the stream answers the peer's "Open" when accepted.
    KxIpcStatusCode connectStream(const std::shared_ptr<KxIpclibStream>& stream, bool onAcceptSendOpenAck);

    const _GUID& endpoint() const { return m_endpoint; }
    Flags<KxIpclibListenerFlag> flags() const { return m_flags; }
    const std::shared_ptr<tamsel::task::TaskExecutor>& executor() const { return m_executor; }

protected:
    _GUID m_endpoint;
    Flags<KxIpclibListenerFlag> m_flags;
    std::shared_ptr<tamsel::task::TaskExecutor> m_executor;
    ConnectEntry m_connect;
    LinkOpened m_onLinkOpened;
    LinkClosed m_onLinkClosed;
};

} // namespace tamsel::ipc
