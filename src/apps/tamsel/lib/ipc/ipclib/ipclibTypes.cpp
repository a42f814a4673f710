#include <tamsel/ipc/ipclibTypes.h>

#include <time.h>

#include <array>
#include <atomic>
#include <cstring>

std::string_view KxIpcStatusName(KxIpcStatusCode status)
{
    static constexpr std::array<std::string_view, 16> kNames = {
        "Success",      "Unexpected",   "NotImplemented", "OutOfMemory",   "InvalidHandle", "InvalidParam",
        "BufferTooSmall", "AccessDenied", "InvalidState", "AlreadyExists", "NotFound",      "ProtocolError",
        "StreamClosed", "StreamClosed", "Abort",          "FunctionNotFound"};
    return status < kNames.size() ? kNames[status] : "unknown";
}

namespace tamsel::ipc {

namespace {

template <size_t N>
std::string_view NameOf(const std::array<std::string_view, N>& names, uint32_t value)
{
    return value < N ? names[value] : "unknown";
}

// The system's millisecond tick count: time since boot.
uint32_t TickCount()
{
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000);
}

// The counter's value before the increment; a value whose counted part
// (selected by `mask`) is 0 is skipped.
uint64_t NextCount(std::atomic<uint64_t>& counter, uint64_t mask)
{
    for (;;) {
        const uint64_t value = counter.fetch_add(1, std::memory_order_relaxed);
        if ((value & mask) != 0)
            return value;
    }
}

std::atomic<uint64_t> g_linkCounter{0};
std::atomic<uint64_t> g_streamCounter{0};
std::atomic<uint64_t> g_msgCounter{0};

uint64_t MakeId(uint32_t letter, std::atomic<uint64_t>& counter)
{
    const uint64_t high = letter | (TickCount() & 0x00FFFFFFu);
    return (high << 32) | (NextCount(counter, 0xFFFFFFFFull) & 0xFFFFFFFFull);
}

uint64_t BigEndian64(const uint8_t* p)
{
    uint64_t value = 0;
    for (int i = 0; i < 8; ++i)
        value = (value << 8) | p[i];
    return value;
}

} // namespace

std::string_view stateName(KxIpclibState state)
{
    static constexpr std::array<std::string_view, 3> kNames = {"Init", "Started", "Stopping"};
    return NameOf(kNames, static_cast<uint32_t>(state));
}

std::string_view stateName(KxIpclibListenerState state)
{
    static constexpr std::array<std::string_view, 7> kNames = {"Init",    "Starting", "Listening", "Accepting",
                                                               "Closing", "Closed",   "Error"};
    return NameOf(kNames, static_cast<uint32_t>(state));
}

std::string_view stateName(KxIpclibStreamState state)
{
    static constexpr std::array<std::string_view, 5> kNames = {"Init", "Connecting", "Connected", "Closing", "Closed"};
    return NameOf(kNames, static_cast<uint32_t>(state));
}

std::string_view stateName(KxIpclibLinkState state)
{
    static constexpr std::array<std::string_view, 7> kNames = {"Init",   "Connecting", "Connected",   "Closing",
                                                               "Closed", "Error",      "ShuttingDown"};
    return NameOf(kNames, static_cast<uint32_t>(state));
}

std::string_view stateName(KxIpclibMsgType type)
{
    static constexpr std::array<std::string_view, 7> kNames = {"None",     "Open",     "OpenAck", "Close",
                                                               "CloseAck", "Shutdown", "Msg"};
    return NameOf(kNames, static_cast<uint32_t>(type));
}

uint64_t nextLinkId()
{
    return MakeId(0x4C000000u, g_linkCounter);
}

uint64_t nextStreamId()
{
    return MakeId(0x53000000u, g_streamCounter);
}

uint64_t nextMsgId()
{
    return NextCount(g_msgCounter, ~uint64_t{0});
}

bool endpointLess(const _GUID& a, const _GUID& b)
{
    uint8_t ra[16], rb[16];
    std::memcpy(ra, &a, 16);
    std::memcpy(rb, &b, 16);
    const uint64_t a0 = BigEndian64(ra), b0 = BigEndian64(rb);
    if (a0 != b0)
        return a0 < b0;
    return BigEndian64(ra + 8) < BigEndian64(rb + 8);
}

bool endpointEqual(const _GUID& a, const _GUID& b)
{
    return std::memcmp(&a, &b, sizeof(_GUID)) == 0;
}

} // namespace tamsel::ipc
