#pragma once
// Lets one thread act as the user logged on to a login session: Init finds
// the session's user once, Start switches the calling thread's credentials
// (uid, gid, groups) to that user and Stop switches them back. Only the
// calling thread changes: the credential system calls are made raw, since the
// C library's wrappers apply them to every thread of the process. Switching
// needs the privilege to (root or CAP_SETUID and CAP_SETGID).
//
// No lock: one owner uses the object from its own thread, and Start and Stop
// must run on the same thread.

#include "support/ProcessUtils.h"
#include "support/RCObject.h"

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class LxImpersonateSession : public RCObject {
public:
    LxImpersonateSession() = default;
    ~LxImpersonateSession() override;
    LxImpersonateSession(const LxImpersonateSession&) = delete;
    LxImpersonateSession& operator=(const LxImpersonateSession&) = delete;

    // Takes the user of `sessionId` (kNoSession: the caller's own session).
    bool Init(uint32_t sessionId);
    bool Start();
    bool Stop();
    void Reset();

    uint32_t SessionId() const { return m_sessionId; }
    bool IsImpersonating() const { return m_impersonating; }

private:
    // The session's user, or null with the reason logged.
    static std::unique_ptr<ProcessUtils::UserToken> GetUserToken(uint32_t sessionId);
    // Back to the thread's own credentials; false leaves it impersonating.
    bool Revert();

    uint32_t m_sessionId = ProcessUtils::kNoSession;
    std::unique_ptr<ProcessUtils::UserToken> m_token;
    bool m_impersonating = false;
    std::u16string m_userName;

    // The thread's own credentials, saved by Start.
    pid_t m_thread = 0;
    uid_t m_savedUid = 0;
    gid_t m_savedGid = 0;
    std::vector<gid_t> m_savedGroups;
    uint32_t m_savedThreadSession = ProcessUtils::kNoSession;
};
