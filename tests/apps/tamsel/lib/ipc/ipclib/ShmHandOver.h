#pragma once
// Shared by the tests, their peer program and the link benchmark: handing a
// link's channel descriptors to another process over a Unix socket
// (SCM_RIGHTS), as the bootstrap does, the byte pattern both sides check,
// recording what a stream receives, and the test registration module's state.

#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkChannelResourceLinux.h"
#include <tamsel/ipc/ipclibStream.h>
#include "task/TaskTestSupport.h"

#include <sys/socket.h>

#include <array>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <vector>

namespace tamsel::ipc::testing {

struct HandOver {
    uint32_t sectionSize = 0;
    uint32_t mode = 0;
};

// A datagram of `size` bytes at `data` with room for `count` descriptors.
struct FdMessage {
    FdMessage(const void* data, size_t size, size_t count)
        : io{const_cast<void*>(data), size}, control(CMSG_SPACE(sizeof(int) * count))
    {
        msg.msg_iov = &io;
        msg.msg_iovlen = 1;
        msg.msg_control = control.data();
        msg.msg_controllen = control.size();
    }
    iovec io;
    std::vector<char> control;
    msghdr msg{};
};

inline bool SendWithFds(int socket, const void* data, size_t size, const int* fds, size_t count)
{
    FdMessage out(data, size, count);
    cmsghdr* cmsg = CMSG_FIRSTHDR(&out.msg);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    cmsg->cmsg_len = CMSG_LEN(sizeof(int) * count);
    std::memcpy(CMSG_DATA(cmsg), fds, sizeof(int) * count);
    return ::sendmsg(socket, &out.msg, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

// Sends the header and ten descriptors: the creator's send channel, then its receive channel.
inline bool SendHandOver(int socket, const HandOver& header, const KxIpclibLinkChannelResourceLinux& send,
                         const KxIpclibLinkChannelResourceLinux& recv)
{
    std::array<int, 10> fds{};
    const auto a = send.fds(), b = recv.fds();
    std::copy(a.begin(), a.end(), fds.begin());
    std::copy(b.begin(), b.end(), fds.begin() + 5);
    return SendWithFds(socket, &header, sizeof header, fds.data(), fds.size());
}

// Receives what SendHandOver sent; the sets come back as the creator named them.
inline bool ReceiveHandOver(int socket, HandOver& header, KxIpclibLinkChannelResourceLinux& creatorSend,
                            KxIpclibLinkChannelResourceLinux& creatorRecv)
{
    std::array<int, 10> fds{};
    FdMessage in(&header, sizeof header, fds.size());
    if (::recvmsg(socket, &in.msg, MSG_CMSG_CLOEXEC) != static_cast<ssize_t>(sizeof header))
        return false;
    cmsghdr* cmsg = CMSG_FIRSTHDR(&in.msg);
    if (!cmsg || cmsg->cmsg_type != SCM_RIGHTS || cmsg->cmsg_len != CMSG_LEN(sizeof fds))
        return false;
    std::memcpy(fds.data(), CMSG_DATA(cmsg), sizeof fds);
    creatorSend = KxIpclibLinkChannelResourceLinux::adopt({fds[0], fds[1], fds[2], fds[3], fds[4]});
    creatorRecv = KxIpclibLinkChannelResourceLinux::adopt({fds[5], fds[6], fds[7], fds[8], fds[9]});
    return true;
}

// Message `index` of a stream: its size and bytes, the same in both processes.
inline std::vector<uint8_t> PatternMessage(uint32_t stream, uint32_t index, uint32_t size)
{
    std::vector<uint8_t> out(size);
    uint32_t x = stream * 2654435761u + index * 40503u + size;
    for (auto& b : out) {
        x = x * 1664525u + 1013904223u;
        b = static_cast<uint8_t>(x >> 24);
    }
    return out;
}

// The section the peer program asks for.
inline constexpr uint32_t kPeerSection = 64 * 1024;

// Sizes that cross the section's edges: one byte, around a block, around a
// section, and several sections.
inline std::vector<uint32_t> MessageSizes(uint32_t section)
{
    return {1, 2, 63, 64, 1000, section - 28 - 40, section - 28 - 39, section, section + 1, 3 * section + 17};
}

using Messages = std::vector<std::vector<uint8_t>>;

// What one stream received: whole messages in order, and its ends (one, or a fault).
struct Received {
    Messages messages;
    int ends = 0;
    size_t endAfter = 0;  // messages delivered before the end
};

class Recorder {
public:
    // `onEnd` runs in the end-of-stream delivery, before the end is recorded.
    explicit Recorder(std::function<void()> onEnd = nullptr) : m_onEnd(std::move(onEnd)) {}

    KxIpclibRecvFunction function()
    {
        return [this](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
            if (msg->size() == 0 && m_onEnd)
                m_onEnd();
            std::lock_guard<std::mutex> guard(m_lock);
            if (msg->size() != 0)
                m_got.messages.emplace_back(msg->data(), msg->data() + msg->size());
            else
                m_got.endAfter = m_got.messages.size();
            m_got.ends += msg->size() == 0;
            m_changed.notify_all();
        };
    }
    bool waitMessages(size_t count) { return wait([&] { return m_got.messages.size() >= count; }); }
    bool waitEnd() { return wait([&] { return m_got.ends > 0; }); }
    Received got()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_got;
    }

private:
    bool wait(const std::function<bool()>& done)
    {
        std::unique_lock<std::mutex> lock(m_lock);
        return m_changed.wait_for(lock, kTestDeadline, done);
    }

    std::function<void()> m_onEnd;
    std::mutex m_lock;
    std::condition_variable m_changed;
    Received m_got;
};

} // namespace tamsel::ipc::testing

// What the tests see of the registration module (RpcTestModule.cpp), once the library has loaded it.
struct TestModuleState {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<uint32_t> results;  // what the library's callback returned, call by call
    int unregisters = 0;
    bool reportRegistered = false;  // what IsRpcServerRegistered says while nothing is registered
};
