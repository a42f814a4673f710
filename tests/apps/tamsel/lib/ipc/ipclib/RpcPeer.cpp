// The other process of the bootstrap tests. Usage: rpcPeer MODE ENDPOINT [ARG]
//   echo N      connects, opens N-1 further streams on the same link, sends a
//               pattern on each, checks every echo byte for byte, closes.
//   refused S   connects and expects the call to fail with status S.
//   hold        connects, then waits until the server takes the link down.
//   v1          as echo 1, through the version-1 procedure.
//   server      listens on ENDPOINT, echoes everything and waits to be killed.
// Exit codes: 0 success, 1 a check failed, 2 set-up failed.

#include "ShmHandOver.h"

#include <tamsel/ipc/ipclib.h>
#include <tamsel/ipc/ipclibClient.h>
#include <tamsel/ipc/ipclibStream.h>
#include <tolv/log/Log.h>
#include "log/LoggerManager.h"

#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

using namespace tolv::log;

using namespace tamsel::ipc;
using namespace tamsel::ipc::testing;

namespace {

bool ParseGuid(const char* text, _GUID& g)
{
    unsigned d4[8];
    if (std::sscanf(text, "%8x-%4hx-%4hx-%2x%2x-%2x%2x%2x%2x%2x%2x", &g.Data1, &g.Data2, &g.Data3, &d4[0], &d4[1],
                    &d4[2], &d4[3], &d4[4], &d4[5], &d4[6], &d4[7]) != 11)
        return false;
    for (int i = 0; i < 8; ++i)
        g.Data4[i] = static_cast<uint8_t>(d4[i]);
    return true;
}

int Echo(const _GUID& ep, uint32_t count, KxIpclibBootstrapProc proc)
{
    const std::vector<uint32_t> sizes = {1, 100, 5000, 70000};
    std::vector<Echoes> echoes(count);
    KxIpclibClientOptions options;
    options.procedure = proc;
    auto client = KxIpclibClient::connect(ep, u"tolvCommands", Checker(echoes[0], 0, sizes), options);
    if (!client) {
        std::fprintf(stderr, "peer: connect failed with %u\n", client.error());
        return 2;
    }
    std::vector<std::shared_ptr<KxIpclibStream>> streams = {(*client)->firstStream()};
    for (uint32_t s = 1; s < count; ++s) {
        auto more = (*client)->openStream(u"stream" + std::u16string(1, char16_t(u'0' + s)), Checker(echoes[s], s, sizes));
        if (!more) {
            std::fprintf(stderr, "peer: open failed with %u\n", more.error());
            return 2;
        }
        streams.push_back(*more);
    }
    std::vector<std::vector<std::vector<uint8_t>>> sent(count);
    for (uint32_t s = 0; s < count; ++s)
        for (uint32_t i = 0; i < sizes.size(); ++i)
            sent[s].push_back(PatternMessage(s, i, sizes[i]));
    for (uint32_t i = 0; i < sizes.size(); ++i)
        for (uint32_t s = 0; s < count; ++s)
            if (!streams[s]->send(0, sizes[i], sent[s][i].data(), [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {}))
                return 1;
    int result = 0;
    for (uint32_t s = 0; s < count; ++s) {
        std::unique_lock<std::mutex> lock(echoes[s].lock);
        if (!echoes[s].changed.wait_for(lock, std::chrono::seconds(60), [&] { return echoes[s].received == sizes.size(); }) ||
            echoes[s].wrong != 0)
            result = 1;
    }
    for (auto& stream : streams) {
        stream->waitForOutstandingSends(0, std::chrono::seconds(30));
        stream->close(std::chrono::milliseconds(5000));
    }
    for (uint32_t s = 0; s < count; ++s) {
        std::unique_lock<std::mutex> lock(echoes[s].lock);
        echoes[s].changed.wait_for(lock, std::chrono::seconds(30), [&] { return echoes[s].ended; });
    }
    streams.clear();
    if (!(*client)->close())
        result = 1;
    return result;
}

int Serve(const _GUID& ep)
{
    auto lib = std::make_shared<KxIpclib>();
    if (lib->init(0) != KxIpcStatusSuccess)
        return 2;
    auto listener = lib->listen(ep, Flags<KxIpclibListenerFlag>(0x8), [](std::shared_ptr<KxIpclibStream> s) {
        std::weak_ptr<KxIpclibStream> weak = s;
        s->accept(Flags<KxIpclibStreamFlag>(), [weak](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
            auto self = weak.lock();
            if (!self)
                return;
            if (msg->size() == 0)
                self->close(std::chrono::milliseconds::max());
            else
                self->send(0, msg->size(), msg->data(), [msg](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
        });
    }, nullptr);
    if (!listener || (*listener)->accepting() != KxIpcStatusSuccess)
        return 2;
    for (;;)
        ::pause();  // until killed
}

} // namespace

int main(int argc, char** argv)
{
    LogToStandardError("rpcPeer", LOG_LEVEL_ERROR);
    _GUID ep{};
    if (argc < 3 || !ParseGuid(argv[2], ep))
        return 2;
    const std::string mode = argv[1];
    if (mode == "echo")
        return Echo(ep, argc > 3 ? static_cast<uint32_t>(std::atoi(argv[3])) : 1,
                    KxIpclibBootstrapProc::CreateSharedMemoryLinkV2);
    if (mode == "v1")
        return Echo(ep, 1, KxIpclibBootstrapProc::CreateSharedMemoryLink);
    if (mode == "server")
        return Serve(ep);
    if (mode == "refused") {
        auto client = KxIpclibClient::connect(ep, u"tolvCommands", [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
        if (client) {
            std::fprintf(stderr, "peer: connected although it should have been refused\n");
            return 1;
        }
        std::fprintf(stderr, "peer: refused with %u\n", client.error());
        return client.error() == static_cast<KxIpcStatusCode>(std::atoi(argc > 3 ? argv[3] : "0")) ? 0 : 1;
    }
    if (mode == "hold") {
        std::mutex m;
        std::condition_variable cv;
        bool ended = false;
        auto client = KxIpclibClient::connect(ep, u"tolvCommands", [&](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
            if (msg->size() == 0) {
                std::lock_guard<std::mutex> guard(m);
                ended = true;
                cv.notify_all();
            }
        });
        if (!client) {
            std::fprintf(stderr, "peer: connect failed with %u\n", client.error());
            return 2;
        }
        static const uint8_t hello[] = {'h', 'i'};
        if (!(*client)->firstStream()->send(0, sizeof hello, hello, [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {}))
            return 2;
        // The server's uninit closes our stream, then the link.
        {
            std::unique_lock<std::mutex> lock(m);
            if (!cv.wait_for(lock, std::chrono::seconds(60), [&] { return ended; }))
                return 1;
        }
        (*client)->firstStream()->close(std::chrono::milliseconds(5000));
        return (*client)->waitLinkClosed(std::chrono::seconds(60)) ? 0 : 1;
    }
    return 2;
}
