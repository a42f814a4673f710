// A list of what is allowed, not of what is refused: a pseudo file system
// added to a later kernel is then refused until someone looks at it.

#include "worker/FileSystemKind.h"

#include <sys/vfs.h>

namespace tolv::worker {

namespace {

struct KnownFileSystem {
    uint64_t magic;
    const char* name;
    bool holdsStorage;
};

constexpr KnownFileSystem kKnown[] = {
    // Disk-backed.
    {0xEF53, "ext2/ext3/ext4", true},
    {0x58465342, "xfs", true},
    {0x9123683E, "btrfs", true},
    {0xF2F52010, "f2fs", true},
    {0xCA451A4E, "bcachefs", true},
    {0x4D44, "vfat", true},
    {0x2011BAB0, "exfat", true},
    {0x5346544E, "ntfs", true},
    {0x3153464A, "jfs", true},
    {0x52654973, "reiserfs", true},
    {0x4244, "hfs", true},
    {0x482B, "hfsplus", true},
    {0x15013346, "udf", true},
    {0x9660, "iso9660", true},
    {0x73717368, "squashfs", true},
    {0xE0F5E1E2, "erofs", true},
    {0x2FC12FC1, "zfs", true},
    {0x3434, "nilfs2", true},
    {0x7461636F, "ocfs2", true},
    {0x01161970, "gfs2", true},
    {0x794C7630, "overlay", true},
    // Network storage.
    {0x6969, "nfs", true},
    {0xFF534D42, "cifs", true},
    {0xFE534D42, "smb2", true},
    {0x00C36400, "ceph", true},
    // Memory.
    {0x01021994, "tmpfs", true},
    {0x858458F6, "ramfs", true},
    // Kernel interfaces, named for the log line.
    {0x9FA0, "proc", false},
    {0x62656572, "sysfs", false},
    {0x64626720, "debugfs", false},
    {0x74726163, "tracefs", false},
    {0x73636673, "securityfs", false},
    {0x27E0EB, "cgroup", false},
    {0x63677270, "cgroup2", false},
    {0xCAFE4A11, "bpf", false},
    {0x6165676C, "pstore", false},
    {0xDE5E81E4, "efivarfs", false},
    {0x62656570, "configfs", false},
    {0x42494E4D, "binfmt_misc", false},
    {0x65735543, "fusectl", false},
    {0x1CD1, "devpts", false},
    {0x19800202, "mqueue", false},
    {0xF97CFF8C, "selinuxfs", false},
    {0x43415D53, "smackfs", false},
    {0x6E736673, "nsfs", false},
    {0x50495045, "pipefs", false},
    {0x534F434B, "sockfs", false},
    {0x09041934, "anon_inode", false},
    {0x958458F6, "hugetlbfs", false},
    {0x65735546, "fuse", false},
};

} // namespace

FileSystemKind ClassifyFileSystem(uint64_t magic)
{
    for (const auto& known : kKnown) {
        if (known.magic == magic)
            return {known.name, known.holdsStorage};
    }
    return {"unknown", false};
}

bool FileSystemOf(int fd, FileSystemKind& kind, uint64_t& magic)
{
    struct statfs fs {};
    if (::fstatfs(fd, &fs) != 0)
        return false;
    // f_type is a signed word; the magic numbers are 32-bit patterns.
    magic = static_cast<uint32_t>(fs.f_type);
    kind = ClassifyFileSystem(magic);
    return true;
}

} // namespace tolv::worker
