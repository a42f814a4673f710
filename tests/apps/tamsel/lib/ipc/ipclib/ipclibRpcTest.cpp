// The library object, its listeners and the bootstrap, with clients in other
// processes (ipcPeer) and hostile callers on raw sockets.

#include "IpcTestSupport.h"

#include "common/LogCapture.h"
#include "common/SettingsStore.h"
#include <tamsel/ipc/ipclib.h>
#include <tamsel/ipc/ipclibClient.h>
#include "apps/tamsel/lib/ipc/ipclib/ipclibConfig.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkListenerRpcLinux.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkSharedMemLinux.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace tamsel::ipc;
using namespace tamsel::ipc::testing;
using namespace std::chrono_literals;
using tolv::platform::UniqueFd;

namespace {

constexpr uint32_t kLocal = 0x8, kModule = 0x40;
constexpr auto kV1 = KxIpclibBootstrapProc::CreateSharedMemoryLink;
constexpr auto kV2 = KxIpclibBootstrapProc::CreateSharedMemoryLinkV2;

_GUID NewEndpoint()
{
    static std::atomic<uint32_t> counter{1};
    return _GUID{static_cast<uint32_t>(::getpid()), static_cast<uint16_t>(counter++), 0x4242,
                 {0x90, 0xa2, 0x9c, 0x69, 0xdf, 0xd8, 0xe7, 0x28}};
}

KxIpclibBootstrapRequest RequestFor(const _GUID& ep, KxIpclibBootstrapProc proc, uint32_t sectionSize = 65536)
{
    KxIpclibBootstrapRequest r;
    r.proc = proc;
    r.endpoint = ep;
    r.clientVersion = 1;
    r.clientLinkId = 1;
    r.clientStreamId = 2;
    r.streamName = u"tolvCommands";
    r.requestedSectionSize = sectionSize;
    return r;
}

std::vector<uint8_t> Request(const _GUID& ep, KxIpclibBootstrapProc proc, uint32_t sectionSize = 65536)
{
    return encodeBootstrapRequest(RequestFor(ep, proc, sectionSize));
}

class RpcBootstrap : public ::testing::Test {
protected:
    void SetUp() override
    {
        ::setenv("IPCLIB_RUNTIME_DIR", runtime.path().c_str(), 1);
        KxIpclibConfigResetForTesting();
        descriptors = OpenDescriptors();
        int fds[2];
        ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
        pipeRead.reset(fds[0]);
        pipeWrite.reset(fds[1]);
    }

    void TearDown() override
    {
        for (pid_t& pid : peers)
            ExitCode(pid, true);
        if (lib)
            lib->uninit();
        EXPECT_TRUE(server.waitEnds());
        ::unsetenv("IPCLIB_RUNTIME_DIR");
    }

    // A library listening on the endpoint with the echo server, accepting unless told not to.
    void StartServer(bool accept = true, std::shared_ptr<KxIpclib> library = std::make_shared<KxIpclib>())
    {
        lib = std::move(library);
        ASSERT_EQ(lib->init(0), KxIpcStatusSuccess);
        listener = Listen(ep, kLocal);
        ASSERT_TRUE(listener);
        ASSERT_EQ(accept ? listener->accepting() : KxIpcStatusSuccess, KxIpcStatusSuccess);
    }

    std::shared_ptr<KxIpclibListener> Listen(const _GUID& endpoint, uint32_t flags,
                                             KxIpcStatusCode expected = KxIpcStatusSuccess)
    {
        auto l = lib->listen(endpoint, Flags<KxIpclibListenerFlag>(flags), server.handler(), nullptr);
        EXPECT_EQ(l ? KxIpcStatusSuccess : l.error(), expected);
        return l ? *l : nullptr;
    }

    // Starts the peer program on our endpoint (with `streams` for "echo"): its index in `peers`.
    size_t Start(const std::string& mode, const std::string& streams = "1")
    {
        peers.push_back(SpawnPeer({mode, fmt::format("{}", ep), streams}));
        return peers.size() - 1;
    }
    int Run(const std::string& mode, const std::string& streams = "1")
    {
        return ExitCode(peers[Start(mode, streams)]);
    }

