#pragma once
// The glue between the IPC library and the drive service: admission of the
// peer's command streams, one drive request per message, and the process's
// quit decision when the last command stream goes down.

#include <tamsel/ipc/ipclibMsg.h>
#include <tamsel/ipc/ipclibStream.h>
#include "worker/StorageDrives.h"

#include "corvantabase/PollExitFlag.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace tolv::worker {

// Accepted command streams; changed only by atomic increment and decrement.
extern std::atomic<int32_t> connectionCount;
// The poll loop's exit flag; only ever raised.
extern PollExitFlag quitPoll;
// Makes the 5-second quit decision and the accept decision exclusive.
extern std::mutex quitMutex;

inline constexpr char16_t kTolvPeerExecutable[] = u"veltrane-protocol.exe";
inline constexpr char16_t kTolvCommandStream[] = u"tolvCommands";
// Replies of one stream that may wait for the peer to take them before the
// stream's next request is served.
inline constexpr uint32_t kMaxRepliesInFlight = 8;

// The only executable admitted: veltrane-protocol.exe beside `ownPath`.
std::u16string TolvExpectedPeerPath(const std::u16string& ownPath);

void TolvClientWorkerOnConnect(std::shared_ptr<tamsel::ipc::KxIpclibStream> stream);
void TolvClientWorkerOnCommand(KxIpcStatusCode status, std::shared_ptr<tamsel::ipc::KxIpclibMsg> msg,
                               const std::shared_ptr<StorageDrives>& drives);

} // namespace tolv::worker
