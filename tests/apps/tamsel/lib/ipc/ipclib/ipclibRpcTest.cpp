// The library object, its listeners and the bootstrap, with clients in other
// processes (rpcPeer) and hostile callers on raw sockets.

#include "common/ProcessProbe.h"
#include <tamsel/ipc/ipclib.h>
#include <tamsel/ipc/ipclibClient.h>
#include "apps/tamsel/lib/ipc/ipclib/ipclibConfig.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibLink.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkListenerRpcLinux.h"
#include <tamsel/ipc/ipclibStream.h>
#include "task/TaskTestSupport.h"

#include "common/LogCapture.h"
#include "common/TempDir.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <thread>

using namespace tolv::log;

extern char** environ;

using namespace tamsel::ipc;
using namespace std::chrono_literals;

namespace {

constexpr uint32_t kLocal = 0x8;

_GUID NewEndpoint()
{
    static std::atomic<uint32_t> counter{1};
    return _GUID{static_cast<uint32_t>(::getpid()), static_cast<uint16_t>(counter++), 0x4242,
                 {0x90, 0xa2, 0x9c, 0x69, 0xdf, 0xd8, 0xe7, 0x28}};
}

void WriteValue(const std::string& root, const std::string& key, const std::string& value, const std::string& text)
{
    std::string dir = root;
    size_t start = 0;
    while (start <= key.size()) {
        const size_t slash = key.find('/', start);
        dir += "/" + key.substr(start, slash - start);
        ::mkdir(dir.c_str(), 0700);
        if (slash == std::string::npos)
            break;
        start = slash + 1;
    }
    std::ofstream(dir + "/" + value) << text << "\n";
}

// Accepts every stream and echoes every message; remembers the names it saw.
// Streams are held weakly, as an application should: their links own them,
// and the executor's end waits for every stream to be gone.
struct EchoServer {
    std::mutex lock;
    std::vector<std::weak_ptr<KxIpclibStream>> streams;
    std::vector<std::u16string> names;
    Counter messages;
    KxIpcStatusCode rejectWith = KxIpcStatusSuccess;

    size_t offered()
    {
        std::lock_guard<std::mutex> guard(lock);
        return names.size();
    }

    void onConnect(std::shared_ptr<KxIpclibStream> stream)
    {
        {
            std::lock_guard<std::mutex> guard(lock);
            names.push_back(stream->name());
            if (rejectWith != KxIpcStatusSuccess) {
                stream->reject(rejectWith);
                return;
            }
            streams.push_back(stream);
        }
        std::weak_ptr<KxIpclibStream> weak = stream;
        stream->accept(Flags<KxIpclibStreamFlag>(), [this, weak](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
            auto self = weak.lock();
            if (!self)
                return;
            if (msg->size() == 0) {
                self->close(std::chrono::milliseconds::max());
                return;
            }
            self->send(0, msg->size(), msg->data(), [msg](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
            messages.add();
        });
    }
};

class RpcBootstrap : public ::testing::Test {
protected:
    void SetUp() override
    {
        ::setenv("IPCLIB_RUNTIME_DIR", runtime.path().c_str(), 1);
        ::setenv("LXREG_ROOT", store.path().c_str(), 1);
        KxIpclibConfigResetForTesting();
        descriptors = OpenDescriptors();
    }

    void TearDown() override
    {
        for (pid_t pid : peers)
            if (pid > 0) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, nullptr, 0);
            }
        if (lib)
            lib->uninit();
        listener.reset();
        lib.reset();
        ::unsetenv("IPCLIB_RUNTIME_DIR");
        ::unsetenv("LXREG_ROOT");
    }

    void StartServer(uint32_t flags = kLocal, bool accept = true)
    {
        lib = std::make_shared<KxIpclib>();
        ASSERT_EQ(lib->init(0), KxIpcStatusSuccess);
        auto l = lib->listen(ep, Flags<KxIpclibListenerFlag>(flags),
                             [this](std::shared_ptr<KxIpclibStream> s) { server.onConnect(std::move(s)); }, nullptr);
        ASSERT_TRUE(l) << l.error();
        listener = *l;
        if (accept) {
            ASSERT_EQ(listener->accepting(), KxIpcStatusSuccess);
        }
    }

