// Two processes over one shared-memory link, against a bare floor.
//   link:  one-way throughput of 1 MiB messages (peer -> this process), and
//          the round trip of 64-byte messages (peer sends, this side echoes),
//          as the mean and the median of the gaps between arrivals;
//   floor: the same two patterns with nothing but a 1 MiB memfd section, a
//          memcpy in and out, and two eventfds between the two processes.
// The peer is this program started again with "--peer".
//
//   shmLinkBench [messages=2000] [roundTrips=20000]

#include "apps/tamsel/lib/ipc/ipclib/ShmHandOver.h"

#include <tamsel/ipc/ipclibLinkListener.h>
#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkSharedMemLinux.h"
#include <tamsel/ipc/ipclibStream.h>
#include <tolv/log/Log.h>
#include "log/LoggerManager.h"
#include "task/LinuxThreadPoolExecutor.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

using namespace tolv::log;

extern char** environ;

using namespace tamsel::ipc;
using namespace tamsel::ipc::testing;
using Clock = std::chrono::steady_clock;

namespace {

constexpr uint32_t kSection = 1048575;
constexpr uint32_t kBig = 1u << 20;
constexpr uint32_t kSmall = 64;

uint32_t g_messages = 2000;
uint32_t g_roundTrips = 20000;

struct RoundTrip {
    double meanUs = 0;
    double medianUs = 0;
};

// The gaps between consecutive arrivals, one round trip each. Both figures
// matter: on a virtual machine whose idle CPUs poll before they halt, a tight
// ping-pong either stays within the poll and takes a few microseconds, or
// pays a halted CPU's wake-up; the median says which is usual, the mean what
// a long exchange costs.
RoundTrip Gaps(const std::vector<Clock::time_point>& arrivals)
{
    std::vector<double> gaps;
    for (size_t i = 1; i < arrivals.size(); ++i)
        gaps.push_back(std::chrono::duration<double, std::micro>(arrivals[i] - arrivals[i - 1]).count());
    RoundTrip result;
    if (gaps.empty())
        return result;
    double sum = 0;
    for (double g : gaps)
        sum += g;
    result.meanUs = sum / gaps.size();
    std::nth_element(gaps.begin(), gaps.begin() + gaps.size() / 2, gaps.end());
    result.medianUs = gaps[gaps.size() / 2];
    return result;
}

double Seconds(Clock::time_point from)
{
    return std::chrono::duration<double>(Clock::now() - from).count();
}

void Post(int fd)
{
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(fd, &one, sizeof one);
}

void Take(int fd)
{
    uint64_t value;
    [[maybe_unused]] ssize_t n = ::read(fd, &value, sizeof value);
}

pid_t SpawnPeer(const char* self, const std::string& mode, int fd)
{
    const std::string fdText = std::to_string(fd);
    const std::string messages = std::to_string(g_messages), roundTrips = std::to_string(g_roundTrips);
    char* argv[] = {const_cast<char*>(self),           const_cast<char*>("--peer"),
                    const_cast<char*>(mode.c_str()),   const_cast<char*>(fdText.c_str()),
                    const_cast<char*>(messages.c_str()), const_cast<char*>(roundTrips.c_str()), nullptr};
    pid_t pid = -1;
    if (::posix_spawn(&pid, self, nullptr, nullptr, argv, environ) != 0)
        return -1;
    return pid;
}

// The floor: the peer writes into a plain section and signals; we copy out and signal back.
void FloorPeer(int socket)
{
    int fds[3];
    char control[CMSG_SPACE(sizeof fds)] = {};
    char byte;
    iovec io{&byte, 1};
    msghdr msg{};
    msg.msg_iov = &io;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    if (::recvmsg(socket, &msg, 0) != 1)
        std::exit(2);
    std::memcpy(fds, CMSG_DATA(CMSG_FIRSTHDR(&msg)), sizeof fds);
    auto* section = static_cast<uint8_t*>(::mmap(nullptr, kBig, PROT_READ | PROT_WRITE, MAP_SHARED, fds[0], 0));
    std::vector<uint8_t> data(kBig, 0x5A);
    for (uint32_t i = 0; i < g_messages; ++i) {
        Take(fds[2]);  // buffer free
        std::memcpy(section, data.data(), kBig);
        Post(fds[1]);  // data ready
    }
    for (uint32_t i = 0; i < g_roundTrips; ++i) {
        Take(fds[2]);
        std::memcpy(section, data.data(), kSmall);
        Post(fds[1]);
    }
}

struct Floor {
    double throughput;  // MiB/s
    RoundTrip roundTrip;
};

Floor RunFloor(const char* self)
{
    int pair[2];
    ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair);
    tolv::platform::UniqueFd ours(pair[0]), theirs(pair[1]);
    tolv::platform::UniqueFd inherited(::fcntl(theirs.get(), F_DUPFD, 0));
    const pid_t peer = SpawnPeer(self, "floor", inherited.get());
    inherited.reset();
    tolv::platform::UniqueFd section(::memfd_create("floor", MFD_CLOEXEC));
    ::ftruncate(section.get(), kBig);
    tolv::platform::UniqueFd ready(::eventfd(0, EFD_CLOEXEC)), freed(::eventfd(0, EFD_CLOEXEC));
    int fds[3] = {section.get(), ready.get(), freed.get()};
    char control[CMSG_SPACE(sizeof fds)] = {};
    char byte = 0;
    iovec io{&byte, 1};
    msghdr msg{};
    msg.msg_iov = &io;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    cmsg->cmsg_len = CMSG_LEN(sizeof fds);
    std::memcpy(CMSG_DATA(cmsg), fds, sizeof fds);
    ::sendmsg(ours.get(), &msg, 0);
    auto* view = static_cast<uint8_t*>(::mmap(nullptr, kBig, PROT_READ | PROT_WRITE, MAP_SHARED, section.get(), 0));
    std::vector<uint8_t> copy(kBig);
    Post(freed.get());
    auto start = Clock::now();
    for (uint32_t i = 0; i < g_messages; ++i) {
        Take(ready.get());
        std::memcpy(copy.data(), view, kBig);
        Post(freed.get());
    }
    Floor floor{};
    floor.throughput = g_messages / Seconds(start);  // MiB per second
    std::vector<Clock::time_point> arrivals;
    arrivals.reserve(g_roundTrips);
    for (uint32_t i = 0; i < g_roundTrips; ++i) {
        Take(ready.get());
        arrivals.push_back(Clock::now());
        std::memcpy(copy.data(), view, kSmall);
        Post(freed.get());
    }
    // One signal each way per message: a round trip.
    floor.roundTrip = Gaps(arrivals);
    ::waitpid(peer, nullptr, 0);
    ::munmap(view, kBig);
    return floor;
}

