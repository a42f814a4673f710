#include "apps/tamsel/lib/ipc/ipclib/ipclibConfig.h"

#include "apps/tamsel/lib/ipc/ipclib/ipclibLinkListenerRpcLinux.h"
#include "apps/tamsel/lib/ipc/ipclib/ipclibTrace.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>

namespace tamsel::ipc {

namespace {

constexpr const char* kIpclibTraceFile = "apps\\tamsel\\lib\\ipc\\ipclib\\ipclibConfig";
constexpr const char* kModuleName = "libipclibRpc-dynamic-md.so";
constexpr const char* kEntryPoints[4] = {"IsRpcServerRegistered", "RpcServerRegister", "RpcServerUnregister",
                                         "RpcServerRegisterV2"};

struct RpcLibKey {
    const char* key;
    const char* found;
};
constexpr RpcLibKey kRpcLibKeys[4] = {
    {"Software\\Policies\\Corvanta\\Veltrane\\KxIpc", "< Found path from policy settings"},
    {"Software\\Policies\\Pelloran, Inc.\\Pelloran Orvik\\KxIpc", "< Found path from legacy policy settings"},
    {"Software\\Corvanta\\Veltrane\\KxIpc", "< Found path from registry settings"},
    {"Software\\Pelloran, Inc.\\Pelloran Orvik\\KxIpc", "< Found path from legacy registry settings"},
};

// The registration mutex and everything it guards.
std::mutex g_regMutex;
uint32_t g_localRegisterCount = 0;
uint32_t g_moduleRegisterCount = 0;
struct Module {
    bool loaded = false;  // the load was tried
    std::shared_ptr<void> handle;
    std::array<void*, 4> entries{};
};
Module g_module;

// Cached values; guarded by their own mutex so that a test can forget them.
std::mutex g_cacheMutex;
std::optional<std::string> g_dllPath;
std::optional<bool> g_deny;

void ModuleTrace(const char* text)
{
    KXIPC_TRACE(Listener, "- {}", text ? text : "");
}

// The entry in `dir` whose name matches `name` without regard to case.
std::optional<std::string> FindEntry(const std::string& dir, const std::string& name)
{
    DIR* d = ::opendir(dir.c_str());
    if (!d)
        return std::nullopt;
    std::optional<std::string> found;
    while (dirent* e = ::readdir(d)) {
        if (::strcasecmp(e->d_name, name.c_str()) == 0) {
            found = dir + "/" + e->d_name;
            break;
        }
    }
    ::closedir(d);
    return found;
}

std::string MachineRoot()
{
    const char* root = std::getenv("LXREG_ROOT");
    return root && *root ? std::string(root) + "/HKLM" : std::string("/etc/lxreg/HKLM");
}

uint32_t StoreNumber(const std::string& text)
{
    errno = 0;
    char* end = nullptr;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || v > UINT32_MAX)
        return 0;
    return static_cast<uint32_t>(v);
}

void* EntryLocked(uint32_t index)
{
    if (!g_module.loaded) {
        g_module.loaded = true;
        const std::string path = GetRpcServerDllPath();
        void* handle = path.empty() ? nullptr : ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle) {
            g_module.handle = std::shared_ptr<void>(handle, [](void* h) { ::dlclose(h); });
            for (size_t i = 0; i < 4; ++i)
                g_module.entries[i] = ::dlsym(handle, kEntryPoints[i]);
        }
    }
    return index < 4 ? g_module.entries[index] : nullptr;
}

} // namespace

KxIpcStatusCode KxIpcStatusFromSystem(uint32_t systemStatus)
{
    switch (systemStatus) {
    case kSysSuccess:
        return KxIpcStatusSuccess;
    case kSysAccessDenied:
        return KxIpcStatusAccessDenied;
    case kSysOutOfMemory:
        return KxIpcStatusOutOfMemory;
    case kSysInvalidParameter:
    case kSysInvalidEndpointFormat:
        return KxIpcStatusInvalidParam;
    case kSysServerUnavailable:
        return KxIpcStatusNotFound;
    case kSysDuplicateEndpoint:
    case kSysAlreadyRegistered:
        return KxIpcStatusAlreadyExists;
    default:
        return KxIpcStatusUnexpected;
    }
}

uint32_t SystemStatusFromErrno(int err)
{
    switch (err) {
    case 0:
        return kSysSuccess;
    case EACCES:
    case EPERM:
        return kSysAccessDenied;
    case ENOMEM:
        return kSysOutOfMemory;
    case EINVAL:
        return kSysInvalidParameter;
    case ENOENT:
    case ECONNREFUSED:
        return kSysServerUnavailable;
    case EADDRINUSE:
        return kSysDuplicateEndpoint;
    case EEXIST:
        return kSysAlreadyRegistered;
    default:
        return kSysCallFailed;
    }
}

