#pragma once
#include <cstdint>
#include <string>

// A fresh private directory, removed with everything in it when it goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Writes `size` bytes of a position-dependent pattern (seeded) to `path`.
void WritePatternFile(const std::string& path, size_t size, uint32_t seed = 1);
// The byte that WritePatternFile puts at `offset`.
uint8_t PatternByte(uint64_t offset, uint32_t seed = 1);
