#pragma once
// Endpoints in the runtime directory whose server is gone. A server killed
// outright leaves its socket file and ready file behind; every later start
// clears those, and only those: a socket whose probe connection is refused.
//
// Binding an endpoint and sweeping both hold the directory's lock file
// ("ipclib.lock", flock), so a sweep never meets a socket that is bound but not
// yet listening (which refuses connections too) and two sweeps never remove a
// file the other just made.

#include <tolv/platform/UniqueFd.h>

#include <string>
#include <vector>

namespace tamsel::ipc {

// Waits for the runtime directory's lock; invalid (errno set) when the lock
// file cannot be made or locked.
tolv::platform::UniqueFd KxIpclibLockRuntimeDir(const std::string& runtimeDir);

// Removes the socket and the ready file of every endpoint of this user in
// `runtimeDir` whose socket refuses a connection; returns those endpoints'
// names. Removes nothing when the lock cannot be had.
std::vector<std::string> KxIpclibRemoveStaleEndpoints(const std::string& runtimeDir);

} // namespace tamsel::ipc
