#pragma once
// What the link, stream and bootstrap tests share: a server that echoes every
// stream, a link listener that runs a test's handler, raw blocks as a peer
// writes them, and the peer program.

#include "ShmHandOver.h"
#include "common/ProcessProbe.h"
#include <tamsel/ipc/ipclibLinkListener.h>
#include <tamsel/ipc/ipclibStream.h>
#include "platform/LittleEndian.h"
#include "task/TaskTestSupport.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <deque>
#include <string>

extern char** environ;

namespace tamsel::ipc::testing {

inline KxIpclibMsgCompletion Ignore()
{
    return [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {};
}

// Accepts every stream offered (or refuses it with `rejectWith`), records and
// echoes every message, and closes each stream when its peer does. Streams are
// held weakly, as an application should: their links own them.
struct EchoServer {
    std::mutex lock;
    std::vector<std::u16string> names;
    std::vector<std::weak_ptr<KxIpclibStream>> streams;
    std::deque<Recorder> inboxes;
    Counter messages;
    KxIpcStatusCode rejectWith = KxIpcStatusSuccess;
    std::function<void(size_t stream)> beforeEcho;  // runs on the delivering thread

    size_t offered()
    {
        std::lock_guard<std::mutex> guard(lock);
        return names.size();
    }
    std::shared_ptr<KxIpclibStream> stream(size_t index)
    {
        std::lock_guard<std::mutex> guard(lock);
        return index < streams.size() ? streams[index].lock() : nullptr;
    }
    Messages received(size_t stream)
    {
        std::lock_guard<std::mutex> guard(lock);
        return stream < inboxes.size() ? inboxes[stream].got().messages : Messages{};
    }
    // Waits until every stream taken has delivered its end: no delivery outlives the server then.
    bool waitEnds()
    {
        std::lock_guard<std::mutex> guard(lock);
        return std::all_of(inboxes.begin(), inboxes.end(), [](Recorder& inbox) { return inbox.waitEnd(); });
    }
    std::function<void(std::shared_ptr<KxIpclibStream>)> handler()
    {
        return [this](std::shared_ptr<KxIpclibStream> stream) {
            std::unique_lock<std::mutex> guard(lock);
            names.push_back(stream->name());
            if (rejectWith != KxIpcStatusSuccess) {
                stream->reject(rejectWith);
                return;
            }
            const size_t index = streams.size();
            streams.push_back(stream);
            auto record = inboxes.emplace_back().function();
            guard.unlock();
            std::weak_ptr<KxIpclibStream> weak = stream;
            stream->accept({}, [this, weak, record, index](KxIpcStatusCode s, std::shared_ptr<KxIpclibMsg> msg) {
                auto self = weak.lock();
                if (!self)
                    return;
                record(s, msg);
                if (msg->size() == 0) {
                    self->close(std::chrono::milliseconds::max());
                    return;
                }
                if (beforeEcho)
                    beforeEcho(index);
                // The received message stays alive until its echo has gone out.
                self->send(0, msg->size(), msg->data(), [msg](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
                messages.add();
            });
        };
    }
};

// A link listener whose connect entry runs a test's handler and reports, as
// the library's listener does, the stream's refusal or the lack of a decision.
class TestLinkListener final : public KxIpclibLinkListener {
public:
    using Handler = std::function<void(std::shared_ptr<KxIpclibStream>)>;
    TestLinkListener(std::shared_ptr<tamsel::task::TaskExecutor> executor, Handler handler)
        : KxIpclibLinkListener(_GUID{}, KxIpclibListenerFlag::Local, std::move(executor),
                               [handler = std::move(handler)](std::shared_ptr<KxIpclibStream> stream) {
                                   handler(stream);
                                   if (stream->state() == KxIpclibStreamState::Init)
                                       return KxIpcStatusUnexpected;  // no decision
                                   if (stream->state() == KxIpclibStreamState::Closed)
                                       return stream->rejectStatus();
                                   return KxIpcStatusSuccess;
                               },
                               nullptr, nullptr)
    {
    }
    KxIpcStatusCode start(Flags<KxIpclibListenerFlag>, unsigned int&) override { return KxIpcStatusSuccess; }
    void stop(unsigned int&) override {}
    KxIpcStatusCode accepting(unsigned int&) override { return KxIpcStatusSuccess; }
};

// A block as a peer would write it.
inline std::vector<uint8_t> Block(KxIpclibMsgType type, uint32_t blockFlags, uint64_t src, uint64_t dest,
                                  const std::vector<uint8_t>& payload, uint32_t totalSize)
{
    const uint32_t header = (blockFlags & KxIpclibBlockFirst) ? 40 : 36;
    std::vector<uint8_t> raw(header, 0);
    raw.insert(raw.end(), payload.begin(), payload.end());
    tolv::platform::StoreLe<uint32_t>(raw.data() + 0, static_cast<uint32_t>(type));
    tolv::platform::StoreLe<uint32_t>(raw.data() + 4, blockFlags);
    tolv::platform::StoreLe<uint64_t>(raw.data() + 12, src);
    tolv::platform::StoreLe<uint64_t>(raw.data() + 20, dest);
    tolv::platform::StoreLe<uint32_t>(raw.data() + 28, static_cast<uint32_t>(raw.size()));
    tolv::platform::StoreLe<uint32_t>(raw.data() + 32, static_cast<uint32_t>(payload.size()));
    if (header == 40)
        tolv::platform::StoreLe<uint32_t>(raw.data() + 36, totalSize);
    return raw;
}

// Starts the peer program with `args`: its process id, or -1.
inline pid_t SpawnPeer(std::vector<std::string> args)
{
    args.insert(args.begin(), TOLV_IPC_PEER_PATH);
    std::vector<char*> argv;
    for (auto& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    return ::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) == 0 ? pid : -1;
}

// Waits for `pid` (killed first when `kill`) and forgets it: its exit code,
// 128 + the signal that ended it, or -1.
inline int ExitCode(pid_t& pid, bool kill = false)
{
    int status = 0;
    if (pid > 0 && kill)
        ::kill(pid, SIGKILL);
    const bool waited = pid > 0 && ::waitpid(pid, &status, 0) == pid;
    pid = -1;
    return !waited ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace tamsel::ipc::testing
