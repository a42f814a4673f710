#pragma once
// A private settings store: $LXREG_ROOT points at a fresh folder while this
// lives. Values are written aside and renamed in, so a watcher never reads
// half of one.

#include "common/TempDir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

class SettingsStore {
public:
    SettingsStore()
    {
        if (const char* saved = getenv("LXREG_ROOT"))
            m_savedRoot = saved;
        setenv("LXREG_ROOT", m_dir.path().c_str(), 1);
    }
    ~SettingsStore()
    {
        if (m_savedRoot)
            setenv("LXREG_ROOT", m_savedRoot->c_str(), 1);
        else
            unsetenv("LXREG_ROOT");
    }

    const std::string& path() const { return m_dir.path(); }

    // `key` as a folder path below the store: "HKLM/Software/...".
    void Put(const std::string& key, const std::string& name, const std::string& text) const
    {
        std::filesystem::create_directories(m_dir.path() + "/" + key);
        const std::string file = m_dir.path() + "/" + key + "/" + name;
        std::ofstream(file + ".new", std::ios::binary) << text;
        std::filesystem::rename(file + ".new", file);
    }
    void Remove(const std::string& key, const std::string& name) const
    {
        std::filesystem::remove(m_dir.path() + "/" + key + "/" + name);
    }

private:
    TempDir m_dir;
    std::optional<std::string> m_savedRoot;
};