    // One bootstrap call by hand: its reply. Descriptors that come with it go
    // to `fds`, or fail the test.
    KxIpclibBootstrapReply Call(const std::vector<uint8_t>& bytes, int pipe, std::vector<UniqueFd>* fds = nullptr)
    {
        KxIpclibBootstrapReply reply;
        std::vector<UniqueFd> received;
        EXPECT_EQ(KxIpclibCallBootstrap(ep, bytes, pipe, 30s, reply, received), KxIpcStatusSuccess);
        EXPECT_TRUE(fds || received.empty());
        if (fds)
            *fds = std::move(received);
        return reply;
    }

    // A socket connected to the endpoint, to play a caller by hand.
    UniqueFd RawSocket()
    {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        const std::string path = KxIpclibEndpointSocketPath(runtime.path(), ep);
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        UniqueFd sock(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        EXPECT_EQ(::connect(sock.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        return sock;
    }

    // Once the library and the test's pipe are gone, no descriptor is left of either side.
    void ExpectNoDescriptorLeak()
    {
        const bool running = lib && lib->state() != KxIpclibState::Init;
        EXPECT_EQ(running ? lib->uninit() : KxIpcStatusSuccess, KxIpcStatusSuccess);
        listener.reset();
        lib.reset();
        pipeRead.reset();
        pipeWrite.reset();
        // The last link or stream to go releases the executor from its own task. At
        // most: descriptors of earlier tests in this process may close meanwhile.
        EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() <= descriptors; }))
            << OpenDescriptors() << " descriptors open, " << descriptors << " before";
    }

    TempDir runtime;
    SettingsStore store;
    _GUID ep = NewEndpoint();
    size_t descriptors = 0;
    UniqueFd pipeRead, pipeWrite;  // what a version-2 caller hands over
    std::vector<pid_t> peers;
    EchoServer server;
    std::shared_ptr<KxIpclib> lib;
    std::shared_ptr<KxIpclibListener> listener;
};

} // namespace

TEST_F(RpcBootstrap, PeersOnSeveralLinksAndStreamsGetEveryEchoBackAndADeniedProcessHandleFallsBackToThePipe)
{
    // Key and value names are matched without regard to case.
    store.Put("HKLM/software/CORVANTA/Veltrane/kxipc", "denyclientprocesshandleuseonserver", "0x1");
    ScopedLogCapture capture(LOG_LEVEL_VERBOSE);
    StartServer();
    Start("echo", "3");
    Start("echo", "2");
    for (pid_t& peer : peers)
        EXPECT_EQ(ExitCode(peer), 0);
    EXPECT_GT(capture.CountContaining("Simulating access denied when opening client process handle"), 0u);
    EXPECT_GT(capture.CountContaining("useClientPipeHandle: true"), 0u);
    // Version 1 brings no pipe, so its call cannot be served.
    EXPECT_EQ(Run("v1"), 10 + KxIpcStatusInvalidParam);
    std::unique_lock<std::mutex> guard(server.lock);
    EXPECT_EQ(std::count(server.names.begin(), server.names.end(), u"tolvCommands"), 2);
    EXPECT_EQ(std::count(server.names.begin(), server.names.end(), u"stream2"), 1);
    guard.unlock();
    EXPECT_EQ(server.messages.value(), static_cast<int>(5 * MessageSizes(kPeerSection).size()));
    // Each link leaves the library when its client has closed it.
    EXPECT_TRUE(WaitUntil([&] { return lib->linkCount() == 0; }));
    ExpectNoDescriptorLeak();
}

TEST_F(RpcBootstrap, UninitClosesOpenLinksAndTheLibraryStartsAgainAndARejectedStreamReachesItsClient)
{
    StartServer();
    const size_t holder = Start("hold");
    ASSERT_TRUE(server.messages.waitFor(1));
    EXPECT_EQ(lib->linkCount(), 1u);
    EXPECT_EQ(lib->uninit(), KxIpcStatusSuccess);
    EXPECT_EQ(lib->linkCount(), 0u);
    EXPECT_EQ(ExitCode(peers[holder]), 0) << "the client did not see its link closed";
    EXPECT_NE(::access(KxIpclibReadyFilePath(runtime.path(), ep).c_str(), F_OK), 0);
    ASSERT_NO_FATAL_FAILURE(StartServer(true, lib));
    EXPECT_EQ(Run("v1"), 0);
    {
        std::lock_guard<std::mutex> guard(server.lock);
        server.rejectWith = KxIpcStatusAccessDenied;
    }
    EXPECT_EQ(Run("echo"), 10 + KxIpcStatusAccessDenied) << "the client was not refused as it should";
    EXPECT_EQ(lib->linkCount(), 0u);
    EXPECT_EQ(server.offered(), 3u);
    ExpectNoDescriptorLeak();
}