    size_t Spawn(const std::vector<std::string>& args)
    {
        std::vector<std::string> all = {TOLV_RPC_PEER_PATH};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& a : all)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        pid_t pid = -1;
        EXPECT_EQ(::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ), 0);
        peers.push_back(pid);
        return peers.size() - 1;
    }

    std::string EpText() const { return fmt::format("{}", ep); }

    int Wait(size_t peer)
    {
        int status = 0;
        if (::waitpid(peers[peer], &status, 0) != peers[peer])
            return -1;
        peers[peer] = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    void ExpectNoDescriptorLeak()
    {
        if (lib) {
            EXPECT_EQ(lib->uninit(), KxIpcStatusSuccess);
        }
        listener.reset();
        lib.reset();
        // The last link or stream to go releases the executor from its own task.
        EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() == descriptors; }))
            << OpenDescriptors() << " descriptors open, " << descriptors << " before";
    }

    TempDir runtime;
    TempDir store;
    _GUID ep = NewEndpoint();
    size_t descriptors = 0;
    std::shared_ptr<KxIpclib> lib;
    std::shared_ptr<KxIpclibListener> listener;
    std::vector<pid_t> peers;
    EchoServer server;
};

// A raw bootstrap call from this process.
struct RawCall {
    KxIpclibBootstrapReply reply;
    std::vector<tolv::platform::UniqueFd> fds;
    KxIpcStatusCode transport = KxIpcStatusUnexpected;
};

RawCall Call(const _GUID& ep, const std::vector<uint8_t>& bytes, int pipeFd)
{
    RawCall call;
    call.transport = KxIpclibCallBootstrap(ep, bytes, pipeFd, 30s, call.reply, call.fds);
    return call;
}

KxIpclibBootstrapRequest Request(const _GUID& ep, KxIpclibBootstrapProc proc, uint32_t sectionSize = 65536)
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

} // namespace

TEST_F(RpcBootstrap, PeersOnSeveralLinksAndStreamsGetEveryEchoBack)
{
    StartServer();
    const size_t a = Spawn({"echo", EpText(), "3"});
    const size_t b = Spawn({"echo", EpText(), "2"});
    const size_t c = Spawn({"v1", EpText()});
    EXPECT_EQ(Wait(a), 0);
    EXPECT_EQ(Wait(b), 0);
    EXPECT_EQ(Wait(c), 0);
    {
        std::lock_guard<std::mutex> guard(server.lock);
        EXPECT_EQ(server.streams.size(), 6u);
        EXPECT_EQ(std::count(server.names.begin(), server.names.end(), u"tolvCommands"), 3);
        EXPECT_EQ(std::count(server.names.begin(), server.names.end(), u"stream2"), 1);
    }
    EXPECT_EQ(server.messages.value(), 6 * 4);
    // Each link leaves the library when its client has closed it.
    EXPECT_TRUE(WaitUntil([&] { return lib->linkCount() == 0; }));
    ExpectNoDescriptorLeak();
}

TEST_F(RpcBootstrap, ARejectedStreamReachesTheClientAsAccessDenied)
{
    server.rejectWith = KxIpcStatusAccessDenied;
    StartServer();
    EXPECT_EQ(Wait(Spawn({"refused", EpText(), "7"})), 0);
    EXPECT_EQ(lib->linkCount(), 0u);
    std::lock_guard<std::mutex> guard(server.lock);
    EXPECT_EQ(server.names.size(), 1u);
}

TEST_F(RpcBootstrap, UninitClosesOpenLinksAndTheLibraryStartsAgain)
{
    StartServer();
    const size_t holder = Spawn({"hold", EpText()});
    ASSERT_TRUE(server.messages.waitFor(1));
    EXPECT_EQ(lib->linkCount(), 1u);
    EXPECT_EQ(lib->uninit(), KxIpcStatusSuccess);
    EXPECT_EQ(lib->state(), KxIpclibState::Init);
    EXPECT_EQ(lib->linkCount(), 0u);
    EXPECT_EQ(Wait(holder), 0) << "the client did not see its link closed";
    EXPECT_FALSE(::access(KxIpclibReadyFilePath(runtime.path(), ep).c_str(), F_OK) == 0);

    ASSERT_EQ(lib->init(0), KxIpcStatusSuccess);
    auto again = lib->listen(ep, Flags<KxIpclibListenerFlag>(kLocal),
                             [this](std::shared_ptr<KxIpclibStream> s) { server.onConnect(std::move(s)); }, nullptr);
    ASSERT_TRUE(again);
    ASSERT_EQ((*again)->accepting(), KxIpcStatusSuccess);
    EXPECT_EQ(Wait(Spawn({"echo", EpText(), "1"})), 0);
    again->reset();
    ExpectNoDescriptorLeak();
}

