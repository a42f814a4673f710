#include "peer/WorkerLogLocation.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

std::string WorkerLogFolder()
{
    const char* tmp = std::getenv("TMPDIR");
    std::string base = tmp && tmp[0] == '/' ? tmp : "/tmp";
    while (base.size() > 1 && base.back() == '/')
        base.pop_back();
    return base + "/corvanta-" + std::to_string(geteuid()) + "/";
}

std::string WorkerLogLocation(pid_t pid)
{
    const std::string folder = WorkerLogFolder();
    if (pid <= 0)
        return folder;
    // The worker's files are named ...-SESSION-PID__TIME.log, or
    // ...-SESSION-PID(N)__TIME.log when it rolls them over.
    const std::string plain = "-" + std::to_string(pid) + "__";
    const std::string rolled = "-" + std::to_string(pid) + "(";
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(folder.c_str()), closedir);
    if (!dir)
        return folder;
    std::string newest;
    struct timespec newestTime {};
    while (const dirent* entry = readdir(dir.get())) {
        const std::string name = entry->d_name;
        if (name.find(plain) == std::string::npos && name.find(rolled) == std::string::npos)
            continue;
        if (name.size() < 4 || name.compare(name.size() - 4, 4, ".log") != 0)
            continue;
        struct stat st {};
        const std::string path = folder + name;
        if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
            continue;
        if (newest.empty() || st.st_mtim.tv_sec > newestTime.tv_sec ||
            (st.st_mtim.tv_sec == newestTime.tv_sec && st.st_mtim.tv_nsec > newestTime.tv_nsec)) {
            newest = path;
            newestTime = st.st_mtim;
        }
    }
    return newest.empty() ? folder : newest;
}
