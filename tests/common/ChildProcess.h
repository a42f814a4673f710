#pragma once
// A program run by a test: started with posix_spawnp, its standard output and
// error captured in files, waited for with a time-out (and killed when it runs
// over), never left behind.

#include "common/TempDir.h"

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

std::string ReadFile(const std::string& path);
// The text of every regular file in `directory` (not recursive), joined.
std::string ReadAllFiles(const std::string& directory);

class ChildProcess {
public:
    // `env` entries ("NAME=value") are added to (or replace in) our environment.
    ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});
    ~ChildProcess();

    pid_t pid() const { return m_pid; }
    // The exit code as a signed byte (-1 reads as -1); -1000 - signal when killed
    // by one; -2000 when it overran `timeout` (then killed); -3000 if never started.
    int Wait(std::chrono::milliseconds timeout = std::chrono::minutes(2));
    void Kill(int signal);
    std::string Stdout() const { return ReadFile(m_dir.file("stdout")); }
    std::string Stderr() const { return ReadFile(m_dir.file("stderr")); }

private:
    pid_t m_pid = -1;
    int m_status = -3000;
    TempDir m_dir;
};
