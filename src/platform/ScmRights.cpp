#include "platform/ScmRights.h"

#include <cstring>

namespace tolv::platform {

void TakeScmRights(msghdr& msg, std::vector<UniqueFd>& out)
{
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS || c->cmsg_len < CMSG_LEN(0))
            continue;
        const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd;
            std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
            out.emplace_back(fd);
        }
    }
}

} // namespace tolv::platform
