#pragma once
// An IPv4 socket for the syslog writer: made once, connected once (a datagram
// socket then needs no address per send), closed when it goes. Failures are
// logged at level 1 under the names of the operations.

#include <cstdint>
#include <string>

namespace tolv::log {

class LxSocket {
public:
    LxSocket() = default;
    ~LxSocket();
    LxSocket(const LxSocket&) = delete;
    LxSocket& operator=(const LxSocket&) = delete;

    // `type` and `protocol` as socket(2) takes them (2 and 17: UDP).
    bool Init(int type, int protocol);
    // Resolves `address` to an IPv4 address and connects to it.
    bool Connect(const std::string& address, uint32_t port);
    // Sends until every byte is gone or an error stops it; returns the bytes
    // sent.
    int32_t SendAll(const char* bytes, int32_t length);

    bool IsInitialized() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};

} // namespace tolv::log
