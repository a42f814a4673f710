// libFuzzer target: a bootstrap request datagram as a caller sends it, parsed
// by the pure request parser. Whatever parses must encode back to the very
// same bytes, so the parser accepts exactly the documented layout.

#include <tamsel/ipc/ipclibBootstrap.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

using namespace tamsel::ipc;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // A private copy of exactly the datagram's length, as the server has.
    std::vector<uint8_t> datagram(data, data + size);
    KxIpclibBootstrapRequest request;
    const uint32_t status = parseBootstrapRequest(datagram.data(), datagram.size(), request);
    if (status != 0) {
        if (status != kRpcStatusBadStubData && status != kRpcStatusProcNumOutOfRange)
            std::abort();
        return 0;
    }
    if (request.streamName.empty() || request.streamName.size() > kBootstrapMaxStreamName)
        std::abort();
    const auto again = encodeBootstrapRequest(request);
    if (again.size() != datagram.size() || std::memcmp(again.data(), datagram.data(), again.size()) != 0)
        std::abort();
    return 0;
}
