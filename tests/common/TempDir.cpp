#include "common/TempDir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

TempDir::TempDir() : m_path(std::string(getenv("TMPDIR") && *getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp"))
{
    m_path += "/tolv-test-XXXXXX";
    if (!mkdtemp(m_path.data()))
        throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

uint8_t PatternByte(uint64_t offset, uint32_t seed)
{
    uint64_t x = (offset / 8 + 1) * 0x9E3779B97F4A7C15ull ^ (uint64_t{seed} << 32);
    x ^= x >> 29;
    return static_cast<uint8_t>(x >> (8 * (offset % 8)));
}

void WritePatternFile(const std::string& path, size_t size, uint32_t seed)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    std::vector<char> chunk(1 << 16);
    for (size_t done = 0; done < size; done += chunk.size()) {
        for (size_t i = 0; i < chunk.size(); ++i)
            chunk[i] = static_cast<char>(PatternByte(done + i, seed));
        out.write(chunk.data(), static_cast<std::streamsize>(std::min(chunk.size(), size - done)));
    }
    if (!out)
        throw std::runtime_error("writing " + path + " failed");
}