TEST_F(RpcBootstrap, ListenerFlagsStatesAndTheOrderOfCalls)
{
    lib = std::make_shared<KxIpclib>();
    Listen(ep, kLocal, KxIpcStatusInvalidState);  // before init
    StartServer(false);
    for (auto [flags, status] : {std::pair{0x0u, KxIpcStatusInvalidParam}, {0x20u, KxIpcStatusInvalidParam},
                                 {0x10u, KxIpcStatusNotImplemented}, {0x18u, KxIpcStatusNotImplemented},
                                 {0x28u, KxIpcStatusNotImplemented}, {kLocal, KxIpcStatusAlreadyExists}}) {
        SCOPED_TRACE(flags);
        Listen(flags == kLocal ? ep : NewEndpoint(), flags, status);
    }
    // Before accepting, no ready file, and a call is refused without reaching the application.
    EXPECT_EQ(KxIpclibWaitForReady(ep, 50ms), KxIpcStatusNotFound);
    EXPECT_EQ(Call(Request(ep, kV2), pipeRead.get()).status, KxIpcStatusInvalidState);
    EXPECT_EQ(server.offered(), 0u);

    EXPECT_EQ(listener->accepting(), KxIpcStatusSuccess);
    EXPECT_EQ(listener->accepting(), KxIpcStatusInvalidState);
    EXPECT_EQ(Run("echo"), 0);

    EXPECT_EQ(listener->close(), KxIpcStatusSuccess);
    EXPECT_EQ(listener->close(), KxIpcStatusInvalidState);
    // The closed listener left the library, so the endpoint is free again.
    listener = Listen(ep, kLocal);
    ASSERT_TRUE(listener);
    EXPECT_EQ(lib->uninit(), KxIpcStatusSuccess);
    EXPECT_EQ(listener->state(), KxIpclibListenerState::Closed);
    Listen(ep, kLocal, KxIpcStatusInvalidState);
    ExpectNoDescriptorLeak();
}

