#pragma once
// The vocabulary shared by the whole IPC library: the status of every
// operation, the lifecycle and message-type enumerations with their printed
// names, flag sets, endpoint GUIDs and the process-wide identifiers.

#include <fmt/format.h>

#include <cstdint>
#include <string_view>

// Status of every IPC operation. The numbers travel to the peer inside an
// open acknowledgement, so they are fixed.
enum KxIpcStatusCode : uint32_t {
    KxIpcStatusSuccess = 0,
    KxIpcStatusUnexpected = 1,
    KxIpcStatusNotImplemented = 2,
    KxIpcStatusOutOfMemory = 3,
    KxIpcStatusInvalidHandle = 4,
    KxIpcStatusInvalidParam = 5,
    KxIpcStatusBufferTooSmall = 6,
    KxIpcStatusAccessDenied = 7,
    KxIpcStatusInvalidState = 8,
    KxIpcStatusAlreadyExists = 9,
    KxIpcStatusNotFound = 10,
    KxIpcStatusProtocolError = 11,
    KxIpcStatusStreamClosed = 12,
    // What uninit reports when links are still registered after its waits;
    // printed with the same name as 12.
    KxIpcStatusStreamClosedOnUninit = 13,
    KxIpcStatusAbort = 14,
    KxIpcStatusFunctionNotFound = 15,
};

// "Success" .. "FunctionNotFound"; "unknown" for any other value.
std::string_view KxIpcStatusName(KxIpcStatusCode status);

// Endpoint identifier, in the system's 16-byte layout.
struct _GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};
static_assert(sizeof(_GUID) == 16);

namespace tamsel::ipc {

enum class KxIpclibState : uint32_t { Init = 0, Started = 1, Stopping = 2 };
enum class KxIpclibListenerState : uint32_t {
    Init = 0, Starting = 1, Listening = 2, Accepting = 3, Closing = 4, Closed = 5, Error = 6
};
enum class KxIpclibStreamState : uint32_t { Init = 0, Connecting = 1, Connected = 2, Closing = 3, Closed = 4 };
enum class KxIpclibLinkState : uint32_t {
    Init = 0, Connecting = 1, Connected = 2, Closing = 3, Closed = 4, Error = 5, ShuttingDown = 6
};
enum class KxIpclibMsgType : uint32_t {
    None = 0, Open = 1, OpenAck = 2, Close = 3, CloseAck = 4, Shutdown = 5, Msg = 6
};

std::string_view stateName(KxIpclibState state);
std::string_view stateName(KxIpclibListenerState state);
std::string_view stateName(KxIpclibStreamState state);
std::string_view stateName(KxIpclibLinkState state);
std::string_view stateName(KxIpclibMsgType type);

// A 32-bit set of bits of the enumeration E.
template <typename E>
class Flags {
public:
    constexpr Flags() = default;
    constexpr Flags(E bit) : m_bits(static_cast<uint32_t>(bit)) {}
    constexpr explicit Flags(uint32_t bits) : m_bits(bits) {}

    constexpr uint32_t value() const { return m_bits; }
    constexpr bool test(E bit) const { return (m_bits & static_cast<uint32_t>(bit)) == static_cast<uint32_t>(bit); }
    constexpr bool any(uint32_t mask) const { return (m_bits & mask) != 0; }
    constexpr Flags operator|(Flags other) const { return Flags(m_bits | other.m_bits); }
    constexpr Flags& operator|=(Flags other)
    {
        m_bits |= other.m_bits;
        return *this;
    }
    constexpr bool operator==(const Flags&) const = default;

private:
    uint32_t m_bits = 0;
};

// Process-wide identifiers. Link and stream ids: a letter ('L', 'S') and the
// low 24 bits of the millisecond tick count in the high half, the low 32 bits
// of a counter in the low half. Message ids: the counter whole. A counter part
// is never 0, so the first id of each kind carries 1.
uint64_t nextLinkId();
uint64_t nextStreamId();
uint64_t nextMsgId();

// Endpoints are ordered by their first 8 bytes read as a big-endian number,
// then their last 8 bytes the same way.
bool endpointLess(const _GUID& a, const _GUID& b);
bool endpointEqual(const _GUID& a, const _GUID& b);

struct EndpointLess {
    bool operator()(const _GUID& a, const _GUID& b) const { return endpointLess(a, b); }
};

} // namespace tamsel::ipc

// Printed names, for trace lines.
template <>
struct fmt::formatter<KxIpcStatusCode> : fmt::formatter<std::string_view> {
    auto format(KxIpcStatusCode status, format_context& ctx) const
    {
        return fmt::formatter<std::string_view>::format(KxIpcStatusName(status), ctx);
    }
};

#define KXIPC_STATE_FORMATTER(Enum)                                                         \
    template <>                                                                             \
    struct fmt::formatter<tamsel::ipc::Enum> : fmt::formatter<std::string_view> {           \
        auto format(tamsel::ipc::Enum value, format_context& ctx) const                     \
        {                                                                                   \
            return fmt::formatter<std::string_view>::format(tamsel::ipc::stateName(value), ctx); \
        }                                                                                   \
    };
KXIPC_STATE_FORMATTER(KxIpclibState)
KXIPC_STATE_FORMATTER(KxIpclibListenerState)
KXIPC_STATE_FORMATTER(KxIpclibStreamState)
KXIPC_STATE_FORMATTER(KxIpclibLinkState)
KXIPC_STATE_FORMATTER(KxIpclibMsgType)
#undef KXIPC_STATE_FORMATTER

// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx", lower case, no braces.
template <>
struct fmt::formatter<_GUID> : fmt::formatter<std::string_view> {
    auto format(const _GUID& g, format_context& ctx) const
    {
        const auto text = fmt::format("{:08x}-{:04x}-{:04x}-{:02x}{:02x}-{:02x}{:02x}{:02x}{:02x}{:02x}{:02x}",
                                      g.Data1, g.Data2, g.Data3, g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3],
                                      g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
        return fmt::formatter<std::string_view>::format(text, ctx);
    }
};