std::optional<std::string> KxIpclibRuntimeDir()
{
    std::string dir;
    bool ours = true;  // a folder we name for ourselves must be ours
    if (const char* env = std::getenv("IPCLIB_RUNTIME_DIR"); env && *env) {
        dir = env;
        ours = false;
    } else if (::geteuid() == 0) {
        dir = "/run/ipclib";
    } else if (const char* xdg = std::getenv("XDG_RUNTIME_DIR"); xdg && *xdg) {
        dir = std::string(xdg) + "/ipclib";
    } else {
        dir = "/tmp/ipclib-" + std::to_string(::geteuid());
    }
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST)
        return std::nullopt;
    struct stat st {};
    if (::lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return std::nullopt;
    if (ours && st.st_uid != ::geteuid())
        return std::nullopt;
    return dir;
}

std::string KxIpclibEndpointSocketPath(const std::string& runtimeDir, const _GUID& endpoint)
{
    return fmt::format("{}/{}", runtimeDir, endpoint);
}

std::string KxIpclibReadyFilePath(const std::string& runtimeDir, const _GUID& endpoint)
{
    return fmt::format("{}/ipclibLinkReady({})", runtimeDir, endpoint);
}

std::optional<std::string> ReadMachineStoreString(const std::string& keyPath, const std::string& valueName)
{
    std::string dir = MachineRoot();
    std::stringstream parts(keyPath);
    std::string part;
    while (std::getline(parts, part, '\\')) {
        if (part.empty())
            continue;
        auto next = FindEntry(dir, part);
        if (!next)
            return std::nullopt;
        dir = *next;
    }
    auto file = FindEntry(dir, valueName);
    if (!file)
        return std::nullopt;
    struct stat st {};
    if (::stat(file->c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return std::nullopt;
    std::ifstream in(*file, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in && !in.eof())
        return std::nullopt;
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

bool DenyClientProcessHandleUseOnServer()
{
    std::lock_guard<std::mutex> guard(g_cacheMutex);
    if (g_deny) {
        KXIPC_TRACE(Listener, "< Using cached value: {}", *g_deny);
        return *g_deny;
    }
    const auto text = ReadMachineStoreString("Software\\Corvanta\\Veltrane\\KxIpc", "DenyClientProcessHandleUseOnServer");
    g_deny = text && StoreNumber(*text) != 0;
    return *g_deny;
}

std::string CreateAbsPath(const std::string& base, const std::string& name)
{
    if (!name.empty() && name.front() == '/')
        return name;
    std::string out = base;
    if (!out.empty() && out.back() != '/')
        out.push_back('/');
    out += name;
    KXIPC_TRACE(Listener, "< Filename with path: {}", out);
    return out;
}

namespace {

// readlink of the executable into buffers of 2,048, 4,096 and 8,192 bytes.
std::string GetMyModuleFilename()
{
    size_t size = 2048;
    for (int attempt = 0; attempt < 3; ++attempt, size *= 2) {
        std::string buf(size, '\0');
        const ssize_t n = ::readlink("/proc/self/exe", buf.data(), buf.size());
        if (n < 0) {
            KXIPC_TRACE(Listener, "- Unexpected error, status: {}", errno);
            return {};
        }
        if (static_cast<size_t>(n) < buf.size()) {
            buf.resize(static_cast<size_t>(n));
            KXIPC_TRACE(Listener, "- Found path: {}", buf);
            return buf;
        }
    }
    KXIPC_TRACE(Listener, "- Max try reached");
    return {};
}

} // namespace

std::string GetExePath()
{
    const std::string name = GetMyModuleFilename();
    if (name.empty()) {
        KXIPC_TRACE(Listener, "< exe path not found");
        return {};
    }
    const size_t slash = name.rfind('/');
    if (slash == std::string::npos) {
        KXIPC_TRACE(Listener, "< path string invalid: {}", name);
        return {};
    }
    KXIPC_TRACE(Listener, "< ModuleFilename: {}", name);
    return name.substr(0, slash + 1);
}

std::string GetRpcServerDllPath()
{
    std::lock_guard<std::mutex> guard(g_cacheMutex);
    if (g_dllPath) {
        KXIPC_TRACE(Listener, "< Found path from cache");
        return *g_dllPath;
    }
    std::string path;
    for (const auto& choice : kRpcLibKeys) {
        auto value = ReadMachineStoreString(choice.key, "RpcRegLibPath");
        if (!value)
            continue;
        KXIPC_TRACE(Listener, "{}", choice.found);
        if (value->empty() || value->find('\0') != std::string::npos) {
            KXIPC_TRACE(Listener, "< invalid string");
            break;
        }
        KXIPC_TRACE(Listener, "< using: {}", *value);
        // A relative value is taken from the executable's folder.
        path = CreateAbsPath(GetExePath(), *value);
        break;
    }
    if (path.empty()) {
        KXIPC_TRACE(Listener, "< Using absolute path of executable");
        const std::string exe = GetExePath();
        if (!exe.empty())
            path = CreateAbsPath(exe, kModuleName);
    }
    g_dllPath = path;
    return path;
}

void* getRpcServerFunction(const _GUID&, uint32_t index)
{
    std::lock_guard<std::mutex> guard(g_regMutex);
    if (index >= 4) {
        KXIPC_TRACE(Listener, "< Invalid function type");
        return nullptr;
    }
    void* entry = EntryLocked(index);
    KXIPC_TRACE(Listener, "< status: {}, procAddress: {}", entry ? 0 : kSysModuleNotFound, entry);
    return entry;
}

namespace {

uint32_t CheckLocked(KxIpclibLinkListenerRpcLinux& listener)
{
    KXIPC_TRACE(Listener, "> ep: {}", listener.endpoint());
    const bool module = listener.useRpcServerModule();
    if (module && g_localRegisterCount != 0) {
        KXIPC_TRACE(Listener, "< status: {}, local rpc register count: {}", kSysInvalidParameter, g_localRegisterCount);
        return kSysInvalidParameter;
    }
    auto isRegistered = reinterpret_cast<KxIpclibIsRpcServerRegisteredFn>(EntryLocked(0));
    if (module && !isRegistered) {
        KXIPC_TRACE(Listener, "< status: {}", kSysModuleNotFound);
        return kSysModuleNotFound;
    }
    if (!module && isRegistered && (isRegistered() & 0xFF) != 0) {
        KXIPC_TRACE(Listener, "< status: {}", kSysInvalidParameter);
        return kSysInvalidParameter;
    }
    KXIPC_TRACE(Listener, "< status: {}", kSysSuccess);
    return kSysSuccess;
}

} // namespace

uint32_t CheckRpcServerRegUsage(KxIpclibLinkListenerRpcLinux& listener)
{
    std::lock_guard<std::mutex> guard(g_regMutex);
    return CheckLocked(listener);
}

uint32_t rpcRegisterIf(KxIpclibLinkListenerRpcLinux& listener, const void* securityDescriptor)
{
    KXIPC_TRACE(Listener, "> ep: {}", listener.endpoint());
    std::lock_guard<std::mutex> guard(g_regMutex);
    const uint32_t check = CheckLocked(listener);
    if (check != kSysSuccess) {
        KXIPC_TRACE(Listener, "< status: {}", check);
        return kSysAccessDenied;
    }
    uint32_t rpcStatus = kSysSuccess;
    listener.registration = 0;
    if (listener.useRpcServerModule()) {
        auto registerV2 = reinterpret_cast<KxIpclibRpcServerRegisterV2Fn>(EntryLocked(3));
        if (!registerV2) {
            rpcStatus = kSysServerUnavailable;
        } else {
            const _GUID endpoint = listener.endpoint();
            rpcStatus = registerV2(&endpoint, &KxIpclibCreateSharedMemoryLinkCallback, &ModuleTrace, securityDescriptor);
            if (rpcStatus == kSysSuccess) {
                ++g_moduleRegisterCount;
                listener.registration = 2;
            }
        }
    } else {
        // Serving the procedures needs nothing process-wide beyond the count:
        // every local listener answers on its own socket.
        ++g_localRegisterCount;
        listener.registration = 1;
    }
    KXIPC_TRACE(Listener, "< rpcStatus: {}", rpcStatus);
    return rpcStatus;
}

uint32_t rpcUnRegisterIf(KxIpclibLinkListenerRpcLinux& listener)
{
    KXIPC_TRACE(Listener, "> ep: {}", listener.endpoint());
    std::lock_guard<std::mutex> guard(g_regMutex);
    uint32_t rpcStatus = kSysSuccess;
    if (listener.registration == 1) {
        --g_localRegisterCount;
        listener.registration = 0;
    } else if (listener.registration == 2) {
        auto unregister = reinterpret_cast<KxIpclibRpcServerUnregisterFn>(EntryLocked(2));
        if (!unregister) {
            rpcStatus = kSysCallFailed;
        } else {
            const _GUID endpoint = listener.endpoint();
            rpcStatus = unregister(&endpoint, &ModuleTrace);
            --g_moduleRegisterCount;
            listener.registration = 0;
        }
    }
    KXIPC_TRACE(Listener, "< rpcStatus: {}", rpcStatus);
    return rpcStatus;
}

KxIpclibRegisterCounts KxIpclibRegisterCountsNow()
{
    std::lock_guard<std::mutex> guard(g_regMutex);
    return {g_localRegisterCount, g_moduleRegisterCount};
}

void KxIpclibConfigResetForTesting()
{
    {
        std::lock_guard<std::mutex> guard(g_cacheMutex);
        g_dllPath.reset();
        g_deny.reset();
    }
    std::lock_guard<std::mutex> guard(g_regMutex);
    if (g_moduleRegisterCount == 0)
        g_module = Module{};
}

} // namespace tamsel::ipc

extern "C" uint32_t KxIpclibCreateSharedMemoryLinkCallback(int callSocket, const uint8_t* request, size_t requestSize,
                                                           int clientPipe)
{
    return tamsel::ipc::KxIpclibLinkListenerRpcLinux::serveCall(callSocket, request, requestSize,
                                                                tolv::platform::UniqueFd(clientPipe));
}