TEST_F(RpcBootstrap, HostileCallersNeitherCrashNorStallTheServerAndLeakNothingAndSilentOnesAreDropped)
{
    StartServer();
    std::vector<UniqueFd> silent;  // callers that connect and never send
    for (int i = 0; i < 64; ++i)
        silent.push_back(RawSocket());
    const auto v2 = Request(ep, kV2);
    auto wrongProc = v2;
    wrongProc[0] = 9;
    const std::tuple<const char*, std::vector<uint8_t>, int, uint32_t> cases[] = {
        {"truncated", std::vector<uint8_t>(v2.begin(), v2.begin() + 30), pipeRead.get(), kRpcStatusBadStubData},
        {"oversized", std::vector<uint8_t>(4000, 0xAB), -1, kRpcStatusBadStubData},
        {"procedure 9", wrongProc, pipeRead.get(), kRpcStatusProcNumOutOfRange},
        {"version 2 without its pipe", v2, -1, kRpcStatusBadStubData},
        {"version 1 with a descriptor", Request(ep, kV1), pipeRead.get(), kRpcStatusBadStubData},
        {"a socket where the pipe belongs", v2, silent[0].get(), kRpcStatusBadStubData},
    };
    for (const auto& [what, bytes, fd, rpcStatus] : cases)
        EXPECT_EQ(Call(bytes, fd).rpcStatus, rpcStatus) << what;
    {
        // Several descriptors at once: refused, and every one closed on the server.
        auto sock = RawSocket();
        const int three[3] = {pipeRead.get(), pipeRead.get(), pipeWrite.get()};
        ASSERT_TRUE(SendWithFds(sock.get(), v2.data(), v2.size(), three, 3));
        uint8_t reply[kBootstrapReplySize];
        pollfd wait{sock.get(), POLLIN, 0};
        ASSERT_EQ(::poll(&wait, 1, 30000), 1);
        ASSERT_EQ(::recv(sock.get(), reply, sizeof reply, 0), static_cast<ssize_t>(sizeof reply));
        KxIpclibBootstrapReply parsed;
        ASSERT_TRUE(parseBootstrapReply(reply, sizeof reply, parsed));
        EXPECT_EQ(parsed.rpcStatus, kRpcStatusBadStubData);
    }
    // Well-formed calls the server must refuse: an endpoint it does not serve...
    EXPECT_EQ(Call(Request(NewEndpoint(), kV2), pipeRead.get()).status, KxIpcStatusNotFound);
    EXPECT_EQ(server.offered(), 0u) << "a malformed call reached the application";
    // ...and a section of no bytes, which cannot be made (the stream was offered first).
    EXPECT_EQ(Call(Request(ep, kV2, 0), pipeRead.get()).status, KxIpcStatusInvalidParam);
    // With every silent caller still connected, a real client is served.
    EXPECT_EQ(Run("echo", "2"), 0);
    silent.clear();
    // A caller that sends nothing is dropped once the call time-out passes.
    KxIpclibLinkListenerRpcLinux::setCallTimeoutForTesting(100ms);
    auto sock = RawSocket();
    pollfd wait{sock.get(), POLLIN, 0};
    char byte;
    EXPECT_TRUE(::poll(&wait, 1, 30000) == 1 && ::recv(sock.get(), &byte, 1, 0) == 0) << "not closed, or answered";
    KxIpclibLinkListenerRpcLinux::setCallTimeoutForTesting(KxIpclibLinkListenerRpcLinux::kCallTimeout);
    sock.reset();
    ExpectNoDescriptorLeak();
}

TEST_F(RpcBootstrap, ALiveServerInAnotherProcessKeepsItsEndpointAndTheSocketItLeavesWhenKilledIsReused)
{
    const size_t old = Start("server");
    ASSERT_EQ(KxIpclibWaitForReady(ep, 30s), KxIpcStatusSuccess);
    const std::string socketPath = KxIpclibEndpointSocketPath(runtime.path(), ep);
    struct stat before {};
    struct stat after {};
    ASSERT_EQ(::stat(socketPath.c_str(), &before), 0);
    lib = std::make_shared<KxIpclib>();
    ASSERT_EQ(lib->init(0), KxIpcStatusSuccess);
    Listen(ep, kLocal, KxIpcStatusAlreadyExists);
    EXPECT_EQ(KxIpclibWaitForReady(ep, 1ms), KxIpcStatusSuccess) << "the refused start removed the ready file";
    ASSERT_EQ(::stat(socketPath.c_str(), &after), 0) << "the refused start removed the live server's socket";
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(Run("echo"), 0) << "the live server no longer takes callers";

    EXPECT_EQ(ExitCode(peers[old], true), 128 + SIGKILL);
    ASSERT_EQ(::access(socketPath.c_str(), F_OK), 0);
    StartServer(false);
    EXPECT_EQ(KxIpclibWaitForReady(ep, 1ms), KxIpcStatusNotFound) << "the dead server's ready file announced us";
    ASSERT_EQ(listener->accepting(), KxIpcStatusSuccess);
    EXPECT_EQ(Run("echo"), 0);
    ExpectNoDescriptorLeak();
    EXPECT_NE(::access(socketPath.c_str(), F_OK), 0) << "the closed listener left its socket behind";
}

