#include "support/ProcessUtils.h"

#include <tolv/log/Log.h>
#include <tolv/platform/UniqueFd.h>
#include "platform/Utf.h"

#include <dirent.h>
#include <elf.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>

using namespace tolv::log;

#ifndef TOLV_VERSION_TEXT
#define TOLV_VERSION_TEXT "0.0.0"
#endif

namespace {

// The version record every program linked with this library carries, found
// by GetFileProductVersionText in the file itself.
constexpr char kVersionSection[] = ".tolv.version";
constexpr char kProductVersionKey[] = "ProductVersion=";
__attribute__((used, section(".tolv.version"))) const char kVersionRecord[] = "ProductVersion=" TOLV_VERSION_TEXT;

// The audit session that is not set: a process outside any login session.
constexpr unsigned long long kUnsetAuditValue = 0xFFFFFFFFull;

thread_local uint32_t t_threadSession = ProcessUtils::kNoSession;

// A number file of procfs ("sessionid", "loginuid"); false when unreadable.
bool ReadProcNumber(const std::string& path, unsigned long long* value)
{
    std::ifstream in(path);
    return static_cast<bool>(in >> *value);
}

uint32_t AuditToSession(unsigned long long value)
{
    return value == kUnsetAuditValue ? 0 : static_cast<uint32_t>(value);
}

// Calls `visit(pid)` for each process of the session until it returns true.
template <typename Visit>
bool ForEachSessionProcess(uint32_t sessionId, Visit visit)
{
    DIR* dir = opendir("/proc");
    if (!dir)
        return false;
    bool stopped = false;
    while (dirent* entry = readdir(dir)) {
        char* end = nullptr;
        const unsigned long pid = strtoul(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0')
            continue;
        unsigned long long audit = 0;
        const std::string base = "/proc/" + std::string(entry->d_name);
        if (!ReadProcNumber(base + "/sessionid", &audit) || AuditToSession(audit) != sessionId)
            continue;
        if (visit(static_cast<pid_t>(pid), base)) {
            stopped = true;
            break;
        }
    }
    closedir(dir);
    return stopped;
}

std::string OsReleasePrettyName()
{
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::ifstream in(path);
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("PRETTY_NAME=", 0) != 0)
                continue;
            std::string name = line.substr(12);
            if (name.size() >= 2 && (name.front() == '"' || name.front() == '\'') && name.back() == name.front())
                name = name.substr(1, name.size() - 2);
            if (!name.empty())
                return name;
        }
    }
    return {};
}

// The contents of the named section of an ELF file, at most `limit` bytes;
// false when the file is not a 64-bit ELF file or has no such section. Every
// offset and size read from the file is checked against the file's length.
bool ReadElfSection(const std::string& path, const char* wanted, size_t limit, std::string* contents)
{
    tolv::platform::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    const uint64_t fileSize = static_cast<uint64_t>(st.st_size);
    auto readAt = [&](void* to, uint64_t size, uint64_t offset) {
        return offset <= fileSize && size <= fileSize - offset &&
               pread(fd.get(), to, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
    };
    Elf64_Ehdr header {};
    if (!readAt(&header, sizeof header, 0) || memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_shentsize != sizeof(Elf64_Shdr) ||
        header.e_shnum == 0 || header.e_shstrndx >= header.e_shnum)
        return false;
    std::vector<Elf64_Shdr> sections(header.e_shnum);
    if (!readAt(sections.data(), sizeof(Elf64_Shdr) * sections.size(), header.e_shoff))
        return false;
    const Elf64_Shdr& names = sections[header.e_shstrndx];
    if (names.sh_size > (1u << 20))
        return false;
    std::string nameTable(names.sh_size, '\0');
    if (!readAt(nameTable.data(), nameTable.size(), names.sh_offset))
        return false;
    for (const Elf64_Shdr& section : sections) {
        if (section.sh_name >= nameTable.size() || section.sh_type == SHT_NOBITS)
            continue;
        const char* name = nameTable.c_str() + section.sh_name;
        if (strcmp(name, wanted) != 0)
            continue;
        contents->assign(std::min<uint64_t>(section.sh_size, limit), '\0');
        return readAt(contents->data(), contents->size(), section.sh_offset);
    }
    return false;
}

// The thread name the kernel can keep (15 bytes): a longer "module!name"
// gives up its module part first.
std::string KernelThreadName(const char* name)
{
    constexpr size_t kKernelNameLength = 15;
    std::string text = name ? name : "";
    if (text.size() > kKernelNameLength) {
        const size_t bang = text.find('!');
        if (bang != std::string::npos)
            text.erase(0, bang + 1);
    }
    return text.substr(0, kKernelNameLength);
}

} // namespace

