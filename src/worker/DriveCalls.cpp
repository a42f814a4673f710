#include "worker/DriveCalls.h"

#include "platform/Utf.h"

#include <atomic>

namespace tolv::worker {

namespace {
std::atomic<const DriveCallTable*> g_table{nullptr};
} // namespace

const DriveCallTable& DriveCalls()
{
    const DriveCallTable* table = g_table.load(std::memory_order_acquire);
    return table ? *table : LinuxDriveCalls();
}

const DriveCallTable* SetDriveCalls(const DriveCallTable* table)
{
    const DriveCallTable* previous = g_table.exchange(table, std::memory_order_acq_rel);
    return previous ? previous : &LinuxDriveCalls();
}

bool IsDevicePath(std::u16string_view path)
{
    return path.size() >= 3 && path[0] == u'\\' && path[1] == u'\\' && path[2] == u'.';
}

std::optional<std::string> DrivePathToLinux(std::u16string_view path)
{
    if (path.find(u'\0') != std::u16string_view::npos)
        return std::nullopt;
    auto utf8 = tolv::platform::Utf16ToUtf8(path);
    if (!utf8 || utf8->empty())
        return std::nullopt;
    if (!IsDevicePath(path))
        return (*utf8)[0] == '/' ? utf8 : std::nullopt;  // the worker's working directory means nothing to the peer
    // "\\.\" then the device name, whose components must stay below /dev.
    if (utf8->size() < 4 || (*utf8)[3] != '\\')
        return std::nullopt;
    std::string name = utf8->substr(4);
    for (char& c : name)
        if (c == '\\')
            c = '/';
    size_t start = 0;
    while (start <= name.size()) {
        size_t end = name.find('/', start);
        if (end == std::string::npos)
            end = name.size();
        const std::string_view part(name.data() + start, end - start);
        if (part.empty() || part == "." || part == "..")
            return std::nullopt;
        start = end + 1;
    }
    return "/dev/" + name;
}

} // namespace tolv::worker