TEST_F(RpcBootstrap, SectionSizeIsCappedBelowOneMebibyteAndAnySmallerOneCarriesEveryByteAndTheCallersIdsAreKept)
{
    StartServer();
    // A section far below the default carries a message over many transfers.
    for (auto [requested, used, size] : {std::tuple{0x100000u, 0xFFFFFu, 200000u}, {4096u, 4096u, 200000u},
                                         {100u, 100u, 1000u}}) {
        SCOPED_TRACE(requested);
        const auto data = PatternMessage(requested, 0, size);
        Counter echoes;
        KxIpclibClientOptions options;
        options.sectionSize = requested;
        auto echoed = [&](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
            if (msg->size() == data.size() && std::equal(data.begin(), data.end(), msg->data()))
                echoes.add();
        };
        auto client = KxIpclibClient::connect(ep, u"tolvCommands", echoed, options);
        ASSERT_TRUE(client) << client.error();
        EXPECT_EQ((*client)->sectionSize(), used);
        EXPECT_EQ((*client)->serverPid(), static_cast<uint32_t>(::getpid()));
        ASSERT_TRUE((*client)->firstStream()->send(0, size, data.data(), Ignore()));
        EXPECT_TRUE(echoes.waitFor(1));
        (*client)->firstStream()->close(5000ms);
        EXPECT_TRUE((*client)->close());
    }
    EXPECT_TRUE(WaitUntil([&] { return lib->linkCount() == 0; }));

    // A raw caller's link id, version and whole flags are kept.
    auto request = RequestFor(ep, kV2, 100);
    request.clientVersion = 3;
    request.clientLinkId = 0x4C00ABCD00000007ull;
    request.clientLinkFlags = 0x00050003;
    request.clientStreamFlags = 0x00070001;
    std::vector<UniqueFd> fds;
    const auto reply = Call(encodeBootstrapRequest(request), pipeRead.get(), &fds);
    ASSERT_EQ(reply.status, KxIpcStatusSuccess);
    EXPECT_EQ(fds.size(), kBootstrapReplyFds);
    EXPECT_EQ(reply.sectionSize, 100u);
    // Only what goes back to the caller loses the low 16 bits.
    EXPECT_EQ(reply.serverLinkFlags, 0x00050000u);
    EXPECT_EQ(reply.serverStreamFlags, 0x00070000u);
    auto stream = server.stream(3);  // after the three clients'
    ASSERT_TRUE(stream && stream->link() && server.offered() == 4);
    EXPECT_EQ(stream->flags().value(), 0x00070001u);
    EXPECT_FALSE(stream->isControl());
    EXPECT_EQ(stream->link()->peerLinkId(), 0x4C00ABCD00000007ull);
    EXPECT_EQ(stream->link()->peerVersion(), 3u);
    EXPECT_EQ(stream->link()->linkFlags(), 0x00050003u);
    // The raw caller lets go of its side; nothing of the link stays behind.
    stream.reset();
    fds.clear();
    ExpectNoDescriptorLeak();
}

// Real second processes on links made by the bootstrap.
class ShmLinkProcess : public RpcBootstrap {
protected:
    // Whether server stream `s` received every pattern message of the echo peer, in order.
    bool GotPattern(uint32_t s)
    {
        Messages want;
        for (uint32_t size : MessageSizes(kPeerSection))
            want.push_back(PatternMessage(s, static_cast<uint32_t>(want.size()), size));
        return server.received(s) == want;
    }
    std::shared_ptr<KxIpclibLinkSharedMemLinux> ServerLink(size_t stream)
    {
        auto s = server.stream(stream);
        return s ? std::dynamic_pointer_cast<KxIpclibLinkSharedMemLinux>(s->link()) : nullptr;
    }
};

TEST_F(ShmLinkProcess, AReceiveFunctionThatBlocksHoldsUpNoOtherStreamOrLink)
{
    // The first stream's receive function blocks, as a request on a slow drive
    // does, on whichever thread received it.
    Gate gate;
    Counter blocked;
    server.beforeEcho = [&](size_t s) {
        if (s == 0) {
            blocked.add();
            gate.pass();
        }
    };
    StartServer();
    const size_t first = Start("echo", "3");
    ASSERT_TRUE(blocked.waitFor(1));
    auto link = ServerLink(0);
    ASSERT_TRUE(link);
    // Meanwhile the link's other streams get every message echoed, and a second link is served whole.
    EXPECT_TRUE(WaitUntil([&] { return GotPattern(1) && GotPattern(2); }));
    EXPECT_EQ(Run("echo"), 0) << "the second link's peer saw a wrong echo or failed";
    EXPECT_EQ(server.received(0).size(), 1u);
    gate.open();
    EXPECT_EQ(ExitCode(peers[first]), 0) << "the peer saw a wrong echo or failed";
    EXPECT_TRUE(GotPattern(0));
    EXPECT_TRUE(WaitUntil([&] { return link->state() == KxIpclibLinkState::Closed; }));
}

