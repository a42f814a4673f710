#include <tamsel/ipc/ipclibLinkListener.h>

#include <tamsel/ipc/ipclibStream.h>
#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

namespace tamsel::ipc {

namespace {
constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibLinkListener";
} // namespace

KxIpclibLinkListener::KxIpclibLinkListener(const _GUID& endpoint, Flags<KxIpclibListenerFlag> flags,
                                           std::shared_ptr<tamsel::task::TaskExecutor> executor, ConnectEntry connect,
                                           LinkOpened onLinkOpened, LinkClosed onLinkClosed)
    : m_endpoint(endpoint),
      m_flags(flags),
      m_executor(std::move(executor)),
      m_connect(std::move(connect)),
      m_onLinkOpened(std::move(onLinkOpened)),
      m_onLinkClosed(std::move(onLinkClosed))
{
}

KxIpcStatusCode KxIpclibLinkListener::connectStream(const std::shared_ptr<KxIpclibStream>& stream,
                                                    bool onAcceptSendOpenAck)
{
    KXIPC_TRACE(Listener, "> ep: {}, streamId: {:#x}, onAcceptSendOpenAck: {}", m_endpoint, stream->streamId(),
                onAcceptSendOpenAck);
    stream->setOnAcceptSendOpenAck(onAcceptSendOpenAck);
    const KxIpcStatusCode status = m_connect ? m_connect(stream) : KxIpcStatusNotFound;
    KXIPC_TRACE(Listener, "< status: {}", status);
    return status;
}

} // namespace tamsel::ipc
