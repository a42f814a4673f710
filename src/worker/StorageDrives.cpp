#include "worker/StorageDrives.h"

#include <tolv/log/Log.h>
#include <tolv/platform/NtStatus.h>

#include <atomic>
#include <cerrno>
#include <limits>
#include <new>
#include <vector>

namespace tolv::worker {

using namespace tolv::platform;

StorageDrives::~StorageDrives()
{
    Cleanup();
}

bool StorageDrives::Init()
{
    LOG_INFO("StorageDrives::Init()", "Initialization.");
    return true;
}

void StorageDrives::Uninit()
{
    LOG_INFO("StorageDrives::Uninit()", "Uninitialization.");
    Cleanup();
}

namespace {
std::atomic<StorageDrives::ReplyAllocator> g_replyAllocator{nullptr};
} // namespace

StorageDrives::ReplyAllocator StorageDrives::SetReplyAllocator(ReplyAllocator allocator)
{
    return g_replyAllocator.exchange(allocator);
}

StorageDrives::ReplyBlock StorageDrives::AllocateReply(size_t payloadLength)
{
    if (payloadLength > std::numeric_limits<uint32_t>::max() - DR_RSP_HEADER_SIZE)
        return {};
    const ReplyAllocator allocator = g_replyAllocator.load();
    try {
        return ReplyBlock(static_cast<uint8_t*>(allocator ? allocator(DR_RSP_HEADER_SIZE + payloadLength)
                                                          : std::malloc(DR_RSP_HEADER_SIZE + payloadLength)));
    } catch (const std::bad_alloc&) {
        return {};
    }
}

bool StorageDrives::HandleRequest(const uint8_t* request, uint32_t requestSize, uint8_t** response,
                                  uint32_t* responseSize, void** responseContext)
{
    static constexpr const char* kFn = "StorageDrives::HandleRequest()";
    *response = nullptr;
    *responseSize = 0;
    *responseContext = nullptr;

    DR_REQ_HEADER header;
    if (!DecodeRequestHeader(request, requestSize, header)) {
        LOG_ERROR(kFn, "Request of %u bytes is shorter than its header.", requestSize);
        return false;
    }
    LOG_DEBUG(kFn, "ioContext is 0x%llx", static_cast<unsigned long long>(header.ioContext));

    DR_RSP_HEADER reply;
    reply.ioContext = header.ioContext;
    ReplyBlock block;

    const uint32_t code = header.messageCode;
    if (code != DR_MSG_QUERY_DISK && code != DR_MSG_RELEASE_DISK && code != DR_MSG_READ && code != DR_MSG_WRITE) {
        LOG_ERROR(kFn, "Unknown message code 0x%x", code);
        return false;
    }
    bool result = false;
    try {
        result = Dispatch(header, request + DR_REQ_HEADER_SIZE, requestSize - DR_REQ_HEADER_SIZE, reply, block);
    } catch (const std::bad_alloc&) {
        // Out of memory anywhere in a handler is an answer for the peer, not
        // the end of the worker.
        block.reset();
        reply.status = STATUS_INSUFFICIENT_RESOURCES;
        reply.information = 0;
        reply.payloadLength = 0;
    }
    if (code == DR_MSG_RELEASE_DISK)
        result = true;
    else if (!result)
        LOG_ERROR(kFn, "Failed to process command (%#x).", code);

    const bool wantsReply = code != DR_MSG_RELEASE_DISK &&
                            !(code == DR_MSG_WRITE && header.ioContext == DR_IOCONTEXT_NO_RESPONSE);
    if (wantsReply) {
        // A handler hands over a block exactly when its reply has a payload.
        if (!block)
            block = AllocateReply(0);
        if (!block) {
            LOG_ERROR(kFn, "Failed to allocate whole response");
            result = false;
        } else {
            EncodeResponseHeader(block.get(), reply);
            *responseSize = static_cast<uint32_t>(DR_RSP_HEADER_SIZE + reply.payloadLength);
            *response = block.release();
            *responseContext = *response;
        }
    }
    LOG_DEBUG(kFn, "Completed handling request with ioContext 0x%llx", static_cast<unsigned long long>(header.ioContext));
    return result;
}

bool StorageDrives::Dispatch(const DR_REQ_HEADER& header, const uint8_t* payload, size_t payloadSize,
                             DR_RSP_HEADER& reply, ReplyBlock& block)
{
    switch (header.messageCode) {
    case DR_MSG_QUERY_DISK: {
        DR_QUERY_DISK_REQ request;
        if (DecodeQueryDiskRequest(payload, payloadSize, request))
            return RequestDrive(header, request, reply, block);
        break;
    }
    case DR_MSG_RELEASE_DISK:
        ReleaseDrive(header);
        return true;
    case DR_MSG_READ: {
        DR_READ_REQ request;
        if (DecodeReadRequest(payload, payloadSize, request))
            return Read(header, request, reply, block);
        break;
    }
    case DR_MSG_WRITE: {
        DR_WRITE_REQ request;
        if (DecodeWriteRequest(payload, payloadSize, request))
            return Write(header, request, reply);
        break;
    }
    default:
        break;
    }
    LOG_ERROR("StorageDrives::HandleRequest()", "Request payload of %zu bytes is malformed for message code 0x%x.",
              payloadSize, header.messageCode);
    reply.status = STATUS_INVALID_PARAMETER;
    reply.information = 0;
    reply.payloadLength = 0;
    return false;
}

void StorageDrives::FreeResponse(void* buffer)
{
    std::free(buffer);
}

StorageDrives::LocalDrive StorageDrives::GetLocalDrive(uint8_t letter)
{
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        auto it = m_drives.find(letter);
        if (it != m_drives.end())
            return it->second;
    }
    LOG_ERROR("StorageDrives::GetLocalDrive()", "Failed to find the request disk (drive is %c)", letter);
    return {};
}

void StorageDrives::Cleanup()
{
    std::map<uint8_t, LocalDrive> drives;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        drives.swap(m_drives);
    }
    for (auto& [letter, drive] : drives) {
        if (!drive.handle->Control(FSCTL_UNLOCK_VOLUME))
            LOG_WARN("StorageDrives::Cleanup()", "Failed to unlock the volume (err: %d)", errno);
        drive.handle.reset();  // closes, unless a transfer still holds it
    }
}

} // namespace tolv::worker
