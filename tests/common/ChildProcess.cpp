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
#include <cstdlib>
#include <fstream>
#include <sstream>

extern char** environ;

namespace {

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env)
{
    char dirTemplate[] = "/tmp/tolv-child-XXXXXX";
    if (!mkdtemp(dirTemplate))
        return;
    m_dir = dirTemplate;

    std::vector<std::string> environment;
    for (char** e = environ; *e; ++e) {
        const std::string entry = *e;
        const std::string name = entry.substr(0, entry.find('='));
        const bool replaced = std::any_of(env.begin(), env.end(), [&](const std::string& add) {
            return add.compare(0, name.size() + 1, name + "=") == 0;
        });
        if (!replaced)
            environment.push_back(entry);
    }
    environment.insert(environment.end(), env.begin(), env.end());
    std::vector<char*> envp;
    for (auto& entry : environment)
        envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::vector<std::string> args = argv;
    std::vector<char*> argp;
    for (auto& arg : args)
        argp.push_back(arg.data());
    argp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    const std::string out = m_dir + "/stdout";
    const std::string err = m_dir + "/stderr";
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    if (posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), envp.data()) == 0)
        m_pid = pid;
    posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess()
{
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    if (!m_dir.empty()) {
        unlink((m_dir + "/stdout").c_str());
        unlink((m_dir + "/stderr").c_str());
        rmdir(m_dir.c_str());
    }
}

int ChildProcess::Wait(std::chrono::milliseconds timeout)
{
    if (m_pid > 0) {
        tolv::platform::UniqueFd exited(static_cast<int>(syscall(SYS_pidfd_open, m_pid, 0)));
        bool overran = false;
        if (exited) {
            pollfd pfd{exited.get(), POLLIN, 0};
            int ready;
            do {
                ready = poll(&pfd, 1, static_cast<int>(timeout.count()));
            } while (ready < 0 && errno == EINTR);
            if (ready == 0) {
                overran = true;
                kill(m_pid, SIGKILL);
            }
        }
        int status = 0;
        while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
        }
        m_pid = -1;
        m_exited = true;
        m_status = overran ? -2000
                   : WIFEXITED(status) ? static_cast<int8_t>(WEXITSTATUS(status))
                                       : -1000 - WTERMSIG(status);
    }
    return m_status;
}

void ChildProcess::Kill(int signal)
{
    if (m_pid > 0)
        kill(m_pid, signal);
}

std::string ChildProcess::Stdout() const
{
    return ReadFile(m_dir + "/stdout");
}

std::string ChildProcess::Stderr() const
{
    return ReadFile(m_dir + "/stderr");
}

std::string ReadAllFiles(const std::string& directory)
{
    std::string all;
    DIR* dir = opendir(directory.c_str());
    if (!dir)
        return all;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_type == DT_REG)
            all += ReadFile(directory + "/" + entry->d_name);
    }
    closedir(dir);
    return all;
}
