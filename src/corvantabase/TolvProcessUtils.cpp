#include "corvantabase/TolvProcessUtils.h"

#include <tolv/log/Log.h>
#include <tolv/platform/UniqueFd.h>
#include "platform/Utf.h"

#include <dlfcn.h>
#include <link.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>

namespace {

// Paths start with room for this many bytes; a path that fills the buffer may
// have been cut, so the buffer doubles and the call is repeated.
constexpr size_t kFirstCapacity = 260;
// No path the kernel reports is longer; past this the loop gives up.
constexpr size_t kCapacityLimit = size_t{1} << 20;

enum class ReadResult { Done, Failed, OutOfMemory };

// readlink() into a growing buffer. Logs its own failures; `callName` names
// the call in the failure line.
ReadResult ReadLinkGrowing(const char* functionName, const char* link, const char* callName, std::string& out)
{
    for (size_t capacity = kFirstCapacity;; capacity *= 2) {
        if (capacity > kCapacityLimit) {
            LOG_ERROR(functionName, "%s failed with error : 0x%x", callName, ENAMETOOLONG);
            return ReadResult::Failed;
        }
        std::unique_ptr<char[]> buffer(new (std::nothrow) char[capacity]);
        if (!buffer) {
            LOG_ERROR(functionName, "Failed to allocate memory (size: %d).", static_cast<int>(capacity));
            return ReadResult::OutOfMemory;
        }
        const ssize_t length = readlink(link, buffer.get(), capacity);
        if (length < 0) {
            LOG_ERROR(functionName, "%s failed with error : 0x%x", callName, errno);
            return ReadResult::Failed;
        }
        if (static_cast<size_t>(length) < capacity) {
            out.assign(buffer.get(), static_cast<size_t>(length));
            return ReadResult::Done;
        }
    }
}

std::u16string ToUtf16(const char* functionName, const std::string& path)
{
    std::optional<std::u16string> wide = tolv::platform::Utf8ToUtf16(path);
    if (!wide) {
        LOG_ERROR(functionName, "The path is not valid UTF-8: %s", path.c_str());
        return {};
    }
    return std::move(*wide);
}

} // namespace

std::u16string TOLVGetModuleFileName(const void* module)
{
    constexpr const char* kFunction = "TOLVGetModuleFileName()";
    std::string path;
    if (module) {
        Dl_info info {};
        link_map* map = nullptr;
        if (dladdr1(module, &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) == 0 || !map) {
            LOG_ERROR(kFunction, "GetModuleFileNameW failed with error : 0x%x", EINVAL);
            return {};
        }
        // The executable's own entry has an empty name: answer from /proc as
        // for a null module. A shared object's name is the path it was loaded
        // by; resolve it to a full one.
        if (map->l_name && map->l_name[0] != '\0') {
            std::unique_ptr<char, decltype(&std::free)> full(realpath(map->l_name, nullptr), &std::free);
            if (!full) {
                LOG_ERROR(kFunction, "GetModuleFileNameW failed with error : 0x%x", errno);
                return {};
            }
            return ToUtf16(kFunction, full.get());
        }
    }
    if (ReadLinkGrowing(kFunction, "/proc/self/exe", "GetModuleFileNameW", path) != ReadResult::Done)
        return {};
    return ToUtf16(kFunction, path);
}

std::u16string TOLVGetProcessImageName(pid_t processId)
{
    constexpr const char* kFunction = "TOLVGetProcessImageName()";
    // The pidfd pins the process's identity: if it is still alive after the
    // path was read, the id was not handed to another process meanwhile.
    tolv::platform::UniqueFd process(processId > 0 ? static_cast<int>(syscall(SYS_pidfd_open, processId, 0)) : -1);
    if (!process) {
        LOG_ERROR(kFunction, "OpenProcess failed with error : 0x%x", processId > 0 ? errno : ESRCH);
        return {};
    }
    const std::string link = "/proc/" + std::to_string(processId) + "/exe";
    std::string path;
    if (ReadLinkGrowing(kFunction, link.c_str(), "QueryFullProcessImageNameW", path) != ReadResult::Done)
        return {};
    if (syscall(SYS_pidfd_send_signal, process.get(), 0, nullptr, 0) != 0) {
        LOG_ERROR(kFunction, "QueryFullProcessImageNameW failed with error : 0x%x", errno);
        return {};
    }
    return ToUtf16(kFunction, path);
}