namespace ProcessUtils {

void SetThreadSession(uint32_t sessionId)
{
    t_threadSession = sessionId;
}

uint32_t GetSessionID(bool useThreadToken, uint32_t sessionId)
{
    if (sessionId != kNoSession)
        return sessionId;
    if (useThreadToken && t_threadSession != kNoSession)
        return t_threadSession;
    unsigned long long audit = 0;
    if (!ReadProcNumber("/proc/self/sessionid", &audit)) {
        if (errno == 0)
            errno = ENOENT;
        LOG_ERRNO_AT(LOG_LEVEL_ERROR, "ProcessUtils::GetSessionID()", "ProcessIdToSessionId(%d) failed",
                     static_cast<int>(getpid()));
        return kNoSession;
    }
    return AuditToSession(audit);
}

bool GetSessionLoginUid(uint32_t sessionId, uid_t* uid)
{
    if (sessionId == 0 || sessionId == kNoSession)
        return false; // processes outside a login session have no login uid
    return ForEachSessionProcess(sessionId, [&](pid_t, const std::string& base) {
        unsigned long long login = 0;
        if (!ReadProcNumber(base + "/loginuid", &login) || login == kUnsetAuditValue)
            return false;
        *uid = static_cast<uid_t>(login);
        return true;
    });
}

bool GetUserTokenFromUserDatabase(uid_t uid, UserToken* token)
{
    std::vector<char> buffer(16384);
    struct passwd entry {};
    struct passwd* found = nullptr;
    const int rc = getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    if (!found) {
        errno = rc != 0 ? rc : ENOENT;
        return false;
    }
    int count = 32;
    std::vector<gid_t> groups(static_cast<size_t>(count));
    while (getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0)
        groups.resize(static_cast<size_t>(count));
    groups.resize(static_cast<size_t>(count));
    token->uid = uid;
    token->gid = entry.pw_gid;
    token->groups = std::move(groups);
    return true;
}

bool GetUserTokenFromSessionProcess(uint32_t sessionId, uid_t uid, UserToken* token)
{
    return ForEachSessionProcess(sessionId, [&](pid_t, const std::string& base) {
        std::ifstream in(base + "/status");
        bool uidMatches = false;
        bool haveGid = false;
        UserToken found;
        found.uid = uid;
        for (std::string line; std::getline(in, line);) {
            std::istringstream fields(line);
            std::string key;
            fields >> key;
            unsigned long value = 0;
            if (key == "Uid:") {
                fields >> value; // real uid
                uidMatches = fields && value == uid;
            } else if (key == "Gid:") {
                haveGid = static_cast<bool>(fields >> value);
                found.gid = static_cast<gid_t>(value);
            } else if (key == "Groups:") {
                while (fields >> value)
                    found.groups.push_back(static_cast<gid_t>(value));
            }
        }
        if (!uidMatches || !haveGid)
            return false;
        *token = std::move(found);
        return true;
    });
}

bool GetUserSIDForSession(uint32_t sessionId, char** sidText, int32_t logLevel)
{
    const char* function = "ProcessUtils::GetUserSIDForSession()";
    *sidText = nullptr;
    const uint32_t id = GetSessionID(true, sessionId);
    uid_t uid = 0;
    if (!GetSessionLoginUid(id, &uid)) {
        if (logLevel != -1)
            LogWithErrorCode(ENOENT, function, logLevel, "Unable to get user token of session (id: %d)",
                             static_cast<int>(id));
        return false;
    }
    const std::string text = std::to_string(uid);
    *sidText = strdup(text.c_str());
    if (!*sidText) {
        if (logLevel != -1)
            Log(function, logLevel, "Buffer allocation to store SID failed for session (id: %d), error number: %d",
                static_cast<int>(id), errno);
        return false;
    }
    return true;
}

bool IsValidSession(uint32_t sessionId, uint32_t* resolvedId)
{
    const uint32_t id = GetSessionID(true, sessionId);
    if (resolvedId)
        *resolvedId = id;
    if (id == kNoSession)
        return false;
    if (id == 0)
        return true;
    return ForEachSessionProcess(id, [](pid_t, const std::string&) { return true; });
}

std::u16string GetSessionUserName(uint32_t sessionId)
{
    uid_t uid = 0;
    if (!GetSessionLoginUid(GetSessionID(true, sessionId), &uid))
        return {};
    std::vector<char> buffer(16384);
    struct passwd entry {};
    struct passwd* found = nullptr;
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || !found)
        return {};
    return tolv::platform::Utf8ToUtf16(found->pw_name).value_or(std::u16string());
}

