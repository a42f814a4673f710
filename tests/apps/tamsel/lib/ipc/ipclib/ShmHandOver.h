#pragma once
// Shared by the tests and their peer program: handing a link's channel
// descriptors to another process over a Unix socket (SCM_RIGHTS), as the
// bootstrap does, and the byte pattern both processes check.

#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkChannelResourceLinux.h"
#include <tamsel/ipc/ipclibStream.h>

#include <sys/socket.h>

#include <array>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

namespace tamsel::ipc::testing {

struct HandOver {
    uint32_t sectionSize = 0;
    uint32_t mode = 0;
};

// One datagram of `size` bytes carrying `count` descriptors.
inline bool SendWithFds(int socket, const void* data, size_t size, const int* fds, size_t count)
{
    std::vector<char> control(CMSG_SPACE(sizeof(int) * count));
    iovec io{const_cast<void*>(data), size};
    msghdr msg{};
    msg.msg_iov = &io;
    msg.msg_iovlen = 1;
    msg.msg_control = control.data();
    msg.msg_controllen = control.size();
    cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    cmsg->cmsg_len = CMSG_LEN(sizeof(int) * count);
    std::memcpy(CMSG_DATA(cmsg), fds, sizeof(int) * count);
    return ::sendmsg(socket, &msg, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
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
    char control[CMSG_SPACE(sizeof fds)] = {};
    iovec io{&header, sizeof header};
    msghdr msg{};
    msg.msg_iov = &io;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    if (::recvmsg(socket, &msg, MSG_CMSG_CLOEXEC) != static_cast<ssize_t>(sizeof header))
        return false;
    cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
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

// Sizes that cross the section's edges: one byte, around a block, around a
// section, and several sections.
inline std::vector<uint32_t> MessageSizes(uint32_t section)
{
    return {1, 2, 63, 64, 1000, section - 28 - 40, section - 28 - 39, section, section + 1, 3 * section + 17};
}

// What one stream has received of the pattern messages.
struct Echoes {
    std::mutex lock;
    std::condition_variable changed;
    uint32_t received = 0;
    uint32_t wrong = 0;
    bool ended = false;
};

// A receive function that checks message `index` of `stream` against the pattern.
inline KxIpclibRecvFunction Checker(Echoes& e, uint32_t stream, const std::vector<uint32_t>& sizes)
{
    return [&e, stream, &sizes](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
        std::lock_guard<std::mutex> guard(e.lock);
        if (msg->size() == 0) {
            e.ended = true;
        } else {
            const auto want = PatternMessage(stream, e.received, sizes[e.received % sizes.size()]);
            if (msg->size() != want.size() || std::memcmp(msg->data(), want.data(), want.size()) != 0)
                ++e.wrong;
            ++e.received;
        }
        e.changed.notify_all();
    };
}

} // namespace tamsel::ipc::testing