// The link peer: opens a stream, sends the big messages, then plays ping-pong.
int LinkPeer(int socket)
{
    HandOver header;
    KxIpclibLinkChannelResourceLinux creatorSend, creatorRecv;
    if (!ReceiveHandOver(socket, header, creatorSend, creatorRecv))
        return 2;
    auto executor = tamsel::task::LinuxThreadPoolExecutor::create();
    auto link = std::make_shared<KxIpclibLinkSharedMemLinux>(
        _GUID{}, 0, u"bench", 0, nullptr, nullptr, header.sectionSize,
        tolv::platform::UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, ::getppid(), 0))), tolv::platform::UniqueFd());
    int error = 0;
    unsigned int out = 0;
    if (link->attach(std::move(creatorRecv), std::move(creatorSend), error) != 0 || link->connecting() != 0 ||
        link->start(executor, out) != 0)
        return 2;
    std::mutex lock;
    std::condition_variable echoed;
    uint32_t echoes = 0;
    std::vector<uint8_t> big(kBig, 0xA5);
    auto ignore = [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {};
    std::weak_ptr<KxIpclibStream> weak;
    // Each echo sends the next message from the receive function itself, so
    // a round trip is the link's alone, with no wake-up of another thread.
    auto opened = KxIpclibStream::open(link, executor, u"bench", Flags<KxIpclibStreamFlag>(),
                                       [&](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
                                           if (msg->size() == 0)
                                               return;
                                           uint32_t count;
                                           {
                                               std::lock_guard<std::mutex> guard(lock);
                                               count = ++echoes;
                                           }
                                           if (count < g_roundTrips) {
                                               if (auto self = weak.lock())
                                                   self->send(0, kSmall, big.data(), ignore);
                                               return;
                                           }
                                           echoed.notify_all();
                                       },
                                       std::chrono::seconds(30));
    if (!opened)
        return 2;
    auto stream = *opened;
    weak = stream;
    for (uint32_t i = 0; i < g_messages; ++i) {
        stream->waitForOutstandingSends(8, std::chrono::seconds(60));  // a bounded window in flight
        stream->send(0, kBig, big.data(), ignore);
    }
    stream->waitForOutstandingSends(0, std::chrono::seconds(60));
    stream->send(0, kSmall, big.data(), ignore);
    {
        std::unique_lock<std::mutex> guard(lock);
        echoed.wait(guard, [&] { return echoes == g_roundTrips; });
    }
    stream->close(std::chrono::milliseconds(1000));
    link->close();
    return 0;
}

struct LinkResult {
    double throughput;
    RoundTrip roundTrip;
};

