#pragma once
// A drive path as the peer sees it on its own side of the machine: the form
// sent to the worker (absolute, and \\.\NAME for any block device under /dev,
// however it was named), and, when a query fails, why in words.

#include <sys/types.h>

#include <string>

class LocalDrivePath {
public:
    // `cwd` makes a relative path absolute; empty: the current folder.
    static LocalDrivePath Resolve(const std::string& given, const std::string& cwd = "");

    const std::string& given() const { return m_given; }
    // What the worker is asked to open.
    const std::string& sent() const { return m_sent; }
    bool isDevice() const { return m_isDevice; }
    // The device node (/dev/NAME) of a device path.
    const std::string& devicePath() const { return m_devicePath; }
    // The device number of a device path, 0 when it cannot be seen here.
    dev_t device() const { return m_device; }

    // Why the worker cannot open it, as far as this process can tell (the
    // worker runs as the same user): "no such file or directory", "is a
    // directory", "not a regular file or block device", "a file of a proc
    // file system, not storage", "permission denied", "device or resource
    // busy"...; empty when it opens here.
    std::string WhyNotOpenable() const;

private:
    std::string m_given;
    std::string m_sent;
    std::string m_devicePath;
    bool m_isDevice = false;
    dev_t m_device = 0;
};
