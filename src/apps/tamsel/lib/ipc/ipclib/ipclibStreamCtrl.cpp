#include "apps/tamsel/lib/ipc/ipclib/ipclibStreamCtrl.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibLink.h"
#include <tamsel/ipc/ipclibLinkListener.h>
#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

#include "platform/LittleEndian.h"

#include <stdexcept>

namespace tamsel::ipc {

namespace {
constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibStreamCtrl";
} // namespace

KxIpclibStreamCtrl::KxIpclibStreamCtrl(std::shared_ptr<KxIpclibLink> link,
                                       std::weak_ptr<tamsel::task::TaskExecutor> executor,
                                       Flags<KxIpclibStreamFlag> flags)
    : KxIpclibStream(std::move(link), std::move(executor), u"link-control", flags | KxIpclibStreamFlag::Control, 0,
                     KxIpclibStreamState::Init, true)
{
}

KxIpclibStreamCtrl::~KxIpclibStreamCtrl() = default;

KxIpcStatusCode KxIpclibStreamCtrl::start()
{
    std::weak_ptr<KxIpclibStream> weak = weak_from_this();
    return accept(Flags<KxIpclibStreamFlag>(), [weak](KxIpcStatusCode status, std::shared_ptr<KxIpclibMsg> msg) {
        if (auto self = weak.lock())
            static_cast<KxIpclibStreamCtrl&>(*self).onRecv(status, msg);
    });
}

void KxIpclibStreamCtrl::stop()
{
    shutdown();
}

void KxIpclibStreamCtrl::onRecv(KxIpcStatusCode, const std::shared_ptr<KxIpclibMsg>& msg)
{
    KXIPC_TRACE(Stream, "> state: {}, streamId: {:#x}", m_state.load(), m_streamId);
    if (msg->size() == 0) {  // the control stream itself ended
        KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}", m_state.load(), m_streamId);
        return;
    }
    std::shared_ptr<KxIpclibLink> link;
    {
        Lock lock(m_mutex);
        link = m_link;
    }
    if (!link) {
        KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}", m_state.load(), m_streamId);
        return;
    }
    if (msg->msgType() != KxIpclibMsgType::Open) {
        KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}, status: {}", m_state.load(), m_streamId,
                    KxIpcStatusInvalidParam);
        throw std::logic_error("Control stream received an invalid message");
    }
    auto executor = m_executor.lock();
    if (!executor) {
        KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}, status: {}", m_state.load(), m_streamId,
                    KxIpcStatusInvalidState);
        return;
    }
    // The stream checked the payload when the message was complete: the name
    // lies inside the message.
    const uint32_t nameLength = tolv::platform::LoadLe<uint32_t>(msg->data());
    std::u16string name(nameLength / 2, u'\0');
    for (size_t i = 0; i < name.size(); ++i)
        name[i] = static_cast<char16_t>(tolv::platform::LoadLe<uint16_t>(msg->data() + 4 + 2 * i));

    auto stream = std::make_shared<KxIpclibStream>(link, m_executor, std::move(name),
                                                   Flags<KxIpclibStreamFlag>(msg->flags() & 0xFFFF0000u),
                                                   msg->srcStreamId(), KxIpclibStreamState::Init);
    KxIpcStatusCode status = link->addStream(stream);
    if (status == KxIpcStatusSuccess) {
        auto listener = link->getLinkListener();
        status = listener ? listener->connectStream(stream, true) : KxIpcStatusNotFound;
        if (status != KxIpcStatusSuccess)
            link->eraseStream(stream);
    }
    if (status != KxIpcStatusSuccess) {
        auto ack = std::make_shared<KxIpclibMsg>(KxIpclibMsgType::OpenAck, 0, status, nullptr, stream->streamId(),
                                                 msg->srcStreamId(), 0, nullptr,
                                                 [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
        link->send(std::move(ack));
        stream->shutdown();
    }
    KXIPC_TRACE(Stream, "< state: {}, streamId: {:#x}, status: {}", m_state.load(), m_streamId, status);
}

} // namespace tamsel::ipc