TEST_F(ShmLinkProcess, APeerKilledMidStreamLeavesTheSurvivorShutDownAndNothingBehind)
{
    ScopedLogCapture quiet(LOG_LEVEL_ALWAYS);
    Gate hold;  // the peer waits for echoes it does not get, and cannot end on its own
    server.beforeEcho = [&](size_t) {
        if (server.messages.value() >= 3)
            hold.pass();
    };
    StartServer();
    const size_t peer = Start("echo", "3");
    ASSERT_TRUE(server.messages.waitFor(3));
    auto link = ServerLink(0);
    ASSERT_TRUE(link);
    EXPECT_EQ(ExitCode(peers[peer], true), 128 + SIGKILL);
    EXPECT_TRUE(WaitUntil([&] { return link->stopReason() == 3; }));
    EXPECT_NE(link->state(), KxIpclibLinkState::Connected);
    EXPECT_FALSE(KxIpclibLinkChannelSharedMemLinux::Consume(link->recvChannel()->errorEvent()));  // nobody to tell
    for (size_t s = 0; s < 3; ++s) {
        auto stream = server.stream(s);
        EXPECT_FALSE(stream && stream->send(0, 4, "late", Ignore()));
    }
    hold.open();
    link.reset();
    EXPECT_TRUE(server.waitEnds());
    ExpectNoDescriptorLeak();
}

// Registration: local counts, the module, and where the module is found.
class RpcRegistration : public RpcBootstrap {
protected:
    void SetUp() override
    {
        RpcBootstrap::SetUp();
        lib = std::make_shared<KxIpclib>();
        ASSERT_EQ(lib->init(0), KxIpcStatusSuccess);
    }
    void UseModule()
    {
        store.Put("HKLM/Software/Policies/Corvanta/Veltrane/KxIpc", "RpcRegLibPath", TOLV_RPC_TEST_MODULE);
        KxIpclibConfigResetForTesting();
    }
    // The module's state, once the library has loaded it.
    TestModuleState* Module()
    {
        void* handle = ::dlopen(TOLV_RPC_TEST_MODULE, RTLD_NOW | RTLD_NOLOAD);
        auto* state = handle ? static_cast<TestModuleState*>(::dlsym(handle, "testModule")) : nullptr;
        if (handle)
            ::dlclose(handle);
        return state;
    }
};

TEST_F(RpcRegistration, ModuleModeNeedsItsModuleAndIsNotMixedWithLocalListeners)
{
    store.Put("HKLM/Software/Corvanta/Veltrane/KxIpc", "RpcRegLibPath", "/nonexistent/libnothing.so");
    Listen(ep, kLocal | kModule, KxIpcStatusAccessDenied);
    EXPECT_EQ(KxIpclibRegisterCountsNow().module, 0u);
    auto first = Listen(ep, kLocal);  // local mode needs no module
    UseModule();
    auto second = Listen(NewEndpoint(), kLocal);
    EXPECT_EQ(KxIpclibRegisterCountsNow().local, 2u);
    Listen(NewEndpoint(), kLocal | kModule, KxIpcStatusAccessDenied);
    EXPECT_EQ(first->close(), KxIpcStatusSuccess);
    EXPECT_EQ(KxIpclibRegisterCountsNow().local, 1u);
    EXPECT_EQ(second->close(), KxIpcStatusSuccess);
    EXPECT_EQ(KxIpclibRegisterCountsNow().local, 0u);
    // A module that already serves the interface keeps local listeners out.
    auto* module = Module();
    ASSERT_NE(module, nullptr);
    module->reportRegistered = true;  // only this thread uses the module now
    Listen(NewEndpoint(), kLocal, KxIpcStatusAccessDenied);
    module->reportRegistered = false;
    EXPECT_EQ(KxIpclibRegisterCountsNow().local, 0u);
}

