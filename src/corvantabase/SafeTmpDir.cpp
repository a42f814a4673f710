#include "corvantabase/SafeTmpDir.h"

#include <tolv/log/Log.h>
#include "platform/SysCall.h"
#include <tolv/platform/UniqueFd.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace tolv::log;

namespace {

constexpr const char* kFunction = "File_GetSafeTmpDir()";

std::string BaseDir()
{
    const char* tmpdir = std::getenv("TMPDIR");
    if (tmpdir && tmpdir[0] == '/')
        return tmpdir;
    return "/tmp";
}

} // namespace

char* File_GetSafeTmpDir(bool /*useConf*/)
{
    const uid_t uid = geteuid();
    std::string path = BaseDir();
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    if (path.back() != '/')
        path += '/';
    path += "corvanta-" + std::to_string(uid);

    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        LOG_ERRNO_AT(LOG_LEVEL_ERROR, kFunction, "Failed to create the directory %s.", path.c_str());
        return nullptr;
    }
    // Check what the name holds now through a descriptor that cannot follow a
    // symlink, so the checks and the answer are about the same object.
    tolv::platform::UniqueFd dir(tolv::platform::RetryOnEintr(
        [&] { return open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
    if (!dir) {
        LOG_ERRNO_AT(LOG_LEVEL_ERROR, kFunction, "%s is not a directory of its own.", path.c_str());
        return nullptr;
    }
    struct stat st {};
    if (fstat(dir.get(), &st) != 0) {
        LOG_ERRNO_AT(LOG_LEVEL_ERROR, kFunction, "Failed to inspect %s.", path.c_str());
        return nullptr;
    }
    if (st.st_uid != uid) {
        LOG_ERROR(kFunction, "%s belongs to user %u, not to %u.", path.c_str(), static_cast<unsigned>(st.st_uid),
                  static_cast<unsigned>(uid));
        return nullptr;
    }
    if ((st.st_mode & 077) != 0) {
        LOG_ERROR(kFunction, "%s is open to other users (mode %03o).", path.c_str(),
                  static_cast<unsigned>(st.st_mode & 0777));
        return nullptr;
    }

    char* result = strdup(path.c_str());
    if (!result)
        LOG_ERROR(kFunction, "Failed to allocate memory (size: %d).", static_cast<int>(path.size() + 1));
    return result;
}