TEST_F(RpcBootstrap, ListenerFlagsStatesAndTheOrderOfCalls)
{
    auto early = std::make_shared<KxIpclib>();
    EXPECT_EQ(early->listen(ep, Flags<KxIpclibListenerFlag>(kLocal), [](std::shared_ptr<KxIpclibStream>) {}, nullptr)
                  .error(),
              KxIpcStatusInvalidState);
    StartServer(kLocal, false);
    for (auto [flags, status] : {std::pair{0x0u, KxIpcStatusInvalidParam}, {0x20u, KxIpcStatusInvalidParam},
                                 {0x10u, KxIpcStatusNotImplemented}, {0x18u, KxIpcStatusNotImplemented},
                                 {0x28u, KxIpcStatusNotImplemented}})
        EXPECT_EQ(lib->listen(NewEndpoint(), Flags<KxIpclibListenerFlag>(flags), [](std::shared_ptr<KxIpclibStream>) {},
                              nullptr)
                      .error(),
                  status)
            << flags;
    EXPECT_EQ(lib->listen(ep, Flags<KxIpclibListenerFlag>(kLocal), [](std::shared_ptr<KxIpclibStream>) {}, nullptr).error(),
              KxIpcStatusAlreadyExists);

    // Before accepting, no ready file, and a call is refused without reaching the application.
    EXPECT_EQ(KxIpclibWaitForReady(ep, 50ms), KxIpcStatusNotFound);
    int pipe[2];
    ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
    tolv::platform::UniqueFd pr(pipe[0]), pw(pipe[1]);
    auto early_call = Call(ep, encodeBootstrapRequest(Request(ep, KxIpclibBootstrapProc::CreateSharedMemoryLinkV2)), pr.get());
    ASSERT_EQ(early_call.transport, KxIpcStatusSuccess);
    EXPECT_EQ(early_call.reply.status, KxIpcStatusInvalidState);
    EXPECT_TRUE(early_call.fds.empty());
    EXPECT_EQ(server.offered(), 0u);

    EXPECT_EQ(listener->accepting(), KxIpcStatusSuccess);
    EXPECT_EQ(listener->accepting(), KxIpcStatusInvalidState);
    EXPECT_EQ(KxIpclibWaitForReady(ep, 1ms), KxIpcStatusSuccess);
    EXPECT_EQ(listener->close(), KxIpcStatusSuccess);
    EXPECT_EQ(listener->close(), KxIpcStatusInvalidState);
    EXPECT_EQ(listener->state(), KxIpclibListenerState::Closed);
    // The closed listener left the library, so the endpoint is free again.
    auto reopened = lib->listen(ep, Flags<KxIpclibListenerFlag>(kLocal), [](std::shared_ptr<KxIpclibStream>) {}, nullptr);
    ASSERT_TRUE(reopened);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(lib->uninit(), KxIpcStatusSuccess);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 5s) << "uninit without links must not wait";
    EXPECT_EQ((*reopened)->state(), KxIpclibListenerState::Closed);
    EXPECT_EQ(lib->listen(ep, Flags<KxIpclibListenerFlag>(kLocal), [](std::shared_ptr<KxIpclibStream>) {}, nullptr).error(),
              KxIpcStatusInvalidState);
}

TEST_F(RpcBootstrap, ASecondListenerOnOneEndpointIsRefusedAndTheFirstKeepsServing)
{
    StartServer();
    auto other = std::make_shared<KxIpclib>();
    ASSERT_EQ(other->init(0), KxIpcStatusSuccess);
    EXPECT_EQ(other->listen(ep, Flags<KxIpclibListenerFlag>(kLocal), [](std::shared_ptr<KxIpclibStream>) {}, nullptr)
                  .error(),
              KxIpcStatusAlreadyExists);
    EXPECT_EQ(other->uninit(), KxIpcStatusSuccess);
    EXPECT_EQ(KxIpclibWaitForReady(ep, 1ms), KxIpcStatusSuccess) << "the refused listener removed the ready file";
    EXPECT_EQ(Wait(Spawn({"echo", EpText(), "1"})), 0);
    ExpectNoDescriptorLeak();
}

