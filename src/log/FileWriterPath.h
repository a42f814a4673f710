#pragma once
// Paths in the log folder, shared by the file writer's naming and its
// retention scan.

#include <string>

namespace tolv::log {

// `name` inside `folder`, which may or may not end in a separator.
inline std::string JoinPath(const std::string& folder, const std::string& name)
{
    if (folder.empty() || folder.back() == '/')
        return folder + name;
    return folder + "/" + name;
}

} // namespace tolv::log
