#include "common/ChildProcess.h"

#include <tolv/platform/UniqueFd.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>

extern char** environ;

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env)
{
    std::vector<std::string> environment = env, args = argv;
    for (char** e = environ; *e; ++e) {
        const std::string entry = *e, name = entry.substr(0, entry.find('=') + 1);
        if (std::none_of(env.begin(), env.end(), [&](const std::string& set) { return set.rfind(name, 0) == 0; }))
            environment.push_back(entry);
    }
    std::vector<char*> envp, argp;
    for (auto& entry : environment)
        envp.push_back(entry.data());
    for (auto& arg : args)
        argp.push_back(arg.data());
    envp.push_back(nullptr);
    argp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    const std::string out = m_dir.file("stdout"), err = m_dir.file("stderr");
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (posix_spawnp(&m_pid, argp[0], &actions, nullptr, argp.data(), envp.data()) != 0)
        m_pid = -1;
    posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess()
{
    Kill(SIGKILL);
    if (m_pid > 0)
        waitpid(m_pid, nullptr, 0);
}

int ChildProcess::Wait(std::chrono::milliseconds timeout)
{
    if (m_pid <= 0)
        return m_status;
    tolv::platform::UniqueFd exited(static_cast<int>(syscall(SYS_pidfd_open, m_pid, 0)));
    pollfd pfd{exited.get(), POLLIN, 0};
    int ready = 1;  // without a pidfd, waits without a time-out
    while (exited && (ready = poll(&pfd, 1, static_cast<int>(timeout.count()))) < 0 && errno == EINTR) {
    }
    if (ready == 0)
        Kill(SIGKILL);
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
    m_status = ready == 0            ? -2000
               : WIFEXITED(status) ? static_cast<int8_t>(WEXITSTATUS(status))
                                   : -1000 - WTERMSIG(status);
    return m_status;
}

void ChildProcess::Kill(int signal)
{
    if (m_pid > 0)
        kill(m_pid, signal);
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string ReadAllFiles(const std::string& directory)
{
    std::string all;
    DIR* dir = opendir(directory.c_str());
    while (dirent* entry = dir ? readdir(dir) : nullptr) {
        if (entry->d_type == DT_REG)
            all += ReadFile(directory + "/" + entry->d_name);
    }
    if (dir)
        closedir(dir);
    return all;
}
