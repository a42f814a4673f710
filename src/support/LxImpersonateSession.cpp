#include "support/LxImpersonateSession.h"

#include <tolv/log/Log.h>
#include "platform/Utf.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

using namespace tolv::log;

namespace {

// The kernel applies these to the calling thread alone; "unchanged" is -1.
int SetThreadGroups(const std::vector<gid_t>& groups)
{
    return static_cast<int>(syscall(SYS_setgroups, groups.size(), groups.data()));
}

int SetThreadEffectiveGid(gid_t gid)
{
    return static_cast<int>(syscall(SYS_setresgid, static_cast<gid_t>(-1), gid, static_cast<gid_t>(-1)));
}

int SetThreadEffectiveUid(uid_t uid)
{
    return static_cast<int>(syscall(SYS_setresuid, static_cast<uid_t>(-1), uid, static_cast<uid_t>(-1)));
}

std::string NameText(const std::u16string& name)
{
    return tolv::platform::Utf16ToUtf8(name).value_or(std::string());
}

} // namespace

LxImpersonateSession::~LxImpersonateSession()
{
    Reset();
}

std::unique_ptr<ProcessUtils::UserToken> LxImpersonateSession::GetUserToken(uint32_t sessionId)
{
    const char* function = "LxImpersonateSession::GetUserToken()";
    const int id = static_cast<int>(sessionId);
    if (sessionId == 0) {
        LOG_WARN(function, "SessionID(%d) - Impersonating session 0 not allowed", id);
        return nullptr;
    }
    uid_t uid = 0;
    if (!ProcessUtils::GetSessionLoginUid(sessionId, &uid)) {
        LOG_WARN(function, "SessionID(%d) - Nobody is logged on", id);
        return nullptr;
    }
    ProcessUtils::UserToken source;
    if (!ProcessUtils::GetUserTokenFromUserDatabase(uid, &source)) {
        LOG_ERRNO_AT(LOG_LEVEL_ERROR, function, "SessionID(%d) - WTSQueryUserToken() failed", id);
        // A user missing from the user database can still be taken from a
        // process of the caller's own session that runs as that user.
        if (ProcessUtils::GetSessionID(true, ProcessUtils::kNoSession) != sessionId)
            return nullptr;
        if (!ProcessUtils::GetUserTokenFromSessionProcess(sessionId, uid, &source)) {
            LOG_ERROR(function, "SessionID(%d) - GetShellWindow() failed", id);
            return nullptr;
        }
    }
    auto token = std::make_unique<ProcessUtils::UserToken>(std::move(source));
    LOG_AT(LOG_LEVEL_VERBOSE, function, "SessionID(%d) - user token 0x%p [OK]", id, static_cast<void*>(token.get()));
    return token;
}

bool LxImpersonateSession::Init(uint32_t sessionId)
{
    const char* function = "LxImpersonateSession::Init()";
    uint32_t id = ProcessUtils::kNoSession;
    if (!ProcessUtils::IsValidSession(sessionId, &id)) {
        LOG_ERROR(function, "Invalid session ID %d", static_cast<int>(sessionId));
        return false;
    }
    if (m_token) {
        if (id == m_sessionId) {
            LOG_WARN(function, "Already impersonating session %d", static_cast<int>(id));
            return true;
        }
        if (m_impersonating) {
            LOG_ERROR(function, "Attempt to impersonate session %d ignored, already impersonating session %d",
                      static_cast<int>(id), static_cast<int>(m_sessionId));
            return false;
        }
        Reset();
    }
    std::unique_ptr<ProcessUtils::UserToken> token = GetUserToken(id);
    if (!token) {
        LOG_ERROR(function, "Failed to get user token for session %d", static_cast<int>(id));
        return false;
    }
    m_token = std::move(token);
    m_sessionId = id;
    m_userName = ProcessUtils::GetSessionUserName(id);
    return true;
}

bool LxImpersonateSession::Start()
{
    const char* function = "LxImpersonateSession::Start()";
    if (m_impersonating)
        return true;
    if (!m_token) {
        LOG_WARN(function, "Not initialized on session %d", static_cast<int>(m_sessionId));
        return false;
    }
    m_savedUid = geteuid();
    m_savedGid = getegid();
    const int count = getgroups(0, nullptr);
    m_savedGroups.assign(count > 0 ? static_cast<size_t>(count) : 0, 0);
    if (count < 0 || getgroups(count, m_savedGroups.data()) != count) {
        LOG_ERRNO_AT(LOG_LEVEL_WARN, function, "SessionID(%d) - ImpersonateLoggedOnUser() failed",
                     static_cast<int>(m_sessionId));
        return false;
    }
    // Groups and gid first: once the uid changes the thread may no longer set them.
    if (SetThreadGroups(m_token->groups) != 0 || SetThreadEffectiveGid(m_token->gid) != 0 ||
        SetThreadEffectiveUid(m_token->uid) != 0) {
        const int err = errno;
        SetThreadEffectiveUid(m_savedUid);
        SetThreadEffectiveGid(m_savedGid);
        SetThreadGroups(m_savedGroups);
        LogWithErrorCode(err, function, LOG_LEVEL_WARN, "SessionID(%d) - ImpersonateLoggedOnUser() failed",
                         static_cast<int>(m_sessionId));
        return false;
    }
    m_thread = gettid();
    m_savedThreadSession = ProcessUtils::GetSessionID(true, ProcessUtils::kNoSession);
    ProcessUtils::SetThreadSession(m_sessionId);
    m_impersonating = true;
    LOG_DEBUG(function, "Impersonating %s on session %d started", NameText(m_userName).c_str(),
              static_cast<int>(m_sessionId));
    return true;
}

bool LxImpersonateSession::Revert()
{
    // Another thread's credentials are not ours to change.
    if (gettid() != m_thread) {
        errno = EPERM;
        return false;
    }
    // The uid first: it brings back the privilege the other two need.
    if (SetThreadEffectiveUid(m_savedUid) != 0 || SetThreadEffectiveGid(m_savedGid) != 0 ||
        SetThreadGroups(m_savedGroups) != 0)
        return false;
    ProcessUtils::SetThreadSession(m_savedThreadSession);
    return true;
}

bool LxImpersonateSession::Stop()
{
    const char* function = "LxImpersonateSession::Stop()";
    if (!m_impersonating)
        return true;
    if (!Revert()) {
        LOG_ERRNO_AT(LOG_LEVEL_WARN, function, "SessionID(%d) - RevertToSelf() failed",
                     static_cast<int>(m_sessionId));
        return false;
    }
    m_impersonating = false;
    LOG_DEBUG(function, "Impersonating %s on session %d stopped", NameText(m_userName).c_str(),
              static_cast<int>(m_sessionId));
    return true;
}

void LxImpersonateSession::Reset()
{
    if (m_impersonating) {
        Revert();
        m_impersonating = false;
    }
    m_token.reset();
    m_sessionId = ProcessUtils::kNoSession;
    m_userName.clear();
}