LinkResult RunLink(const char* self)
{
    int pair[2];
    ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair);
    tolv::platform::UniqueFd ours(pair[0]), theirs(pair[1]);
    tolv::platform::UniqueFd inherited(::fcntl(theirs.get(), F_DUPFD, 0));
    const pid_t peer = SpawnPeer(self, "link", inherited.get());
    inherited.reset();
    auto executor = tamsel::task::LinuxThreadPoolExecutor::create();

    std::mutex lock;
    std::condition_variable progress;
    uint32_t bigReceived = 0;
    Clock::time_point firstBig, lastBig;
    std::vector<Clock::time_point> smallArrivals;
    smallArrivals.reserve(g_roundTrips);
    uint32_t smallReceived = 0;
    std::shared_ptr<KxIpclibStream> accepted;
    class Listener final : public KxIpclibLinkListener {
    public:
        using KxIpclibLinkListener::KxIpclibLinkListener;
        KxIpcStatusCode start(Flags<KxIpclibListenerFlag>, unsigned int&) override { return KxIpcStatusSuccess; }
        void stop(unsigned int&) override {}
        KxIpcStatusCode accepting(unsigned int&) override { return KxIpcStatusSuccess; }
    };
    auto listener = std::make_shared<Listener>(
        _GUID{}, Flags<KxIpclibListenerFlag>(KxIpclibListenerFlag::Local), executor,
        [&](std::shared_ptr<KxIpclibStream> stream) {
            std::weak_ptr<KxIpclibStream> weak = stream;
            accepted = stream;
            return stream->accept(Flags<KxIpclibStreamFlag>(), [&, weak](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
                auto self = weak.lock();
                if (!self || msg->size() == 0)
                    return;
                std::lock_guard<std::mutex> guard(lock);
                if (msg->size() == kBig) {
                    if (bigReceived++ == 0)
                        firstBig = Clock::now();
                    lastBig = Clock::now();
                } else {
                    ++smallReceived;
                    smallArrivals.push_back(Clock::now());
                    self->send(0, msg->size(), msg->data(), [msg](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
                }
                // Waking the waiting thread on every message would put its
                // wake-ups into the figures; it only wants the last one.
                if (smallReceived == g_roundTrips)
                    progress.notify_all();
            });
        },
        nullptr, nullptr);
    auto link = std::make_shared<KxIpclibLinkSharedMemLinux>(
        _GUID{}, 0, u"bench", static_cast<uint32_t>(peer), nullptr, listener, kSection,
        tolv::platform::UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, peer, 0))), tolv::platform::UniqueFd());
    int error = 0;
    unsigned int out = 0;
    KxIpclibLinkChannelResourceLinux send, recv;
    link->create(error);
    link->sendChannel()->duplicateHandles(send, error);
    link->recvChannel()->duplicateHandles(recv, error);
    SendHandOver(ours.get(), HandOver{kSection, 0}, send, recv);
    link->connecting();
    link->start(executor, out);
    {
        std::unique_lock<std::mutex> guard(lock);
        progress.wait(guard, [&] { return smallReceived == g_roundTrips; });
    }
    int status = 0;
    ::waitpid(peer, &status, 0);
    LinkResult result{};
    // Big messages: time from the first arrival to the last, over all but one.
    result.throughput = (bigReceived - 1) / std::chrono::duration<double>(lastBig - firstBig).count();
    result.roundTrip = Gaps(smallArrivals);
    link->close();
    accepted.reset();
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    LogToStandardError("shmLinkBench", LOG_LEVEL_ERROR);
    if (argc == 6 && std::string(argv[1]) == "--peer") {
        const int fd = std::atoi(argv[3]);
        g_messages = static_cast<uint32_t>(std::strtoul(argv[4], nullptr, 10));
        g_roundTrips = static_cast<uint32_t>(std::strtoul(argv[5], nullptr, 10));
        if (std::string(argv[2]) == "floor") {
            FloorPeer(fd);
            return 0;
        }
        return LinkPeer(fd);
    }
    if (argc > 1)
        g_messages = static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10));
    if (argc > 2)
        g_roundTrips = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));
    const char* self = "/proc/self/exe";
    char path[4096];
    const ssize_t n = ::readlink(self, path, sizeof path - 1);
    if (n <= 0)
        return 1;
    path[n] = '\0';

    const LinkResult link = RunLink(path);
    const Floor floor = RunFloor(path);
    std::printf("two processes, section %u bytes\n", kSection);
    std::printf("  1 MiB messages one way : link %8.0f MiB/s   floor %8.0f MiB/s   ratio %.2f\n", link.throughput,
                floor.throughput, link.throughput / floor.throughput);
    std::printf("  64-byte round trip mean   : link %8.1f us       floor %8.1f us       ratio %.2f\n",
                link.roundTrip.meanUs, floor.roundTrip.meanUs, link.roundTrip.meanUs / floor.roundTrip.meanUs);
    std::printf("  64-byte round trip median : link %8.1f us       floor %8.1f us       ratio %.2f\n",
                link.roundTrip.medianUs, floor.roundTrip.medianUs,
                link.roundTrip.medianUs / floor.roundTrip.medianUs);
    return 0;
}
