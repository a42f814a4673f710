#pragma once
// Process and session queries shared by the support library and the logging
// framework. On Linux a session is a login session: the audit session id of
// /proc/PID/sessionid, whose user is the login uid of its processes; a user's
// SID is the uid in decimal. Session 0 stands for processes outside any login
// session (services), as it does for the unset audit session.

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace ProcessUtils {

// No session; callers also pass it to mean the caller's own.
constexpr uint32_t kNoSession = 0xFFFFFFFF;

// A session's user as a thread would take it on: the user's ids and groups.
struct UserToken {
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
};

// `sessionId` when it names one. Else the session the calling thread
// impersonates (with `useThreadToken`), else the process's; kNoSession when
// nothing can be read.
uint32_t GetSessionID(bool useThreadToken, uint32_t sessionId);

// The uid of the session's user as newly allocated text (release with free).
// `logLevel` -1 keeps the failure lines out of the log.
bool GetUserSIDForSession(uint32_t sessionId, char** sidText, int32_t logLevel);

// The session exists (session 0 always does); `resolvedId` receives the id
// that `sessionId` stands for.
bool IsValidSession(uint32_t sessionId, uint32_t* resolvedId = nullptr);

// The session's user name; empty when nobody is logged on to it or the user
// has no name.
std::u16string GetSessionUserName(uint32_t sessionId);

// The process runs as root or as a system account: a uid up to SYS_UID_MAX of
// /etc/login.defs (999 without it), systemd's dynamic service users, or nobody.
bool IsServiceAccount();

// Names a thread of this process (its kernel thread id; kNoSession for the
// calling thread) for debuggers and ps. The kernel keeps 15 bytes of a name:
// a longer "module!name" keeps its thread part.
void SetThreadName(uint32_t threadId, const char* name);

// One line: PRETTY_NAME of os-release, the kernel release, ", 64-bit".
std::string GetOSVersionText();
// "version=" and the product version text, or "No version information" with
// the file time in brackets when there is one.
std::string GetModuleVersionText(const std::string& path);
// "<version> (<file time>)" for an executable that carries this system's
// version record; empty for any other file.
std::string GetFileProductVersionText(const std::string& path);
// The file's last-write time as "Mon dd yyyy hh:mm:ss" in local time; empty
// when the file cannot be read.
std::string GetFileTimeText(const std::string& path);

// Marks the calling thread as acting for `sessionId` (kNoSession: for
// itself); GetSessionID with `useThreadToken` answers it.
void SetThreadSession(uint32_t sessionId);

// The login uid of the session's user: false when no process of the session
// has one (nobody is logged on) or the session does not exist.
bool GetSessionLoginUid(uint32_t sessionId, uid_t* uid);

// The user's ids and groups from the user database; false with errno set when
// the user has none.
bool GetUserTokenFromUserDatabase(uid_t uid, UserToken* token);

// The ids and groups of a process of the session running as the session's
// user, the way its login shell holds them; false when there is none.
bool GetUserTokenFromSessionProcess(uint32_t sessionId, uid_t uid, UserToken* token);

} // namespace ProcessUtils
