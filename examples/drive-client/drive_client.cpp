// A minimal peer: starts the worker beside it, opens the command stream,
// queries a file, writes a range, reads it back, and releases the file.
//
//   veltrane-protocol.exe FILE
//
// The worker admits only a program named veltrane-protocol.exe in its own
// folder; see README.md.

#include <tamsel/ipc/ipclibClient.h>
#include <tolv/worker/DriveRequests.h>

#include <fmt/format.h>

#include <spawn.h>
#include <sys/random.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

extern char** environ;

using namespace tamsel::ipc;
using namespace tolv::worker;

namespace {

// Replies arrive on the link's threads; main waits for them here.
class Replies {
public:
    void Push(std::vector<uint8_t> record)
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_records.push_back(std::move(record));
        m_arrived.notify_one();
    }
    bool Pop(std::vector<uint8_t>& record)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_arrived.wait_for(lock, std::chrono::seconds(30), [&] { return !m_records.empty(); }))
            return false;
        record = std::move(m_records.front());
        m_records.pop_front();
        return true;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::deque<std::vector<uint8_t>> m_records;
};

std::string OwnFolder()
{
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    std::string text(path, n > 0 ? static_cast<size_t>(n) : 0);
    return text.substr(0, text.rfind('/'));
}

// Sends one request and waits for its reply; false on a failed send, a
// time-out or a reply that is not a record.
bool Call(KxIpclibStream& stream, Replies& replies, const std::vector<uint8_t>& request, DR_RSP_HEADER& header,
          std::vector<uint8_t>& payload)
{
    // The request's bytes must live until the link has copied them: the
    // completion holds them.
    auto record = std::make_shared<std::vector<uint8_t>>(request);
    if (!stream.send(0, static_cast<uint32_t>(record->size()), record->data(),
                     [record](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {}))
        return false;
    std::vector<uint8_t> reply;
    if (!replies.Pop(reply) || !DecodeResponseHeader(reply.data(), reply.size(), header) ||
        reply.size() - DR_RSP_HEADER_SIZE < header.payloadLength)
        return false;
    payload.assign(reply.begin() + DR_RSP_HEADER_SIZE, reply.begin() + DR_RSP_HEADER_SIZE + header.payloadLength);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    // A fresh endpoint for a worker of our own.
    _GUID endpoint{};
    if (getrandom(&endpoint, sizeof endpoint, 0) != static_cast<ssize_t>(sizeof endpoint))
        return 1;
    std::string endpointText = fmt::format("{}", endpoint);
    std::string workerPath = OwnFolder() + "/tolvClientWorker";
    char* workerArgv[] = {workerPath.data(), endpointText.data(), nullptr};
    pid_t worker = -1;
    if (posix_spawn(&worker, workerPath.c_str(), nullptr, nullptr, workerArgv, environ) != 0) {
        std::fprintf(stderr, "cannot start %s\n", workerPath.c_str());
        return 1;
    }

    Replies replies;
    auto client = KxIpclibClient::connect(endpoint, u"tolvCommands",
                                          [&replies](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg> msg) {
                                              // An empty message: the worker closed the stream.
                                              if (msg && msg->size() > 0)
                                                  replies.Push(std::vector<uint8_t>(msg->data(), msg->data() + msg->size()));
                                          });
    if (!client) {
        std::fprintf(stderr, "the worker refused the stream: %s\n", std::string(KxIpcStatusName(client.error())).c_str());
        waitpid(worker, nullptr, 0);
        return 1;
    }
    KxIpclibStream& stream = *(*client)->firstStream();

    const uint32_t letter = 'E';
    std::u16string path(argv[1], argv[1] + std::strlen(argv[1]));  // ASCII paths, for brevity
    DR_RSP_HEADER header;
    std::vector<uint8_t> payload;
    DR_QUERY_DISK_RSP disk;
    bool ok = Call(stream, replies, EncodeQueryDiskRequest(1, letter, 7, path), header, payload) &&
              header.status == 0 && DecodeQueryDiskResponse(payload.data(), payload.size(), disk);
    if (ok)
        // readOnly is 1 for every file path; writes to a file are still served.
        std::printf("query: %llu bytes, readOnly %u\n", static_cast<unsigned long long>(disk.diskSize),
                    disk.readOnly);

    const char text[] = "written by the example client";
    const uint64_t offset = 4096;
    ok = ok && Call(stream, replies,
                    EncodeWriteRequest(2, letter, 7, offset, reinterpret_cast<const uint8_t*>(text), sizeof text - 1),
                    header, payload) &&
         header.status == 0;
    if (ok)
        std::printf("write: %llu bytes at %llu\n", static_cast<unsigned long long>(header.information),
                    static_cast<unsigned long long>(offset));

    ok = ok && Call(stream, replies, EncodeReadRequest(3, letter, 7, offset, sizeof text - 1), header, payload) &&
         header.status == 0 && payload.size() == DR_READ_RSP_SIZE + sizeof text - 1 &&
         std::memcmp(payload.data() + DR_READ_RSP_SIZE, text, sizeof text - 1) == 0;
    if (ok)
        std::printf("read: the same %zu bytes back\n", sizeof text - 1);
    if (!ok)
        std::fprintf(stderr, "request failed: status 0x%08X\n", header.status);

    // A release has no reply; closing the stream ends the worker.
    auto release = std::make_shared<std::vector<uint8_t>>(EncodeReleaseDiskRequest(4, letter));
    stream.send(0, static_cast<uint32_t>(release->size()), release->data(),
                [release](KxIpcStatusCode, std::shared_ptr<KxIpclibMsg>) {});
    stream.close(std::chrono::seconds(10));
    (*client)->close();
    int status = 0;
    waitpid(worker, &status, 0);
    std::printf("worker exit code %d\n", WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    return ok && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