bool IsServiceAccount()
{
    // Checked in the order of the Windows accounts they stand for: the system
    // accounts of daemons (network and local service), then root (the system).
    const uid_t uid = getuid();
    unsigned long systemMax = 999;
    std::ifstream defs("/etc/login.defs");
    for (std::string line; std::getline(defs, line);) {
        std::istringstream fields(line);
        std::string key;
        unsigned long value = 0;
        if (fields >> key && key == "SYS_UID_MAX" && fields >> value)
            systemMax = value;
    }
    constexpr uid_t kDynamicFirst = 61184; // systemd's DynamicUser= range
    constexpr uid_t kDynamicLast = 65519;
    constexpr uid_t kNobody = 65534;
    if (uid >= 1 && uid <= systemMax)
        return true;
    if ((uid >= kDynamicFirst && uid <= kDynamicLast) || uid == kNobody)
        return true;
    return uid == 0;
}

void SetThreadName(uint32_t threadId, const char* name)
{
    const char* function = "ProcessUtils::SetThreadName()";
    static std::once_flag once;
    static bool supported = false;
    std::call_once(once, [&] {
        supported = access("/proc/thread-self/comm", W_OK) == 0;
        LOG_INFO(function, "SetThreadDescription() is%s supported", supported ? "" : " not");
    });
    const std::string kernelName = KernelThreadName(name);
    const bool calling = threadId == kNoSession || threadId == static_cast<uint32_t>(gettid());
    // Without procfs only the calling thread can be named.
    auto fallback = [&] {
        if (calling)
            prctl(PR_SET_NAME, kernelName.c_str(), 0, 0, 0);
    };
    if (!supported) {
        fallback();
        return;
    }
    const uint32_t tid = calling ? static_cast<uint32_t>(gettid()) : threadId;
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/comm";
    tolv::platform::UniqueFd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!fd) {
        LOG_ERRNO_AT(LOG_LEVEL_DEBUG, function, "OpenThread(0x%04X) failed", tid);
        fallback();
        return;
    }
    if (write(fd.get(), kernelName.data(), kernelName.size()) == static_cast<ssize_t>(kernelName.size())) {
        LOG_AT(LOG_LEVEL_VERBOSE, function, "SetThreadDescription(0x%04X, \"%s\") [OK]", tid, name ? name : "");
        return;
    }
    LOG_DEBUG(function, "SetThreadDescription(0x%04X, \"%s\") failed (err=0x%x)", tid, name ? name : "", errno);
    fallback();
}

std::string GetOSVersionText()
{
    static const std::string text = [] {
        std::string result = OsReleasePrettyName();
        if (result.empty())
            result = "Linux unknown";
        struct utsname names {};
        result += ", Version ";
        if (uname(&names) == 0)
            result += names.release;
        result += sizeof(void*) == 8 ? ", 64-bit" : ", 32-bit";
        return result;
    }();
    return text;
}

std::string GetFileTimeText(const std::string& path)
{
    if (path.empty())
        return {};
    tolv::platform::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!fd || fstat(fd.get(), &st) != 0)
        return {};
    struct tm parts {};
    if (!localtime_r(&st.st_mtime, &parts))
        return {};
    static const char* const kMonths[] = {"---", "Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const int month = parts.tm_mon + 1;
    char text[64];
    snprintf(text, sizeof text, "%s %2d %d %02d:%02d:%02d", kMonths[month >= 1 && month <= 12 ? month : 0],
             parts.tm_mday, parts.tm_year + 1900, parts.tm_hour, parts.tm_min, parts.tm_sec);
    return text;
}

std::string GetFileProductVersionText(const std::string& path)
{
    std::string record;
    if (path.empty() || !ReadElfSection(path, kVersionSection, 4096, &record))
        return {};
    // The section holds NUL-terminated "key=value" records; programs linked
    // from several copies of the library carry the record more than once.
    std::string version = "unknown";
    for (size_t at = 0; at < record.size();) {
        const size_t end = std::min(record.find('\0', at), record.size());
        const std::string entry = record.substr(at, end - at);
        if (entry.rfind(kProductVersionKey, 0) == 0 && entry.size() > strlen(kProductVersionKey)) {
            version = entry.substr(strlen(kProductVersionKey));
            break;
        }
        at = end + 1;
    }
    return version + " (" + GetFileTimeText(path) + ")";
}

std::string GetModuleVersionText(const std::string& path)
{
    const std::string product = GetFileProductVersionText(path);
    if (!product.empty())
        return "version=" + product;
    const std::string time = GetFileTimeText(path);
    if (!time.empty())
        return "No version information (" + time + ")";
    return "No version information";
}

} // namespace ProcessUtils
