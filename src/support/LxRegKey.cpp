#include "support/LxRegKey.h"

#include <tolv/log/Log.h>
#include "support/ProcessUtils.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

using namespace tolv::log;

namespace {

std::string StoreRoot(const char* shortName)
{
    const char* root = getenv("LXREG_ROOT");
    if (root && *root)
        return std::string(root) + "/" + shortName;
    if (std::string(shortName) == "HKCU") {
        const char* config = getenv("XDG_CONFIG_HOME");
        if (config && *config)
            return std::string(config) + "/lxreg/HKCU";
        const char* home = getenv("HOME");
        return std::string(home && *home ? home : "/") + "/.config/lxreg/HKCU";
    }
    return std::string("/etc/lxreg/") + shortName;
}

// The HKCU of another user: below HKU in a store given by $LXREG_ROOT, else
// that user's own configuration folder.
std::string UserHive(const std::string& uidText)
{
    const char* root = getenv("LXREG_ROOT");
    if (root && *root)
        return std::string(root) + "/HKU/" + uidText;
    std::vector<char> buffer(16384);
    struct passwd entry {};
    struct passwd* found = nullptr;
    const uid_t uid = static_cast<uid_t>(strtoul(uidText.c_str(), nullptr, 10));
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || !found || !*found->pw_dir)
        return {};
    return std::string(found->pw_dir) + "/.config/lxreg/HKCU";
}

uint32_t ErrorFromErrno(int err)
{
    switch (err) {
    case ENOENT:
    case ENOTDIR:
        return LxRegKey::kErrorNotFound;
    case EACCES:
    case EPERM:
        return LxRegKey::kErrorAccessDenied;
    default:
        return LxRegKey::kErrorOther;
    }
}

} // namespace

LxRegKey::LxRegKey(std::string location, View view, int32_t sessionId)
    : m_location(std::move(location)), m_view(view), m_sessionId(sessionId)
{
}

LxRegKey::~LxRegKey() = default;

std::string LxRegKey::RootFolder(const std::string& rootName)
{
    static const struct {
        const char* shortName;
        const char* longName;
    } kRoots[] = {
        {"HKLM", "HKEY_LOCAL_MACHINE"}, {"HKCU", "HKEY_CURRENT_USER"}, {"HKU", "HKEY_USERS"},
        {"HKCR", "HKEY_CLASSES_ROOT"},  {"HKCC", "HKEY_CURRENT_CONFIG"},
    };
    for (const auto& root : kRoots)
        if (strcasecmp(rootName.c_str(), root.shortName) == 0 || strcasecmp(rootName.c_str(), root.longName) == 0)
            return StoreRoot(root.shortName);
    return {};
}

std::string LxRegKey::FindEntry(const std::string& folder, const std::string& name)
{
    DIR* dir = opendir(folder.c_str());
    if (!dir)
        return {};
    std::string found;
    while (dirent* entry = readdir(dir)) {
        if (strcasecmp(entry->d_name, name.c_str()) == 0 && strcmp(entry->d_name, ".") != 0 &&
            strcmp(entry->d_name, "..") != 0) {
            found = entry->d_name;
            break;
        }
    }
    closedir(dir);
    return found;
}

uint32_t LxRegKey::OpenKey()
{
    const char* function = "LxRegKey::OpenKey()";
    if (m_handle && m_openedSessionId != m_sessionId)
        CloseKey();
    if (m_handle)
        return 0;

    const size_t split = m_location.find_first_of("\\/");
    const std::string rootName = m_location.substr(0, split);
    if (rootName.empty()) {
        LOG_WARN(function, "Missing root key \"%s\"", m_location.c_str());
        return kErrorBadFormat;
    }
    std::string path = RootFolder(rootName);
    if (path.empty()) {
        LOG_WARN(function, "Invalid root key \"%s\"", m_location.c_str());
        return kErrorBadFormat;
    }
    if (split == std::string::npos || split + 1 >= m_location.size()) {
        LOG_WARN(function, "Missing key name \"%s\"", m_location.c_str());
        return kErrorBadFormat;
    }
    const bool currentUser =
        strcasecmp(rootName.c_str(), "HKCU") == 0 || strcasecmp(rootName.c_str(), "HKEY_CURRENT_USER") == 0;
    if (currentUser && m_sessionId != -1) {
        // The HKCU of the user logged on to that session.
        char* sid = nullptr;
        if (!ProcessUtils::GetUserSIDForSession(static_cast<uint32_t>(m_sessionId), &sid, LOG_LEVEL_ERROR))
            return kErrorNotFound;
        path = UserHive(sid);
        free(sid);
        if (path.empty()) {
            LOG_ERROR(function, "%s - RegOpenCurrentUser() failed", m_location.c_str());
            return kErrorNotFound;
        }
    }
    // Each folder of the sub-key matches without regard to case.
    size_t at = split + 1;
    while (at <= m_location.size()) {
        const size_t next = std::min(m_location.find_first_of("\\/", at), m_location.size());
        const std::string part = m_location.substr(at, next - at);
        at = next + 1;
        if (part.empty())
            continue;
        if (part == "." || part == "..") {
            LOG_WARN(function, "Invalid key name \"%s\"", m_location.c_str());
            return kErrorBadFormat;
        }
        const std::string entry = FindEntry(path, part);
        path += "/" + (entry.empty() ? part : entry);
    }
    tolv::platform::UniqueFd handle(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!handle) {
        const int err = errno;
        const uint32_t error = ErrorFromErrno(err);
        if (error != kErrorNotFound)
            LogWithErrorCode(err, function, LOG_LEVEL_ERROR, "RegOpenKeyEx(%s) failed", m_location.c_str());
        return error;
    }
    m_handle = std::move(handle);
    m_path = path;
    m_openedSessionId = m_sessionId;
    LOG_AT(LOG_LEVEL_VERBOSE, function, "key %s opened", m_location.c_str());
    return 0;
}

void LxRegKey::CloseKey()
{
    m_handle.reset();
    m_path.clear();
}

void LxRegKey::SetSessionID(int32_t sessionId)
{
    const char* function = "LxRegKey::SetSessionID()";
    if (sessionId < -1) {
        LOG_WARN(function, "key %s - invalid session ID %d", m_location.c_str(), sessionId);
        return;
    }
    if (!m_handle) {
        LOG_AT(LOG_LEVEL_VERBOSE, function, "key %s - not opened yet, reopen ignored", m_location.c_str());
    }
    m_sessionId = sessionId;
}
