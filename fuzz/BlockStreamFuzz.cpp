// libFuzzer target: what a peer writes on a link, cut into blocks by the block
// reader and handed to the streams of a real link and control stream, as the
// link's receive pass does. Each pass is followed by delivery, so that opens,
// acknowledgements, closes, shutdowns and reassembled messages all run, and
// the application's side answers as the worker does (a message of size 0 ends
// the stream and is answered with a close).
//
// Everything runs on this thread: the link has no send or receive task (what
// the streams send waits in its queue until the pass is over and is then
// completed), and delivery is the stream's inline dispatch. Only the control
// stream hands deliveries to the executor (those behind a message it raised
// on, and its end), and they are waited for. The executor is made once per
// process.
//
// Input: one mode byte, then passes of a 16-bit little-endian length and that
// many bytes (0xFFFF: the rest of the input). A pass is read block by block
// until the block reader refuses; a block for destination stream 0 goes to
// the control stream, 1 to the first stream, n to the (n-1)th stream the
// peer opened and we accepted; other destinations are skipped.
//   mode bit 0:    the first stream is one we open (it waits for the peer's
//                  OpenAck) instead of one the peer opened and we accepted;
//   mode bit 1:    the application answers every message with its own bytes;
//   mode bits 2-3: when the application closes the first stream besides at
//                  its end: 0 never, 1 before the first pass, 2 after it,
//                  3 on its first message;
//   mode bit 4:    closes arm the close timer.
// A stream the peer opens is refused when its name starts with 'r', left
// undecided with 'u', accepted otherwise (at most kMaxStreams).
//
// Checked: the block reader vouches only for bytes inside the pass; each
// delivered message is, byte for byte, the blocks accepted for it and never
// more than its first block announced; a refused block leaves no half-built
// message behind; the end of a stream comes once, after every message that
// arrived before it; every send completes and leaves no outstanding count;
// and once every stream has ended the link holds none (LeakSanitizer then
// sees anything kept alive by a cycle).

#include <tamsel/ipc/ipclibBlock.h>
#include "apps/tamsel/lib/ipc/ipclib/ipclibLink.h"
#include <tamsel/ipc/ipclibLinkListener.h>
#include <tamsel/ipc/ipclibRecvBufferPool.h>
#include <tamsel/ipc/ipclibStream.h>
#include "apps/tamsel/lib/ipc/ipclib/ipclibStreamCtrl.h"

#include "platform/LittleEndian.h"
#include "task/LinuxThreadPoolExecutor.h"

#include <chrono>
#include <cstdint>
#include <cstring>
#include <deque>
#include <exception>
#include <map>
#include <memory>
#include <thread>
#include <vector>

using namespace tamsel::ipc;
using tamsel::task::TaskExecutor;

namespace {

#define FUZZ_CHECK(condition) \
    do {                      \
        if (!(condition))     \
            __builtin_trap(); \
    } while (0)

constexpr size_t kMaxStreams = 6;

const std::shared_ptr<TaskExecutor>& Executor()
{
    // Never destroyed: its pool thread outlives every input.
    static const auto* executor = new std::shared_ptr<TaskExecutor>(
        tamsel::task::LinuxThreadPoolExecutor::create({1, 2, std::chrono::milliseconds(60000)}));
    return *executor;
}

// The link's control stream, with a way to wait for deliveries that it has
// handed to the executor.
class FuzzControl final : public KxIpclibStreamCtrl {
public:
    using KxIpclibStreamCtrl::KxIpclibStreamCtrl;

    // Ends the stream as a stopping link does, and waits until its end has
    // been delivered (which the executor does) and it has left the link.
    void end()
    {
        stop();
        for (int spins = 0; link(); ++spins) {
            FUZZ_CHECK(spins < 1000000);
            waitForDeliveries();
            std::this_thread::yield();
        }
    }

