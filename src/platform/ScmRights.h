#pragma once
// Descriptors that arrived with a message (SCM_RIGHTS), each taken into an
// owner at once so that none can leak, whatever else the message holds.

#include <tolv/platform/UniqueFd.h>

#include <sys/socket.h>

#include <vector>

namespace tolv::platform {

void TakeScmRights(msghdr& msg, std::vector<UniqueFd>& out);

} // namespace tolv::platform
