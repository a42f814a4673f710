#pragma once
// One direction of a shared-memory link: a sealed memfd section that carries
// one transfer at a time, and four eventfd events. dataReady goes from writer
// to reader; bufferFree, error and stop go back. Signalling writes 1; the
// waiter's read resets the event (auto-reset).
//
// The section is sealed against shrinking and growing before it is handed
// out, and a channel built from a peer's descriptors checks those seals and
// the size before it maps anything: a peer cannot make us fault by truncating.

#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkChannelResourceLinux.h"

#include <tolv/platform/UniqueFd.h>

#include <cstddef>
#include <cstdint>

namespace tamsel::ipc {

class KxIpclibLinkChannelSharedMemLinux {
public:
    explicit KxIpclibLinkChannelSharedMemLinux(uint32_t sectionSize) : m_sectionSize(sectionSize) {}
    ~KxIpclibLinkChannelSharedMemLinux() { destroy(); }
    KxIpclibLinkChannelSharedMemLinux(const KxIpclibLinkChannelSharedMemLinux&) = delete;
    KxIpclibLinkChannelSharedMemLinux& operator=(const KxIpclibLinkChannelSharedMemLinux&) = delete;

    // Makes the section and the events: 0, or 1 with the errno in `errorCode`.
    int create(int& errorCode);
    // Takes over the descriptors a peer handed over: 0, or 1 with `errorCode`
    // (EINVAL for a section that is not sealed or not of this channel's size).
    int attach(KxIpclibLinkChannelResourceLinux resource, int& errorCode);
    void destroy();
    // Our own duplicates of every descriptor, for handing to the peer.
    int duplicateHandles(KxIpclibLinkChannelResourceLinux& out, int& errorCode) const;

    uint32_t sectionSize() const { return m_sectionSize; }
    uint8_t* view() const { return m_view; }
    int dataReadyEvent() const { return m_dataReady.get(); }
    int bufferFreeEvent() const { return m_bufferFree.get(); }
    int errorEvent() const { return m_error.get(); }
    int stopEvent() const { return m_stop.get(); }

    void signalDataReady() const { Signal(m_dataReady.get()); }
    void signalBufferFree() const { Signal(m_bufferFree.get()); }
    void signalError() const { Signal(m_error.get()); }
    void signalStop() const { Signal(m_stop.get()); }
    // Resets an event; true when it was set.
    static bool Consume(int event);

private:
    static void Signal(int event);

    const uint32_t m_sectionSize;
    tolv::platform::UniqueFd m_section;
    uint8_t* m_view = nullptr;
    tolv::platform::UniqueFd m_dataReady;
    tolv::platform::UniqueFd m_bufferFree;
    tolv::platform::UniqueFd m_error;
    tolv::platform::UniqueFd m_stop;
};

} // namespace tamsel::ipc