    void waitForDeliveries()
    {
        std::shared_ptr<tamsel::task::WtpWorkTaskContext> task;
        {
            Lock lock(m_mutex);
            if (m_dispatchTask)
                task = m_dispatchTask.context();
        }
        if (task)
            Executor()->waitForWorkCallbacks(task);
    }
};

// A link with no transport: it is connected at once, and what the streams
// send stays queued until the harness takes it.
class FuzzLink final : public KxIpclibLink {
public:
    explicit FuzzLink(const std::shared_ptr<KxIpclibLinkListener>& listener)
        : KxIpclibLink(_GUID{0xf022, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}}, 0, u"fuzz", 4242, nullptr, listener)
    {
    }

    // The base's start without its send and receive tasks.
    KxIpcStatusCode startInline(const std::shared_ptr<TaskExecutor>& executor)
    {
        connecting();
        auto control = std::make_shared<FuzzControl>(shared_from_this(), executor, Flags<KxIpclibStreamFlag>());
        {
            LinkLock lock(m_lock);
            m_controlStream = control;
            m_controlStreamId = control->streamId();
            m_state = KxIpclibLinkState::Connected;
        }
        return control->start();
    }

    std::deque<std::shared_ptr<KxIpclibMsg>> takeSent()
    {
        LinkLock lock(m_lock);
        auto sent = std::move(m_sendQueue);
        m_sendQueue.clear();
        return sent;
    }

    bool holds(const std::shared_ptr<KxIpclibStream>& stream)
    {
        LinkLock lock(m_lock);
        auto it = m_streams.find(stream->streamId());
        return it != m_streams.end() && it->second == stream;
    }

    void stop(LinkLock&) override {}
    KxIpcStatusCode recv(KxIpclibStreamMap&) override { return KxIpcStatusSuccess; }
    void stopWorkers() override {}
    void linkError() override
    {
        LinkLock lock(m_lock);
        m_state = KxIpclibLinkState::Error;
    }
    void linkStop(LinkLock&) override {}
    void performDeferredSend(LinkLock&) override {}
};

class FuzzListener final : public KxIpclibLinkListener {
public:
    FuzzListener(std::shared_ptr<TaskExecutor> executor, ConnectEntry connect)
        : KxIpclibLinkListener(_GUID{}, Flags<KxIpclibListenerFlag>(KxIpclibListenerFlag::Local),
                               std::move(executor), std::move(connect), nullptr, nullptr)
    {
    }
    KxIpcStatusCode start(Flags<KxIpclibListenerFlag>, unsigned int&) override { return KxIpcStatusSuccess; }
    void stop(unsigned int&) override {}
    KxIpcStatusCode accepting(unsigned int&) override { return KxIpcStatusSuccess; }
};

// A stream this side opens, driven through the opener's steps of
// KxIpclibStream::open without its blocking wait: begun before the first
// pass, settled after each pass once the peer has answered.
class OpeningStream final : public KxIpclibStream {
public:
    using KxIpclibStream::KxIpclibStream;

    KxIpcStatusCode begin(KxIpclibRecvFunction onRecv)
    {
        Lock lock(m_mutex);
        m_connectWait = 1;
        m_onRecv = std::move(onRecv);
        return connectedInit();
    }

    enum class Settled { Waiting, Connected, Failed };
    Settled settle()
    {
        Lock lock(m_mutex);
        if (m_connectWait == 1)
            return Settled::Waiting;
        if (m_connectStatus != KxIpcStatusSuccess || m_state != KxIpclibStreamState::Connecting)
            return Settled::Failed;
        m_state = KxIpclibStreamState::Connected;
        m_accepted = true;
        return Settled::Connected;
    }
};

// What the peer's accepted blocks promise one stream.
struct Expected {
    bool building = false;
    uint32_t type = 0;
    uint32_t totalSize = 0;
    std::vector<uint8_t> bytes;
    std::deque<std::vector<uint8_t>> messages;  // complete data messages, not yet delivered
    int ends = 0;                               // end-of-stream deliveries
    bool firstMessageSeen = false;
};

struct Slot {
    std::shared_ptr<KxIpclibStream> stream;
    std::unique_ptr<Expected> expected;
};

struct Run {
    uint8_t mode = 0;
    std::shared_ptr<FuzzLink> link;
    std::shared_ptr<FuzzControl> control;
    Expected controlExpected;
    std::vector<Slot> slots;  // [0] the first stream, then those the peer opened
    bool opening = false;     // slots[0] still waits for its OpenAck

