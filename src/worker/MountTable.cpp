#include "worker/MountTable.h"

#include <sys/sysmacros.h>

#include <fstream>
#include <sstream>
#include <cstdio>
#include <cstdlib>

namespace tolv::worker {

namespace {

// mountinfo escapes blank, tab, newline and backslash as \ooo.
std::string Unescape(std::string_view field)
{
    std::string out;
    out.reserve(field.size());
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            const char a = field[i + 1], b = field[i + 2], c = field[i + 3];
            if (a >= '0' && a <= '3' && b >= '0' && b <= '7' && c >= '0' && c <= '7') {
                out.push_back(static_cast<char>((a - '0') * 64 + (b - '0') * 8 + (c - '0')));
                i += 3;
                continue;
            }
        }
        out.push_back(field[i]);
    }
    return out;
}

} // namespace

std::vector<MountEntry> ParseMountsOfDevice(std::string_view mountinfo, dev_t device)
{
    // Each line: id parent major:minor root mount-point options ...
    std::vector<MountEntry> points;
    size_t lineStart = 0;
    while (lineStart < mountinfo.size()) {
        size_t lineEnd = mountinfo.find('\n', lineStart);
        if (lineEnd == std::string_view::npos)
            lineEnd = mountinfo.size();
        const std::string_view line = mountinfo.substr(lineStart, lineEnd - lineStart);
        lineStart = lineEnd + 1;

        std::string_view fields[5];
        size_t pos = 0;
        size_t count = 0;
        while (count < 5 && pos < line.size()) {
            size_t end = line.find(' ', pos);
            if (end == std::string_view::npos)
                end = line.size();
            fields[count++] = line.substr(pos, end - pos);
            pos = end + 1;
        }
        if (count < 5)
            continue;
        unsigned major = 0, minor = 0;
        const std::string numbers(fields[2]);
        char tail = 0;
        if (std::sscanf(numbers.c_str(), "%u:%u%c", &major, &minor, &tail) != 2)
            continue;
        const std::string id(fields[0]);
        char* end = nullptr;
        const unsigned long long mountId = std::strtoull(id.c_str(), &end, 10);
        if (end == id.c_str() || *end != '\0')
            continue;
        if (makedev(major, minor) == device)
            points.push_back({mountId, Unescape(fields[4])});
    }
    return points;
}

std::vector<MountEntry> MountsOfDevice(dev_t device)
{
    std::ifstream file("/proc/self/mountinfo");
    std::stringstream text;
    text << file.rdbuf();
    return ParseMountsOfDevice(text.str(), device);
}

} // namespace tolv::worker
