#pragma once
// Test fixture: an in-process transport that connects two links back to back.
// Sends are cut into blocks by the real codec and packed into transfer units
// of a fixed room; each unit is handed to the peer link, whose receive pass
// parses it with the real block reader. Raw units can be injected to play a
// hostile peer.

#include "apps/tamsel/lib/ipc/ipclib/ipclibLink.h"
#include <tamsel/ipc/ipclibLinkListener.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <vector>

namespace tamsel::ipc::testing {

class LoopbackLink final : public KxIpclibLink {
public:
    LoopbackLink(const std::shared_ptr<KxIpclibLinkListener>& listener, uint32_t unitRoom);
    ~LoopbackLink() override;

    // Makes two started, connected links that carry each other's units.
    static std::pair<std::shared_ptr<LoopbackLink>, std::shared_ptr<LoopbackLink>> CreatePair(
        const std::shared_ptr<tamsel::task::TaskExecutor>& executor,
        const std::shared_ptr<KxIpclibLinkListener>& listenerA, const std::shared_ptr<KxIpclibLinkListener>& listenerB,
        uint32_t unitRoom = 4096);

    // Hands raw bytes to this link as if the peer had written them.
    void injectUnit(std::vector<uint8_t> unit);
    // The status of the last receive pass that failed (0 while none did).
    KxIpcStatusCode lastError() const { return m_lastError.load(); }
    int closedCalls() const { return m_closedCalls.load(); }
    // Stops the link and waits until its streams and control stream have let
    // go of it, so that nothing is left holding the executor's tasks.
    bool closeAndDrain();

    void stop(LinkLock& lock) override;
    KxIpcStatusCode recv(KxIpclibStreamMap& streamsTouched) override;
    void stopWorkers() override {}
    void linkError() override;
    void linkStop(LinkLock& lock) override;
    void performDeferredSend(LinkLock& lock) override;

private:
    void deliver(std::vector<uint8_t> unit);

    const uint32_t m_unitRoom;
    std::weak_ptr<LoopbackLink> m_peer;
    std::mutex m_recvLock;  // one receive pass at a time, as a real transport's single reader
    std::mutex m_inboxLock;
    std::deque<std::vector<uint8_t>> m_inbox;  // guarded by m_inboxLock
    std::atomic<KxIpcStatusCode> m_lastError{KxIpcStatusSuccess};
    std::atomic<int> m_closedCalls{0};
};

// A link listener whose connect entry runs a test's handler and reports, as
// the library's listener does, the stream's refusal or the lack of a decision.
class TestLinkListener final : public KxIpclibLinkListener {
public:
    using Handler = std::function<void(std::shared_ptr<KxIpclibStream>)>;
    TestLinkListener(std::shared_ptr<tamsel::task::TaskExecutor> executor, Handler handler);

    KxIpcStatusCode start(Flags<KxIpclibListenerFlag>, unsigned int&) override { return KxIpcStatusSuccess; }
    void stop(unsigned int&) override {}
    KxIpcStatusCode accepting(unsigned int&) override { return KxIpcStatusSuccess; }
};

} // namespace tamsel::ipc::testing