TEST_F(RpcBootstrap, HostileCallersNeitherCrashNorStallTheServerAndLeakNothing)
{
    StartServer();
    const std::string path = KxIpclibEndpointSocketPath(runtime.path(), ep);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    // Callers that connect and never send.
    std::vector<tolv::platform::UniqueFd> silent;
    for (int i = 0; i < 64; ++i) {
        silent.emplace_back(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        ASSERT_EQ(::connect(silent.back().get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    }
    int p[2];
    ASSERT_EQ(::pipe2(p, O_CLOEXEC), 0);
    tolv::platform::UniqueFd pr(p[0]), pw(p[1]);
    const auto v2 = encodeBootstrapRequest(Request(ep, KxIpclibBootstrapProc::CreateSharedMemoryLinkV2));
    const auto v1 = encodeBootstrapRequest(Request(ep, KxIpclibBootstrapProc::CreateSharedMemoryLink));

    auto expectRpc = [&](const std::vector<uint8_t>& bytes, int fd, uint32_t rpcStatus, const char* what) {
        auto call = Call(ep, bytes, fd);
        ASSERT_EQ(call.transport, KxIpcStatusSuccess) << what;
        EXPECT_EQ(call.reply.rpcStatus, rpcStatus) << what;
        EXPECT_TRUE(call.fds.empty()) << what;
    };
    expectRpc(std::vector<uint8_t>(v2.begin(), v2.begin() + 30), pr.get(), kRpcStatusBadStubData, "truncated");
    expectRpc(std::vector<uint8_t>(4000, 0xAB), -1, kRpcStatusBadStubData, "oversized");
    auto wrongProc = v2;
    wrongProc[0] = 9;
    expectRpc(wrongProc, pr.get(), kRpcStatusProcNumOutOfRange, "procedure 9");
    auto longName = Request(ep, KxIpclibBootstrapProc::CreateSharedMemoryLink);
    longName.streamName.assign(513, u'n');
    expectRpc(encodeBootstrapRequest(longName), -1, kRpcStatusBadStubData, "513 units");
    expectRpc(v2, -1, kRpcStatusBadStubData, "version 2 without its pipe");
    expectRpc(v1, pr.get(), kRpcStatusBadStubData, "version 1 with a descriptor");
    expectRpc(v2, silent[0].get(), kRpcStatusBadStubData, "a socket where the pipe belongs");
    {
        // Several descriptors at once: refused, and every one closed on the server.
        tolv::platform::UniqueFd sock(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        ASSERT_EQ(::connect(sock.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        int three[3] = {pr.get(), pr.get(), pw.get()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof three)] = {};
        iovec io{const_cast<uint8_t*>(v2.data()), v2.size()};
        msghdr msg{};
        msg.msg_iov = &io;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        cmsghdr* c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof three);
        std::memcpy(CMSG_DATA(c), three, sizeof three);
        ASSERT_EQ(::sendmsg(sock.get(), &msg, MSG_NOSIGNAL), static_cast<ssize_t>(v2.size()));
        uint8_t reply[kBootstrapReplySize];
        pollfd wait{sock.get(), POLLIN, 0};
        ASSERT_EQ(::poll(&wait, 1, 30000), 1);
        ASSERT_EQ(::recv(sock.get(), reply, sizeof reply, 0), static_cast<ssize_t>(sizeof reply));
        KxIpclibBootstrapReply parsed;
        ASSERT_TRUE(parseBootstrapReply(reply, sizeof reply, parsed));
        EXPECT_EQ(parsed.rpcStatus, kRpcStatusBadStubData);
    }
    // Well-formed calls the server must refuse.
    auto unknown = Call(ep, encodeBootstrapRequest(Request(NewEndpoint(), KxIpclibBootstrapProc::CreateSharedMemoryLinkV2)),
                        pr.get());
    ASSERT_EQ(unknown.transport, KxIpcStatusSuccess);
    EXPECT_EQ(unknown.reply.status, KxIpcStatusNotFound);
    EXPECT_EQ(server.offered(), 0u) << "no malformed call reached the application";
    // A section of no bytes cannot be made; the stream was offered first.
    auto empty = Call(ep, encodeBootstrapRequest(Request(ep, KxIpclibBootstrapProc::CreateSharedMemoryLinkV2, 0)), pr.get());
    ASSERT_EQ(empty.transport, KxIpcStatusSuccess);
    EXPECT_EQ(empty.reply.status, KxIpcStatusInvalidParam);
    EXPECT_TRUE(empty.fds.empty());

    // With every silent caller still connected, a real client is served.
    EXPECT_EQ(Wait(Spawn({"echo", EpText(), "2"})), 0);
    silent.clear();
    pr.reset();
    pw.reset();
    ExpectNoDescriptorLeak();
}

TEST_F(RpcBootstrap, ACallerThatSendsNothingIsDroppedAfterTheCallTimeOut)
{
    KxIpclibLinkListenerRpcLinux::setCallTimeoutForTesting(100ms);
    StartServer();
    const std::string path = KxIpclibEndpointSocketPath(runtime.path(), ep);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    tolv::platform::UniqueFd sock(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::connect(sock.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    pollfd wait{sock.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&wait, 1, 30000), 1);
    char byte;
    EXPECT_EQ(::recv(sock.get(), &byte, 1, 0), 0) << "the server closed the connection without a reply";
    KxIpclibLinkListenerRpcLinux::setCallTimeoutForTesting(KxIpclibLinkListenerRpcLinux::kCallTimeout);
}

TEST_F(RpcBootstrap, AStaleSocketLeftByAKilledServerIsRemovedAndReused)
{
    const size_t old = Spawn({"server", EpText()});
    ASSERT_EQ(KxIpclibWaitForReady(ep, 30s), KxIpcStatusSuccess);
    ::kill(peers[old], SIGKILL);
    EXPECT_EQ(Wait(old), 128 + SIGKILL);
    const std::string socketPath = KxIpclibEndpointSocketPath(runtime.path(), ep);
    ASSERT_EQ(::access(socketPath.c_str(), F_OK), 0);
    StartServer(kLocal, false);
    EXPECT_EQ(KxIpclibWaitForReady(ep, 1ms), KxIpcStatusNotFound) << "the dead server's ready file announced us";
    ASSERT_EQ(listener->accepting(), KxIpcStatusSuccess);
    EXPECT_EQ(Wait(Spawn({"echo", EpText(), "1"})), 0);
    ExpectNoDescriptorLeak();
    EXPECT_NE(::access(socketPath.c_str(), F_OK), 0) << "the closed listener left its socket behind";
}

TEST_F(RpcBootstrap, AStartRefusedByALiveServerInAnotherProcessLeavesItsSocketAndReadyFileAlone)
{
    Spawn({"server", EpText()});
    ASSERT_EQ(KxIpclibWaitForReady(ep, 30s), KxIpcStatusSuccess);
    const std::string socketPath = KxIpclibEndpointSocketPath(runtime.path(), ep);
    struct stat before {};
    ASSERT_EQ(::stat(socketPath.c_str(), &before), 0);

    lib = std::make_shared<KxIpclib>();
    ASSERT_EQ(lib->init(0), KxIpcStatusSuccess);
    auto refused = lib->listen(ep, Flags<KxIpclibListenerFlag>(kLocal), [](std::shared_ptr<KxIpclibStream>) {},
                               nullptr);
    EXPECT_FALSE(refused);
    EXPECT_EQ(KxIpclibWaitForReady(ep, 1ms), KxIpcStatusSuccess) << "the refused start removed the ready file";
    struct stat after {};
    ASSERT_EQ(::stat(socketPath.c_str(), &after), 0) << "the refused start removed the live server's socket";
    EXPECT_EQ(after.st_ino, before.st_ino);
    // And the live server still takes callers.
    EXPECT_EQ(Wait(Spawn({"echo", EpText(), "1"})), 0);
}

TEST_F(RpcBootstrap, SectionSizeIsCappedBelowOneMebibyte)
{
    StartServer();
    for (auto [requested, used] : {std::pair{0x100000u, 0xFFFFFu}, {4096u, 4096u}}) {
        Counter echoes;
        KxIpclibClientOptions options;
        options.sectionSize = requested;
        auto client = KxIpclibClient::connect(ep, u"tolvCommands",
                                              [&](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
                                                  if (msg->size() == 200000)
                                                      echoes.add();
                                              },
                                              options);
        ASSERT_TRUE(client) << client.error();
        EXPECT_EQ((*client)->sectionSize(), used);
        EXPECT_EQ((*client)->serverPid(), static_cast<uint32_t>(::getpid()));
        std::vector<uint8_t> big(200000, 0x5A);
        ASSERT_TRUE((*client)->firstStream()->send(0, static_cast<uint32_t>(big.size()), big.data(),
                                                   [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {}));
        EXPECT_TRUE(echoes.waitFor(1));
        (*client)->firstStream()->close(5000ms);
        EXPECT_TRUE((*client)->close());
    }
    EXPECT_TRUE(WaitUntil([&] { return lib->linkCount() == 0; }));
}

TEST_F(RpcBootstrap, TheCallersLinkIdVersionAndWholeFlagsAreKeptAndAnySectionSizeIsServed)
{
    StartServer();
    int p[2];
    ASSERT_EQ(::pipe2(p, O_CLOEXEC), 0);
    tolv::platform::UniqueFd pipeRead(p[0]), pipeWrite(p[1]);
    auto request = Request(ep, KxIpclibBootstrapProc::CreateSharedMemoryLinkV2, 100);
    request.clientVersion = 3;
    request.clientLinkId = 0x4C00ABCD00000007ull;
    request.clientLinkFlags = 0x00050003;
    request.clientStreamFlags = 0x00070001;
    auto call = Call(ep, encodeBootstrapRequest(request), pipeRead.get());
    ASSERT_EQ(call.transport, KxIpcStatusSuccess);
    ASSERT_EQ(call.reply.status, KxIpcStatusSuccess);
    EXPECT_EQ(call.reply.sectionSize, 100u);
    // Only what goes back to the caller loses the low 16 bits.
    EXPECT_EQ(call.reply.serverLinkFlags, 0x00050000u);
    EXPECT_EQ(call.reply.serverStreamFlags, 0x00070000u);
    std::shared_ptr<KxIpclibStream> stream;
    {
        std::lock_guard<std::mutex> guard(server.lock);
        ASSERT_EQ(server.streams.size(), 1u);
        stream = server.streams[0].lock();
    }
    ASSERT_TRUE(stream);
    EXPECT_EQ(stream->flags().value(), 0x00070001u);
    EXPECT_FALSE(stream->isControl());
    auto link = stream->link();
    ASSERT_TRUE(link);
    EXPECT_EQ(link->peerLinkId(), 0x4C00ABCD00000007ull);
    EXPECT_EQ(link->peerVersion(), 3u);
    EXPECT_EQ(link->linkFlags(), 0x00050003u);
    link.reset();
    stream.reset();

    // A section far below the default still carries messages both ways, each
    // over many transfers.
    Counter echoes;
    KxIpclibClientOptions options;
    options.sectionSize = 100;
    auto client = KxIpclibClient::connect(ep, u"tolvCommands",
                                          [&](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
                                              if (msg->size() == 1000 && msg->data()[999] == 0x3C)
                                                  echoes.add();
                                          },
                                          options);
    ASSERT_TRUE(client) << client.error();
    EXPECT_EQ((*client)->sectionSize(), 100u);
    std::vector<uint8_t> data(1000, 0x3C);
    ASSERT_TRUE((*client)->firstStream()->send(0, static_cast<uint32_t>(data.size()), data.data(),
                                               [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {}));
    EXPECT_TRUE(echoes.waitFor(1));
    EXPECT_TRUE((*client)->close());
    client->reset();
    // The raw caller lets go of its side; nothing of either link stays behind.
    call.fds.clear();
    pipeRead.reset();
    pipeWrite.reset();
    ExpectNoDescriptorLeak();
}

TEST_F(RpcBootstrap, ADeniedProcessHandleFallsBackToTheClientPipe)
{
    // Key and value names are matched without regard to case.
    WriteValue(store.path(), "HKLM/software/CORVANTA/Veltrane/kxipc", "denyclientprocesshandleuseonserver", "0x1");
    ScopedLogCapture capture(LOG_LEVEL_VERBOSE);
    StartServer();
    EXPECT_EQ(Wait(Spawn({"echo", EpText(), "1"})), 0);
    EXPECT_GT(capture.CountContaining("Simulating access denied when opening client process handle"), 0u);
    EXPECT_GT(capture.CountContaining("useClientPipeHandle: true"), 0u);
    // Version 1 brings no pipe, so the call cannot be served.
    KxIpclibClientOptions options;
    options.procedure = KxIpclibBootstrapProc::CreateSharedMemoryLink;
    auto v1 = KxIpclibClient::connect(ep, u"tolvCommands", [](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {}, options);
    ASSERT_FALSE(v1);
    EXPECT_EQ(v1.error(), KxIpcStatusInvalidParam);
    EXPECT_TRUE(WaitUntil([&] { return lib->linkCount() == 0; }));
}

// Registration: local counts, the module, and where the module is found.

class RpcRegistration : public RpcBootstrap {
protected:
    std::shared_ptr<KxIpclibListener> Listen(const std::shared_ptr<KxIpclib>& library, const _GUID& endpoint,
                                             uint32_t flags, KxIpcStatusCode expected = KxIpcStatusSuccess)
    {
        auto l = library->listen(endpoint, Flags<KxIpclibListenerFlag>(flags),
                                 [this](std::shared_ptr<KxIpclibStream> s) { server.onConnect(std::move(s)); }, nullptr);
        EXPECT_EQ(l ? KxIpcStatusSuccess : l.error(), expected);
        return l ? *l : nullptr;
    }
    void UseModule() { WriteValue(store.path(), "HKLM/Software/Policies/Corvanta/Veltrane/KxIpc", "RpcRegLibPath", TOLV_RPC_TEST_MODULE); }
    template <typename Fn>
    Fn Hook(const char* name)
    {
        void* handle = ::dlopen(TOLV_RPC_TEST_MODULE, RTLD_NOW | RTLD_NOLOAD);
        EXPECT_NE(handle, nullptr);
        Fn fn = handle ? reinterpret_cast<Fn>(::dlsym(handle, name)) : nullptr;
        if (handle)
            ::dlclose(handle);
        return fn;
    }
};

TEST_F(RpcRegistration, LocalListenersCountAndModuleModeIsNotMixedIn)
{
    UseModule();
    lib = std::make_shared<KxIpclib>();
    ASSERT_EQ(lib->init(0), KxIpcStatusSuccess);
    auto first = Listen(lib, ep, kLocal);
    auto second = Listen(lib, NewEndpoint(), kLocal);
    EXPECT_EQ(KxIpclibRegisterCountsNow().local, 2u);
    Listen(lib, NewEndpoint(), kLocal | 0x40, KxIpcStatusAccessDenied);
    EXPECT_EQ(first->close(), KxIpcStatusSuccess);
    EXPECT_EQ(KxIpclibRegisterCountsNow().local, 1u);
    EXPECT_EQ(second->close(), KxIpcStatusSuccess);
    EXPECT_EQ(KxIpclibRegisterCountsNow().local, 0u);
    // A module that already serves the interface keeps local listeners out.
    auto setRegistered = Hook<void (*)(uint8_t)>("TestModuleSetRegistered");
    ASSERT_NE(setRegistered, nullptr);
    setRegistered(1);
    Listen(lib, NewEndpoint(), kLocal, KxIpcStatusAccessDenied);
    setRegistered(0);
    EXPECT_EQ(KxIpclibRegisterCountsNow().local, 0u);
}

TEST_F(RpcRegistration, TheModuleServesItsEndpointThroughTheCallback)
{
    UseModule();
    lib = std::make_shared<KxIpclib>();
    ASSERT_EQ(lib->init(0), KxIpcStatusSuccess);
    listener = Listen(lib, ep, kLocal | 0x40);
    ASSERT_TRUE(listener);
    EXPECT_EQ(KxIpclibRegisterCountsNow().module, 1u);
    Listen(lib, NewEndpoint(), kLocal, KxIpcStatusAccessDenied);  // no local listener beside the module
    ASSERT_EQ(listener->accepting(), KxIpcStatusSuccess);
    EXPECT_EQ(Wait(Spawn({"echo", EpText(), "2"})), 0);
    EXPECT_EQ(listener->close(), KxIpcStatusSuccess);
    EXPECT_EQ(KxIpclibRegisterCountsNow().module, 0u);
    auto unregisters = Hook<int (*)()>("TestModuleUnregisterCalls");
    ASSERT_NE(unregisters, nullptr);
    EXPECT_EQ(unregisters(), 1);
}

TEST_F(RpcRegistration, TheCallbackReportsAReplyThatCouldNotBeSent)
{
    UseModule();
    lib = std::make_shared<KxIpclib>();
    ASSERT_EQ(lib->init(0), KxIpcStatusSuccess);
    listener = Listen(lib, ep, kLocal | 0x40);
    ASSERT_TRUE(listener);
    ASSERT_EQ(listener->accepting(), KxIpcStatusSuccess);
    auto count = Hook<size_t (*)()>("TestModuleCallbackCount");
    auto result = Hook<bool (*)(size_t, int, uint32_t*)>("TestModuleCallbackResult");
    ASSERT_NE(count, nullptr);
    ASSERT_NE(result, nullptr);
    size_t next = count();  // the module stays loaded across cases
    auto callbackResult = [&] {
        uint32_t r = 0xFFFFFFFF;
        EXPECT_TRUE(result(next++, 30000, &r)) << "the module's call did not return";
        return r;
    };
    const auto malformed = encodeBootstrapRequest(Request(ep, KxIpclibBootstrapProc::CreateSharedMemoryLinkV2));
    const std::vector<uint8_t> truncated(malformed.begin(), malformed.begin() + 30);

    // A reply that reaches its caller: 0, even when it refuses the call.
    auto answered = Call(ep, truncated, -1);
    ASSERT_EQ(answered.transport, KxIpcStatusSuccess);
    EXPECT_EQ(answered.reply.rpcStatus, kRpcStatusBadStubData);
    EXPECT_EQ(callbackResult(), kSysSuccess);

    // A caller that shut its receiving side: the reply fails with EPIPE.
    const std::string path = KxIpclibEndpointSocketPath(runtime.path(), ep);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    auto deafCall = [&](const std::vector<uint8_t>& bytes) {
        tolv::platform::UniqueFd sock(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        EXPECT_EQ(::connect(sock.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        EXPECT_EQ(::shutdown(sock.get(), SHUT_RD), 0);
        EXPECT_EQ(::send(sock.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
        return callbackResult();
    };
    EXPECT_EQ(deafCall(truncated), SystemStatusFromErrno(EPIPE)) << "a refusal that was not delivered";
    EXPECT_EQ(deafCall(encodeBootstrapRequest(Request(ep, KxIpclibBootstrapProc::CreateSharedMemoryLink))),
              SystemStatusFromErrno(EPIPE))
        << "a link whose caller never learns of it";
    EXPECT_EQ(server.offered(), 1u) << "the second deaf call reached the application";
}

TEST_F(RpcRegistration, AMissingModuleRefusesModuleMode)
{
    WriteValue(store.path(), "HKLM/Software/Corvanta/Veltrane/KxIpc", "RpcRegLibPath", "/nonexistent/libnothing.so");
    lib = std::make_shared<KxIpclib>();
    ASSERT_EQ(lib->init(0), KxIpcStatusSuccess);
    Listen(lib, ep, kLocal | 0x40, KxIpcStatusAccessDenied);
    EXPECT_EQ(KxIpclibRegisterCountsNow().module, 0u);
    Listen(lib, ep, kLocal);  // local mode needs no module
}

TEST_F(RpcRegistration, TheModulePathComesFromPolicyThenRegistryThenTheExecutablesFolder)
{
    const std::string exeDir = GetExePath();
    ASSERT_FALSE(exeDir.empty());
    EXPECT_EQ(GetRpcServerDllPath(), exeDir + "libipclibRpc-dynamic-md.so");
    struct stat st {};
    EXPECT_EQ(::stat(GetRpcServerDllPath().c_str(), &st), 0) << "the test module is built beside the tests";

    const std::string root = store.path() + "/HKLM/Software/";
    WriteValue(store.path(), "HKLM/Software/Pelloran, Inc./Pelloran Orvik/KxIpc", "RpcRegLibPath", "legacy-local.so");
    KxIpclibConfigResetForTesting();
    EXPECT_EQ(GetRpcServerDllPath(), exeDir + "legacy-local.so") << "a relative value is taken from the executable's folder";
    WriteValue(store.path(), "HKLM/Software/Corvanta/Veltrane/KxIpc", "RpcRegLibPath", "/opt/local.so");
    KxIpclibConfigResetForTesting();
    EXPECT_EQ(GetRpcServerDllPath(), "/opt/local.so");
    WriteValue(store.path(), "HKLM/Software/Policies/Pelloran, Inc./Pelloran Orvik/KxIpc", "RpcRegLibPath", "/opt/legacy-policy.so");
    KxIpclibConfigResetForTesting();
    EXPECT_EQ(GetRpcServerDllPath(), "/opt/legacy-policy.so");
    WriteValue(store.path(), "HKLM/Software/Policies/Corvanta/Veltrane/KxIpc", "RpcRegLibPath", "/opt/policy.so");
    KxIpclibConfigResetForTesting();
    EXPECT_EQ(GetRpcServerDllPath(), "/opt/policy.so");
    // Cached: a later change is not seen.
    WriteValue(store.path(), "HKLM/Software/Policies/Corvanta/Veltrane/KxIpc", "RpcRegLibPath", "/opt/changed.so");
    EXPECT_EQ(GetRpcServerDllPath(), "/opt/policy.so");
}

TEST(IpclibStatusMapping, SystemStatusesMapAsTheTransportReportsThem)
{
    const std::pair<uint32_t, KxIpcStatusCode> table[] = {
        {0, KxIpcStatusSuccess},          {5, KxIpcStatusAccessDenied},   {14, KxIpcStatusOutOfMemory},
        {87, KxIpcStatusInvalidParam},    {1706, KxIpcStatusInvalidParam}, {1722, KxIpcStatusNotFound},
        {1740, KxIpcStatusAlreadyExists}, {1760, KxIpcStatusAlreadyExists}, {1745, KxIpcStatusUnexpected},
        {1783, KxIpcStatusUnexpected}};
    for (auto [sys, status] : table)
        EXPECT_EQ(KxIpcStatusFromSystem(sys), status) << sys;
    EXPECT_EQ(KxIpcStatusFromSystem(SystemStatusFromErrno(ECONNREFUSED)), KxIpcStatusNotFound);
    EXPECT_EQ(KxIpcStatusFromSystem(SystemStatusFromErrno(EADDRINUSE)), KxIpcStatusAlreadyExists);
}