    bool echo() const { return (mode & 2) != 0; }
    uint32_t closeWhen() const { return (mode >> 2) & 3; }
    std::chrono::milliseconds closeTimeout() const
    {
        return (mode & 16) ? std::chrono::milliseconds(10000) : std::chrono::milliseconds::max();
    }
};

// The application's receive function, as the worker's: a message of size 0
// ends the stream and is answered with a close.
void OnMessage(Run& run, Expected& expected, bool first, KxIpcStatusCode status,
               const std::shared_ptr<KxIpclibMsg>& msg)
{
    FUZZ_CHECK(status == KxIpcStatusSuccess && msg);
    FUZZ_CHECK(msg->msgType() == KxIpclibMsgType::Msg);
    const auto stream = msg->stream();
    FUZZ_CHECK(stream != nullptr);
    if (msg->size() == 0) {
        if (!expected.messages.empty() && expected.messages.front().empty()) {
            expected.messages.pop_front();  // the peer's own empty message
        } else {
            // The stream's end, after everything that arrived before it.
            FUZZ_CHECK(++expected.ends == 1 && expected.messages.empty());
        }
        stream->close(std::chrono::milliseconds::max());
        return;
    }
    FUZZ_CHECK(!expected.messages.empty());
    const auto want = std::move(expected.messages.front());
    expected.messages.pop_front();
    FUZZ_CHECK(want.size() == msg->size() && std::memcmp(want.data(), msg->data(), want.size()) == 0);
    if (run.echo()) {
        auto copy = std::make_shared<std::vector<uint8_t>>(want);
        (void)stream->send(0, static_cast<uint32_t>(copy->size()), copy->data(),
                           [copy](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
    }
    if (first && run.closeWhen() == 3 && !expected.firstMessageSeen)
        stream->close(run.closeTimeout());
    expected.firstMessageSeen = true;
}

KxIpclibRecvFunction ReceiveFunction(Run& run, Expected& expected, bool first)
{
    return [&run, &expected, first](KxIpcStatusCode status, std::shared_ptr<KxIpclibMsg> msg) {
        OnMessage(run, expected, first, status, msg);
    };
}

// The peer's stream opens: refused, undecided or accepted by the name's first unit.
void OnConnect(Run& run, const std::shared_ptr<KxIpclibStream>& stream)
{
    const std::u16string name = stream->name();
    FUZZ_CHECK(!name.empty());
    if (name[0] == u'u')
        return;
    if (name[0] == u'r' || run.slots.size() >= kMaxStreams) {
        FUZZ_CHECK(stream->reject(KxIpcStatusAccessDenied) == KxIpcStatusSuccess);
        return;
    }
    Slot slot{stream, std::make_unique<Expected>()};
    FUZZ_CHECK(stream->accept({}, ReceiveFunction(run, *slot.expected, false)) == KxIpcStatusSuccess);
    run.slots.push_back(std::move(slot));
}

// Model of what an accepted block does to the message being rebuilt.
void Accepted(Expected& expected, const KxIpclibBlockHeader& header, const uint8_t* payload)
{
    if (header.first()) {
        FUZZ_CHECK(!expected.building);
        expected.building = true;
        expected.type = header.msgType;
        expected.totalSize = header.totalSize;
        expected.bytes.clear();
    } else {
        FUZZ_CHECK(expected.building);
    }
    expected.bytes.insert(expected.bytes.end(), payload, payload + header.payloadLength);
    FUZZ_CHECK(expected.bytes.size() <= expected.totalSize);
    if (header.last()) {
        FUZZ_CHECK(expected.bytes.size() == expected.totalSize);
        if (expected.type == static_cast<uint32_t>(KxIpclibMsgType::Msg))
            expected.messages.push_back(std::move(expected.bytes));
        expected.bytes.clear();
        expected.building = false;
    }
}

// Hands the streams' sends over as a transport would, completing each.
void CompleteSends(Run& run)
{
    for (auto& msg : run.link->takeSent()) {
        FUZZ_CHECK(msg->remaining() == msg->size());  // the link queues every message from its first byte
        msg->sendComplete(KxIpcStatusSuccess);
    }
}

void Dispatch(const std::shared_ptr<KxIpclibStream>& stream)
{
    if (stream->isControl()) {
        // The control stream raises on anything but an Open, as the link's
        // delivery expects, and leaves what follows to the executor.
        try {
            stream->dispatchInline();
        } catch (const std::exception&) {
            static_cast<FuzzControl&>(*stream).waitForDeliveries();
        }
        return;
    }
    stream->dispatchInline();
}

KxIpclibBlockHeader ShutdownBlock()
{
    KxIpclibBlockHeader header;
    header.msgType = static_cast<uint32_t>(KxIpclibMsgType::Shutdown);
    header.flags = KxIpclibBlockFirst | KxIpclibBlockLast;
    header.blockLength = KxIpclibFirstBlockHeaderSize;
    return header;
}

// Ends a stream as the peer's Shutdown does, so that its end is delivered on
// this thread: a stopping link's shutdown would hand it to the executor.
void EndStream(Run& run, const std::shared_ptr<KxIpclibStream>& stream)
{
    const auto header = ShutdownBlock();
    KxIpcStatusCode status = stream->recvBlock(header, nullptr);
    if (status == KxIpcStatusProtocolError)  // a half-built message is dropped first
        status = stream->recvBlock(header, nullptr);
    FUZZ_CHECK(status == KxIpcStatusSuccess);
    Dispatch(stream);
    CompleteSends(run);
}

// One pass: blocks are handed on until the reader refuses one or a stream
// reports a protocol error (which fails the link). False after such an error.
bool Pass(Run& run, const uint8_t* data, size_t size)
{
    // The receive buffer: exactly the pass, so that a read past it is caught;
    // a large message may keep it instead of a copy.
    KxIpclibRecvStorage storage;
    storage.buffer = std::shared_ptr<uint8_t>(new uint8_t[size == 0 ? 1 : size], std::default_delete<uint8_t[]>());
    if (size != 0)
        std::memcpy(storage.buffer.get(), data, size);
    const uint8_t* buffer = storage.buffer.get();

    std::map<uint64_t, std::pair<std::shared_ptr<KxIpclibStream>, Expected*>> touched;
    bool ok = true;
    size_t offset = 0;
    while (offset < size) {
        KxIpclibBlock block;
        if (readBlock(buffer + offset, size - offset, block) != KxIpcStatusSuccess)
            break;
        const KxIpclibBlockHeader& h = block.header;
        FUZZ_CHECK(h.blockLength <= size - offset && h.blockLength == h.headerLength() + uint64_t{h.payloadLength});
        FUZZ_CHECK(block.payload == buffer + offset + h.headerLength());
        FUZZ_CHECK(!h.first() || h.totalSize >= h.payloadLength);
        offset += h.blockLength;

        auto it = touched.find(h.destStreamId);
        if (it == touched.end()) {
            std::shared_ptr<KxIpclibStream> stream;
            Expected* expected = nullptr;
            if (h.destStreamId == 0) {
                stream = run.control;
                expected = &run.controlExpected;
            } else if (h.destStreamId <= run.slots.size()) {
                Slot& slot = run.slots[h.destStreamId - 1];
                if (run.link->holds(slot.stream)) {
                    stream = slot.stream;
                    expected = slot.expected.get();
                }
            }
            if (!stream)
                continue;  // no such stream on the link: skipped
            it = touched.emplace(h.destStreamId, std::make_pair(stream, expected)).first;
        }
        auto& [stream, expected] = it->second;
        const KxIpcStatusCode status = stream->recvBlock(h, block.payload, &storage);
        if (status == KxIpcStatusSuccess) {
            Accepted(*expected, h, block.payload);
        } else if (status == KxIpcStatusProtocolError) {
            // The half-built message went with the error: a continuation is
            // refused now, whatever came before.
            KxIpclibBlockHeader next;
            next.msgType = static_cast<uint32_t>(KxIpclibMsgType::Msg);
            next.blockLength = KxIpclibNextBlockHeaderSize;
            FUZZ_CHECK(stream->recvBlock(next, nullptr) == KxIpcStatusProtocolError);
            expected->building = false;
            run.link->linkError();
            ok = false;
            break;
        } else {
            FUZZ_CHECK(status == KxIpcStatusInvalidState);
        }
    }
    storage.buffer.reset();  // only a message that borrowed it keeps it

    // Delivery after the pass, in the order of the destination ids.
    for (auto& [id, entry] : touched) {
        if (id == 1 && run.opening) {
            auto& opening = static_cast<OpeningStream&>(*entry.first);
            const auto settled = opening.settle();
            if (settled == OpeningStream::Settled::Waiting)
                continue;
            run.opening = false;
        }
        Dispatch(entry.first);
    }
    CompleteSends(run);
    return ok;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const auto& executor = Executor();
    FUZZ_CHECK(executor != nullptr);

    Run run;
    run.mode = data[0];
    ++data;
    --size;

    auto listener = std::make_shared<FuzzListener>(
        executor, [&run](std::shared_ptr<KxIpclibStream> stream) {
            OnConnect(run, stream);
            switch (stream->state()) {
            case KxIpclibStreamState::Init:
                return KxIpcStatusUnexpected;  // no decision
            case KxIpclibStreamState::Closed:
                return stream->rejectStatus();
            default:
                return KxIpcStatusSuccess;
            }
        });
    run.link = std::make_shared<FuzzLink>(listener);
    FUZZ_CHECK(run.link->startInline(executor) == KxIpcStatusSuccess);
    run.control = std::static_pointer_cast<FuzzControl>(run.link->controlStream());

    // The first stream.
    Slot first{nullptr, std::make_unique<Expected>()};
    if (run.mode & 1) {
        auto opening = std::make_shared<OpeningStream>(run.link, executor, u"tolvCommands", Flags<KxIpclibStreamFlag>(),
                                                       0, KxIpclibStreamState::Connecting);
        FUZZ_CHECK(opening->begin(ReceiveFunction(run, *first.expected, true)) == KxIpcStatusSuccess);
        FUZZ_CHECK(run.link->addStream(opening) == KxIpcStatusSuccess);
        first.stream = opening;
        run.opening = true;
    } else {
        first.stream = std::make_shared<KxIpclibStream>(run.link, executor, u"tolvCommands",
                                                        Flags<KxIpclibStreamFlag>(), 0x5350, KxIpclibStreamState::Init);
        FUZZ_CHECK(run.link->addStream(first.stream) == KxIpcStatusSuccess);
        first.stream->setOnAcceptSendOpenAck(true);
        FUZZ_CHECK(first.stream->accept({}, ReceiveFunction(run, *first.expected, true)) == KxIpcStatusSuccess);
    }
    run.slots.push_back(std::move(first));
    if (run.closeWhen() == 1)
        run.slots[0].stream->close(run.closeTimeout());
    CompleteSends(run);

    for (int pass = 0; size >= 2; ++pass) {
        size_t length = tolv::platform::LoadLe<uint16_t>(data);
        data += 2;
        size -= 2;
        length = length == 0xFFFF ? size : std::min(length, size);
        const bool ok = Pass(run, data, length);
        data += length;
        size -= length;
        if (!ok)
            break;
        if (pass == 0 && run.closeWhen() == 2)
            run.slots[0].stream->close(run.closeTimeout());
        CompleteSends(run);
    }

    // The link goes: every stream still on it ends.
    for (size_t i = 0; i < run.slots.size(); ++i) {
        const Slot& slot = run.slots[i];
        if (!run.link->holds(slot.stream))
            continue;
        if (slot.stream->state() == KxIpclibStreamState::Connecting) {
            slot.stream->close(std::chrono::milliseconds::max());  // an open still waiting gives up
        } else {
            EndStream(run, slot.stream);
        }
        FUZZ_CHECK(!run.link->holds(slot.stream));
    }
    run.control->end();
    CompleteSends(run);
    CompleteSends(run);
    FUZZ_CHECK(run.link->streamCount() == 0);
    for (auto& slot : run.slots) {
        FUZZ_CHECK(slot.stream->outstandingSends() == 0);
        FUZZ_CHECK(slot.expected->ends <= 1);
    }
    return 0;
}
