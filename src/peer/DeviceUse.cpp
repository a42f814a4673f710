#include "peer/DeviceUse.h"

#include "worker/MountTable.h"

#include <dirent.h>
#include <sys/stat.h>

#include <memory>

using namespace tolv::worker;

std::vector<std::string> MountPointsOf(dev_t device)
{
    std::vector<std::string> points;
    for (const MountEntry& entry : MountsOfDevice(device))
        points.push_back(entry.point);
    return points;
}

int DescriptorsOn(pid_t pid, dev_t device)
{
    const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(folder.c_str()), closedir);
    if (!dir)
        return -1;
    int count = 0;
    while (const dirent* entry = readdir(dir.get())) {
        if (entry->d_name[0] == '.')
            continue;
        struct stat st {};
        const std::string link = folder + "/" + entry->d_name;
        if (stat(link.c_str(), &st) == 0 && S_ISBLK(st.st_mode) && st.st_rdev == device)
            ++count;
    }
    return count;
}
