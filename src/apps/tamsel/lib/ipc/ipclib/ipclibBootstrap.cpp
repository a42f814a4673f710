#include <tamsel/ipc/ipclibBootstrap.h>

#include "platform/LittleEndian.h"

namespace tamsel::ipc {

namespace {

class LeWriter {
public:
    explicit LeWriter(size_t reserve) { m_out.reserve(reserve); }
    void u16(uint16_t v) { put(v); }
    void u32(uint32_t v) { put(v); }
    void u64(uint64_t v) { put(v); }
    void guid(const _GUID& g)
    {
        u32(g.Data1);
        u16(g.Data2);
        u16(g.Data3);
        m_out.insert(m_out.end(), g.Data4, g.Data4 + 8);
    }
    std::vector<uint8_t> take() { return std::move(m_out); }

private:
    template <typename T>
    void put(T v)
    {
        const size_t at = m_out.size();
        m_out.resize(at + sizeof v);
        tolv::platform::StoreLe<T>(m_out.data() + at, v);
    }
    std::vector<uint8_t> m_out;
};

bool ReadGuid(tolv::platform::LeReader& in, _GUID& g)
{
    const uint8_t* tail = nullptr;
    if (!in.u32(g.Data1) || !in.u16(g.Data2) || !in.u16(g.Data3) || !in.bytes(8, tail))
        return false;
    for (size_t i = 0; i < 8; ++i)
        g.Data4[i] = tail[i];
    return true;
}

// A stream name: 1..512 units, no zero unit, every surrogate paired.
bool ValidName(const std::u16string& name)
{
    if (name.empty() || name.size() > kBootstrapMaxStreamName)
        return false;
    for (size_t i = 0; i < name.size(); ++i) {
        const char16_t c = name[i];
        if (c == 0)
            return false;
        if (c >= 0xD800 && c <= 0xDBFF) {
            if (i + 1 >= name.size() || name[i + 1] < 0xDC00 || name[i + 1] > 0xDFFF)
                return false;
            ++i;
        } else if (c >= 0xDC00 && c <= 0xDFFF) {
            return false;
        }
    }
    return true;
}

} // namespace

uint32_t parseBootstrapRequest(const uint8_t* data, size_t size, KxIpclibBootstrapRequest& out)
{
    if (size > kBootstrapMaxRequestSize)
        return kRpcStatusBadStubData;
    tolv::platform::LeReader in(data, size);
    KxIpclibBootstrapRequest r;
    uint32_t proc = 0;
    if (!in.u32(proc))
        return kRpcStatusBadStubData;
    if (proc > static_cast<uint32_t>(KxIpclibBootstrapProc::CreateSharedMemoryLinkV2))
        return kRpcStatusProcNumOutOfRange;
    r.proc = static_cast<KxIpclibBootstrapProc>(proc);
    if (!ReadGuid(in, r.endpoint) || !in.u32(r.clientVersion) || !in.u64(r.clientLinkId) ||
        !in.u32(r.clientLinkFlags) || !in.u64(r.clientStreamId) || !in.u32(r.clientStreamFlags))
        return kRpcStatusBadStubData;

    if (r.proc == KxIpclibBootstrapProc::CreateSharedMemoryLink) {
        uint32_t length = 0;
        if (!in.u32(length) || length == 0 || length > kBootstrapMaxStreamName)
            return kRpcStatusBadStubData;
        const uint8_t* units = nullptr;
        if (!in.bytes(2 * size_t{length}, units))
            return kRpcStatusBadStubData;
        r.streamName.resize(length);
        for (uint32_t i = 0; i < length; ++i)
            r.streamName[i] = static_cast<char16_t>(tolv::platform::LoadLe<uint16_t>(units + 2 * i));
    } else {
        for (;;) {
            uint16_t unit = 0;
            if (!in.u16(unit))
                return kRpcStatusBadStubData;
            if (unit == 0)
                break;
            if (r.streamName.size() == kBootstrapMaxStreamName)
                return kRpcStatusBadStubData;
            r.streamName.push_back(static_cast<char16_t>(unit));
        }
    }
    if (!ValidName(r.streamName) || !in.u32(r.requestedSectionSize) || in.remaining() != 0)
        return kRpcStatusBadStubData;
    out = std::move(r);
    return 0;
}

std::vector<uint8_t> encodeBootstrapRequest(const KxIpclibBootstrapRequest& r)
{
    LeWriter w(kBootstrapMaxRequestSize);
    w.u32(static_cast<uint32_t>(r.proc));
    w.guid(r.endpoint);
    w.u32(r.clientVersion);
    w.u64(r.clientLinkId);
    w.u32(r.clientLinkFlags);
    w.u64(r.clientStreamId);
    w.u32(r.clientStreamFlags);
    if (r.proc == KxIpclibBootstrapProc::CreateSharedMemoryLink) {
        w.u32(static_cast<uint32_t>(r.streamName.size()));
        for (char16_t c : r.streamName)
            w.u16(c);
    } else {
        for (char16_t c : r.streamName)
            w.u16(c);
        w.u16(0);
    }
    w.u32(r.requestedSectionSize);
    return w.take();
}

std::vector<uint8_t> encodeBootstrapReply(const KxIpclibBootstrapReply& r)
{
    LeWriter w(kBootstrapReplySize);
    w.u32(r.rpcStatus);
    w.u32(r.sectionSize);
    w.u32(r.serverVersion);
    w.u64(r.serverLinkId);
    w.u32(r.serverLinkFlags);
    for (uint64_t h : r.handles)
        w.u64(h);
    w.u32(r.serverPid);
    w.u64(r.serverStreamId);
    w.u32(r.serverStreamFlags);
    w.u32(r.status);
    return w.take();
}

bool parseBootstrapReply(const uint8_t* data, size_t size, KxIpclibBootstrapReply& out)
{
    if (size != kBootstrapReplySize)
        return false;
    tolv::platform::LeReader in(data, size);
    KxIpclibBootstrapReply r;
    uint32_t status = 0;
    bool ok = in.u32(r.rpcStatus) && in.u32(r.sectionSize) && in.u32(r.serverVersion) && in.u64(r.serverLinkId) &&
              in.u32(r.serverLinkFlags);
    for (auto& h : r.handles)
        ok = ok && in.u64(h);
    ok = ok && in.u32(r.serverPid) && in.u64(r.serverStreamId) && in.u32(r.serverStreamFlags) && in.u32(status);
    if (!ok)
        return false;
    r.status = static_cast<KxIpcStatusCode>(status);
    out = r;
    return true;
}

} // namespace tamsel::ipc