TEST_F(RpcRegistration, TheModuleServesItsEndpointThroughTheCallbackWhichReportsAReplyThatCouldNotBeSent)
{
    UseModule();
    listener = Listen(ep, kLocal | kModule);
    ASSERT_TRUE(listener);
    EXPECT_EQ(KxIpclibRegisterCountsNow().module, 1u);
    Listen(NewEndpoint(), kLocal, KxIpcStatusAccessDenied);  // no local listener beside the module
    ASSERT_EQ(listener->accepting(), KxIpcStatusSuccess);
    EXPECT_EQ(Run("echo", "2"), 0);

    auto* module = Module();
    ASSERT_NE(module, nullptr);
    std::unique_lock<std::mutex> guard(module->mutex);
    size_t next = module->results.size();  // the module stays loaded across tests
    const int unregistered = module->unregisters;
    guard.unlock();
    auto callbackResult = [&] {
        std::unique_lock<std::mutex> lock(module->mutex);
        const bool came = module->changed.wait_for(lock, 30s, [&] { return module->results.size() > next; });
        EXPECT_TRUE(came) << "the module's call did not return";
        return came ? module->results[next++] : 0xFFFFFFFF;
    };
    const auto v2 = Request(ep, kV2);
    const std::vector<uint8_t> truncated(v2.begin(), v2.begin() + 30);
    // A reply that reaches its caller: 0, even when it refuses the call.
    EXPECT_EQ(Call(truncated, -1).rpcStatus, kRpcStatusBadStubData);
    EXPECT_EQ(callbackResult(), kSysSuccess);
    // A caller that shut its receiving side: the reply fails with EPIPE.
    const size_t offered = server.offered();
    auto deafCall = [&](const std::vector<uint8_t>& bytes) {
        auto sock = RawSocket();
        EXPECT_EQ(::shutdown(sock.get(), SHUT_RD), 0);
        const auto sent = ::send(sock.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        EXPECT_EQ(sent, static_cast<ssize_t>(bytes.size()));
        return callbackResult();
    };
    EXPECT_EQ(deafCall(truncated), SystemStatusFromErrno(EPIPE)) << "a refusal that was not delivered";
    EXPECT_EQ(deafCall(Request(ep, kV1)), SystemStatusFromErrno(EPIPE)) << "a link its caller never learns of";
    EXPECT_EQ(server.offered(), offered + 1) << "the second deaf call did not reach the application";
    EXPECT_EQ(listener->close(), KxIpcStatusSuccess);
    EXPECT_EQ(KxIpclibRegisterCountsNow().module, 0u);
    guard.lock();
    EXPECT_EQ(module->unregisters, unregistered + 1);
}

TEST_F(RpcRegistration, TheModulePathComesFromPolicyThenRegistryThenTheExecutablesFolder)
{
    const std::string exeDir = GetExePath();
    ASSERT_FALSE(exeDir.empty());
    EXPECT_EQ(GetRpcServerDllPath(), exeDir + "libipclibRpc-dynamic-md.so");
    EXPECT_EQ(::access(GetRpcServerDllPath().c_str(), F_OK), 0) << "the test module is built beside the tests";
    // Each key written outranks the ones before it; a relative value is taken
    // from the executable's folder.
    const std::pair<std::string, std::string> keys[] = {
        {"Pelloran, Inc./Pelloran Orvik", "legacy-local.so"},
        {"Corvanta/Veltrane", "/opt/local.so"},
        {"Policies/Pelloran, Inc./Pelloran Orvik", "/opt/legacy-policy.so"},
        {"Policies/Corvanta/Veltrane", "/opt/policy.so"},
    };
    for (const auto& [key, path] : keys) {
        store.Put("HKLM/Software/" + key + "/KxIpc", "RpcRegLibPath", path);
        KxIpclibConfigResetForTesting();
        EXPECT_EQ(GetRpcServerDllPath(), path[0] == '/' ? path : exeDir + path) << key;
    }
    // Cached: a later change is not seen.
    store.Put("HKLM/Software/Policies/Corvanta/Veltrane/KxIpc", "RpcRegLibPath", "/opt/changed.so");
    EXPECT_EQ(GetRpcServerDllPath(), "/opt/policy.so");
}
