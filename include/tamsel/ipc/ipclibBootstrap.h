#pragma once
// The bootstrap datagrams: the request a client sends on an endpoint's socket
// to set up a shared-memory link, and the server's reply. Both are packed,
// little-endian, without padding; docs/ipc-bootstrap.md gives the layout.
// Descriptors ride beside the bytes as SCM_RIGHTS.
//
// Parsing is a pure function over a private copy of the datagram: it checks
// every length against what was actually received and never reads past it.

#include <tamsel/ipc/ipclibTypes.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tamsel::ipc {

enum class KxIpclibBootstrapProc : uint32_t {
    CreateSharedMemoryLink = 0,    // version 1: counted stream name
    CreateSharedMemoryLinkV2 = 1,  // version 2: zero-terminated name, client pipe as a descriptor
};

// Stream names are 1 to 512 UTF-16 units.
inline constexpr uint32_t kBootstrapMaxStreamName = 512;
// The fixed part of a request: procedure, endpoint and the five numeric inputs.
inline constexpr size_t kBootstrapRequestHeaderSize = 48;
// No valid request is longer (a version-1 name of 512 units).
inline constexpr size_t kBootstrapMaxRequestSize = kBootstrapRequestHeaderSize + 4 + 2 * kBootstrapMaxStreamName + 4;
inline constexpr size_t kBootstrapReplySize = 132;
// The descriptors of a successful reply: the client-to-read channel (section,
// then its four events), the client-to-write channel the same way, and the
// server process.
inline constexpr size_t kBootstrapReplyFds = 11;
// A handle field that names no descriptor.
inline constexpr uint64_t kBootstrapNoHandle = ~uint64_t{0};

// Call-level failures, reported in the reply's rpcStatus with every output 0.
inline constexpr uint32_t kRpcStatusProcNumOutOfRange = 1745;
inline constexpr uint32_t kRpcStatusBadStubData = 1783;

struct KxIpclibBootstrapRequest {
    KxIpclibBootstrapProc proc = KxIpclibBootstrapProc::CreateSharedMemoryLinkV2;
    _GUID endpoint{};
    uint32_t clientVersion = 0;
    uint64_t clientLinkId = 0;
    uint32_t clientLinkFlags = 0;
    uint64_t clientStreamId = 0;
    uint32_t clientStreamFlags = 0;
    std::u16string streamName;
    uint32_t requestedSectionSize = 0;
};

struct KxIpclibBootstrapReply {
    uint32_t rpcStatus = 0;
    uint32_t sectionSize = 0;
    uint32_t serverVersion = 0;
    uint64_t serverLinkId = 0;
    uint32_t serverLinkFlags = 0;
    // Index of each descriptor in the reply's SCM_RIGHTS set, in the order of
    // kBootstrapReplyFds, or kBootstrapNoHandle.
    uint64_t handles[kBootstrapReplyFds] = {};
    uint32_t serverPid = 0;
    uint64_t serverStreamId = 0;
    uint32_t serverStreamFlags = 0;
    KxIpcStatusCode status = KxIpcStatusSuccess;
};

// 0 on success; kRpcStatusProcNumOutOfRange for an unknown procedure;
// kRpcStatusBadStubData for anything malformed: short or long datagrams, a
// name of 0 or more than 512 units, a name that holds a zero unit or is not
// valid UTF-16, a version-2 name without its terminator.
uint32_t parseBootstrapRequest(const uint8_t* data, size_t size, KxIpclibBootstrapRequest& out);
std::vector<uint8_t> encodeBootstrapRequest(const KxIpclibBootstrapRequest& request);

std::vector<uint8_t> encodeBootstrapReply(const KxIpclibBootstrapReply& reply);
// False unless exactly kBootstrapReplySize bytes.
bool parseBootstrapReply(const uint8_t* data, size_t size, KxIpclibBootstrapReply& out);

} // namespace tamsel::ipc
