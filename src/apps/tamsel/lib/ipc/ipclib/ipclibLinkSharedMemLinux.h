#pragma once
// KxIpclibLinkSharedMemLinux: the transport of a link between two processes.
// It writes its send channel and reads its receive channel (the peer has the
// same two channels with the roles swapped), and watches, on the executor:
// the peer freeing the send buffer, the peer's error and stop events, and the
// peer itself (a pidfd, or the read end of a pipe whose write end the peer
// holds). Every received transfer is copied into a private buffer before any
// check.
//
// Locks: the base's lock guards the state and queues; it is released while
// payload is copied into the section, while messages complete and while wait
// tasks are closed, since all of those call into streams or wait for callbacks
// that take it.

#include "apps/tamsel/lib/ipc/ipclib/ipclibLink.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkChannelSharedMemLinux.h"
#include <tamsel/ipc/ipclibRecvBufferPool.h>

#include <tolv/platform/UniqueFd.h>
#include <tamsel/task/TaskContexts.h>

#include <memory>
#include <vector>

namespace tamsel::ipc {

class KxIpclibLinkSharedMemLinux final : public KxIpclibLink {
public:
    // sendState while a transfer sits in the section, waiting for the peer.
    static constexpr uint32_t kSendWaitingForPeer = KxIpclibSendWaitingForPeer;

    KxIpclibLinkSharedMemLinux(const _GUID& endpoint, uint32_t linkFlags, const std::u16string& linkName,
                               uint32_t peerProcessId, std::function<void(KxIpclibLink&)> onLinkClosed,
                               const std::shared_ptr<KxIpclibLinkListener>& linkListener, uint32_t sectionSize,
                               tolv::platform::UniqueFd peerProcess, tolv::platform::UniqueFd peerPipe);
    ~KxIpclibLinkSharedMemLinux() override;

    // The side that sets the link up makes both channels: 0, or 1 with errno.
    int create(int& errorCode);
    // The other side takes them over from the handed descriptors, swapped:
    // what the creator sends on is `recvFromPeer` here.
    int attach(KxIpclibLinkChannelResourceLinux sendToPeer, KxIpclibLinkChannelResourceLinux recvFromPeer,
               int& errorCode);
    // A client names its peer once the bootstrap reply has told it; before start.
    void setPeer(uint32_t peerProcessId, tolv::platform::UniqueFd peerProcess);
    const std::shared_ptr<KxIpclibLinkChannelSharedMemLinux>& sendChannel() const { return m_sendChannel; }
    const std::shared_ptr<KxIpclibLinkChannelSharedMemLinux>& recvChannel() const { return m_recvChannel; }

    KxIpcStatusCode start(std::shared_ptr<tamsel::task::TaskExecutor> executor, unsigned int& out) override;
    void stop(LinkLock& lock) override;
    KxIpcStatusCode recv(KxIpclibStreamMap& streamsTouched) override;
    void stopWorkers() override;
    void linkError() override;
    void linkStop(LinkLock& lock) override;
    void performDeferredSend(LinkLock& lock) override;
    void resumeRecv() override;

    uint32_t stopReason();

private:
    void linkError(LinkLock& lock);
    void stopRecvWorker(LinkLock& lock);
    void onRecvReady();
    // Frees the receive buffer for the peer's next transfer and waits for it.
    void takeNextTransfer(LinkLock& lock);
    std::shared_ptr<tamsel::task::WtpWaitTaskContext> makeWait(int fd, void (*onSignal)(KxIpclibLinkSharedMemLinux&));
    void arm(const std::shared_ptr<tamsel::task::WtpWaitTaskContext>& wait);
    void disarm(const std::shared_ptr<tamsel::task::WtpWaitTaskContext>& wait);

    std::shared_ptr<KxIpclibLinkChannelSharedMemLinux> m_sendChannel;
    std::shared_ptr<KxIpclibLinkChannelSharedMemLinux> m_recvChannel;
    const uint32_t m_sectionSize;
    std::shared_ptr<KxIpclibRecvBufferPool> m_recvPool;
    KxIpclibRecvStorage m_recvStorage;  // used by the one receive pass at a time
    uint64_t m_sendSeqNo = 0;
    uint64_t m_recvSeqNo = 0;  // used by the one receive pass at a time
    std::shared_ptr<tamsel::task::WtpWaitTaskContext> m_recvWait;
    std::shared_ptr<tamsel::task::WtpWaitTaskContext> m_bufferFreeWait;
    std::shared_ptr<tamsel::task::WtpWaitTaskContext> m_peerErrorWait;
    std::shared_ptr<tamsel::task::WtpWaitTaskContext> m_peerStopWait;
    std::shared_ptr<tamsel::task::WtpWaitTaskContext> m_peerExitWait;
    tolv::platform::UniqueFd m_peerProcess;
    tolv::platform::UniqueFd m_peerPipe;
    // 0 none, 1 the peer stopped, 2 the peer reported an error, 3 the peer went
    // away: the peer already knows, so it is not signalled back.
    uint32_t m_stopReason = 0;
};

} // namespace tamsel::ipc
