#include "log/LxSocket.h"

#include <tolv/log/Log.h>
#include "platform/SysCall.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace tolv::log {

LxSocket::~LxSocket()
{
    if (m_fd >= 0 && close(m_fd) != 0)
        LogWithSocketError("LxSocket::~LxSocket()", LOG_LEVEL_ERROR, "Socket close failed.\n");
}

bool LxSocket::Init(int type, int protocol)
{
    if (m_fd >= 0) {
        Log("LxSocket::Init()", LOG_LEVEL_ERROR, "LxSocket is already initialized.\n");
        return false;
    }
    m_fd = socket(AF_INET, type | SOCK_CLOEXEC, protocol);
    if (m_fd < 0) {
        LogWithSocketError("LxSocket::Init()", LOG_LEVEL_ERROR, "Socket creation failed.\n");
        return false;
    }
    return true;
}

bool LxSocket::Connect(const std::string& address, uint32_t port)
{
    if (m_fd < 0 || port > 65535) {
        errno = m_fd < 0 ? EBADF : EINVAL;
        LogWithSocketError("LxSocket::Connect()", LOG_LEVEL_ERROR, "Connect failed.\n");
        return false;
    }
    addrinfo hints {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    const int resolved = getaddrinfo(address.c_str(), nullptr, &hints, &found);
    if (resolved != 0 || found == nullptr) {
        Log("LxSocket::Connect()", LOG_LEVEL_ERROR, "Failed to resolve name.\n");
        if (found)
            freeaddrinfo(found);
        return false;
    }
    sockaddr_in target {};
    std::memcpy(&target, found->ai_addr, sizeof target);
    freeaddrinfo(found);
    target.sin_port = htons(static_cast<uint16_t>(port));
    if (tolv::platform::RetryOnEintr([&] {
            return connect(m_fd, reinterpret_cast<const sockaddr*>(&target), sizeof target);
        }) != 0) {
        LogWithSocketError("LxSocket::Connect()", LOG_LEVEL_ERROR, "Connect failed.\n");
        return false;
    }
    return true;
}

int32_t LxSocket::SendAll(const char* bytes, int32_t length)
{
    int32_t sent = 0;
    while (sent < length) {
        // MSG_NOSIGNAL: a gone collector is an error here, never a signal.
        const ssize_t n = tolv::platform::RetryOnEintr(
            [&] { return send(m_fd, bytes + sent, static_cast<size_t>(length - sent), MSG_NOSIGNAL); });
        if (n <= 0) {
            LogWithSocketError("LxSocket::SendAll()", LOG_LEVEL_ERROR, "SendAll() failed.\n");
            break;
        }
        sent += static_cast<int32_t>(n);
    }
    return sent;
}

} // namespace tolv::log
