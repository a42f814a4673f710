// The other process of the bootstrap and link tests. Usage: ipcPeer MODE EP [N]
//   echo EP N  connects with a section of kPeerSection bytes, opens N-1 more
//              streams on the link, sends messages of MessageSizes() on each,
//              checks every echo byte for byte, closes.
//   v1 EP      as echo EP 1, through the version-1 procedure.
//   hold EP    connects, then waits until the server takes the link down.
//   server EP  listens on EP, echoes everything and waits to be killed.
// Exit codes: 0 success, 1 a check failed, 2 set-up failed, 10 + the status
// of a refused connect.

#include "ShmHandOver.h"

#include <tamsel/ipc/ipclib.h>
#include <tamsel/ipc/ipclibClient.h>
#include <tolv/log/Log.h>
#include "log/LoggerManager.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>

using namespace tolv::log;
using namespace tamsel::ipc;
using namespace tamsel::ipc::testing;

namespace {

using Streams = std::vector<std::shared_ptr<KxIpclibStream>>;

void Ignore(KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {}

int Connect(const _GUID& ep, uint32_t count, KxIpclibBootstrapProc proc, bool hold)
{
    const auto sizes = MessageSizes(kPeerSection);
    std::deque<Recorder> echoes(count);
    KxIpclibClientOptions options;
    options.procedure = proc;
    options.sectionSize = kPeerSection;
    auto client = KxIpclibClient::connect(ep, u"tolvCommands", echoes[0].function(), options);
    if (!client)
        return 10 + static_cast<int>(client.error());
    Streams streams = {(*client)->firstStream()};
    if (hold) {
        // The server's uninit closes our stream, then the link.
        static const uint8_t hello[] = {'h', 'i'};
        if (!streams[0]->send(0, sizeof hello, hello, Ignore) || !echoes[0].waitEnd())
            return 1;
        streams[0]->close(std::chrono::milliseconds(5000));
        return (*client)->waitLinkClosed(std::chrono::seconds(60)) ? 0 : 1;
    }
    for (uint32_t s = 1; s < count; ++s) {
        auto more = (*client)->openStream(u"stream" + std::u16string(1, char16_t(u'0' + s)), echoes[s].function());
        if (!more)
            return 2;
        streams.push_back(*more);
    }
    // Every size on each stream; sends do not copy.
    std::vector<Messages> sent(streams.size());
    for (uint32_t i = 0; i < sizes.size(); ++i)
        for (uint32_t s = 0; s < streams.size(); ++s) {
            sent[s].push_back(PatternMessage(s, i, sizes[i]));
            if (!streams[s]->send(0, sizes[i], sent[s].back().data(), Ignore))
                return 1;
        }
    int result = 0;
    for (uint32_t s = 0; s < streams.size(); ++s) {
        result |= !echoes[s].waitMessages(sizes.size()) || echoes[s].got().messages != sent[s];
        streams[s]->waitForOutstandingSends(0, std::chrono::seconds(30));
        streams[s]->close(std::chrono::milliseconds(5000));
    }
    for (auto& e : echoes)
        e.waitEnd();
    streams.clear();
    return (*client)->close() ? result : 1;
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
            if (self && msg->size() == 0)
                self->close(std::chrono::milliseconds::max());
            else if (self)
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
    LogToStandardError("ipcPeer", LOG_LEVEL_ERROR);
    const std::string mode = argc >= 3 ? argv[1] : "";
    unsigned d4[8];
    _GUID ep{};
    const char* format = "%8x-%4hx-%4hx-%2x%2x-%2x%2x%2x%2x%2x%2x";
    if (mode.empty() || std::sscanf(argv[2], format, &ep.Data1, &ep.Data2, &ep.Data3, &d4[0], &d4[1], &d4[2],
                                    &d4[3], &d4[4], &d4[5], &d4[6], &d4[7]) != 11)
        return 2;
    std::copy(d4, d4 + 8, ep.Data4);
    if (mode == "server")
        return Serve(ep);
    const auto v2 = KxIpclibBootstrapProc::CreateSharedMemoryLinkV2;
    if (mode == "echo")
        return Connect(ep, argc > 3 ? static_cast<uint32_t>(std::atoi(argv[3])) : 1, v2, false);
    if (mode == "v1")
        return Connect(ep, 1, KxIpclibBootstrapProc::CreateSharedMemoryLink, false);
    return mode == "hold" ? Connect(ep, 1, v2, true) : 2;
}
