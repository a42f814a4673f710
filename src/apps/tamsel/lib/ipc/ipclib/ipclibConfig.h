#pragma once
// Transport configuration and bootstrap registration.
//
// The bootstrap procedures are served either by this library itself ("local"
// registration, once for all local listeners of the process) or by the
// registration module libipclibRpc-dynamic-md.so, which owns the endpoint's
// socket and forwards each call through createSharedMemoryLinkCallback. A
// process never mixes the two. The module is found through "RpcRegLibPath" in
// the settings store (two policy keys, then two local keys), else beside the
// executable.
//
// Lock: one process-wide registration mutex guards the counts, every
// listener's registration state and the first load of the module; nothing is
// called with it held except the module's own entry points.

#include <tamsel/ipc/ipclibTypes.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

extern "C" {
// Trace line of the registration module, written to "ipc::listener".
typedef void (*KxIpclibModuleTraceFn)(const char* text);
// What the module calls for every bootstrap call it receives: the connected
// socket of the call (the caller is identified through it and the reply goes
// back on it), the request datagram and the descriptor that came with it (-1
// if none; taken over in every case). Returns 0 when the reply was sent, else
// the system status of the failed send (a caller that went away, for example).
typedef uint32_t (*KxIpclibCreateLinkCallbackFn)(int callSocket, const uint8_t* request, size_t requestSize,
                                                 int clientPipe);
// The library's callback as the module receives it.
uint32_t KxIpclibCreateSharedMemoryLinkCallback(int callSocket, const uint8_t* request, size_t requestSize,
                                                int clientPipe);
// The module's entry points, in index order.
typedef uint8_t (*KxIpclibIsRpcServerRegisteredFn)(void);
typedef uint32_t (*KxIpclibRpcServerRegisterFn)(const _GUID* endpoint, KxIpclibModuleTraceFn trace);
typedef uint32_t (*KxIpclibRpcServerUnregisterFn)(const _GUID* endpoint, KxIpclibModuleTraceFn trace);
typedef uint32_t (*KxIpclibRpcServerRegisterV2Fn)(const _GUID* endpoint, KxIpclibCreateLinkCallbackFn callback,
                                                  KxIpclibModuleTraceFn trace, const void* securityDescriptor);
}

namespace tamsel::ipc {

class KxIpclibLinkListenerRpcLinux;

// System statuses the transport reports (Win32 numbering, as the peers know them).
inline constexpr uint32_t kSysSuccess = 0;
inline constexpr uint32_t kSysAccessDenied = 5;
inline constexpr uint32_t kSysOutOfMemory = 14;
inline constexpr uint32_t kSysInvalidParameter = 87;
inline constexpr uint32_t kSysInsufficientBuffer = 122;
inline constexpr uint32_t kSysModuleNotFound = 1157;
inline constexpr uint32_t kSysInvalidEndpointFormat = 1706;
inline constexpr uint32_t kSysServerUnavailable = 1722;
inline constexpr uint32_t kSysCallFailed = 1726;
inline constexpr uint32_t kSysDuplicateEndpoint = 1740;
inline constexpr uint32_t kSysAlreadyRegistered = 1760;  // entry already exists

KxIpcStatusCode KxIpcStatusFromSystem(uint32_t systemStatus);
// errno in the system's numbering: EACCES 5, ENOMEM 14, EINVAL 87, ENOENT and
// ECONNREFUSED 1722, EADDRINUSE 1740, EEXIST 1760, anything else 1726.
uint32_t SystemStatusFromErrno(int err);

// The runtime directory of the bootstrap sockets and ready files, created 0700
// where this creates it; a directory of our own making that is a symlink or
// belongs to another user is refused (nullopt).
std::optional<std::string> KxIpclibRuntimeDir();
// "<runtime dir>/<endpoint>" and "<runtime dir>/ipclibLinkReady(<endpoint>)".
std::string KxIpclibEndpointSocketPath(const std::string& runtimeDir, const _GUID& endpoint);
std::string KxIpclibReadyFilePath(const std::string& runtimeDir, const _GUID& endpoint);

// A string value of HKEY_LOCAL_MACHINE in the settings store
// ($LXREG_ROOT/HKLM, else /etc/lxreg/HKLM); key path with '\\' separators,
// names compared without regard to case.
std::optional<std::string> ReadMachineStoreString(const std::string& keyPath, const std::string& valueName);

// Read once per process and cached.
bool DenyClientProcessHandleUseOnServer();
std::string GetRpcServerDllPath();
// The running executable's folder with a trailing '/', empty if not found.
std::string GetExePath();
// Joins a relative name with `base`; an absolute name is kept.
std::string CreateAbsPath(const std::string& base, const std::string& name);

// Entry point `index` (0..3) of the module, loading it on the first call; null
// when absent.
void* getRpcServerFunction(const _GUID& endpoint, uint32_t index);

uint32_t CheckRpcServerRegUsage(KxIpclibLinkListenerRpcLinux& listener);
uint32_t rpcRegisterIf(KxIpclibLinkListenerRpcLinux& listener, const void* securityDescriptor);
uint32_t rpcUnRegisterIf(KxIpclibLinkListenerRpcLinux& listener);

struct KxIpclibRegisterCounts {
    uint32_t local;
    uint32_t module;
};
KxIpclibRegisterCounts KxIpclibRegisterCountsNow();

// Forgets the cached module path, the cached deny value and the loaded module
// (only when nothing is registered through it), so that a test can change the
// settings store between cases.
void KxIpclibConfigResetForTesting();

} // namespace tamsel::ipc
