#include "peer/InterruptWatch.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace {

sigset_t InterruptSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

} // namespace

InterruptWatch::InterruptWatch()
{
    const sigset_t set = InterruptSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    m_signals.reset(signalfd(-1, &set, SFD_CLOEXEC));
    m_stop.reset(eventfd(0, EFD_CLOEXEC));
    if (m_signals && m_stop)
        m_thread = std::thread([this] { Watch(); });
}

InterruptWatch::~InterruptWatch()
{
    if (m_thread.joinable()) {
        const uint64_t one = 1;
        (void)!write(m_stop.get(), &one, sizeof one);
        m_thread.join();
    }
    const sigset_t set = InterruptSignals();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void InterruptWatch::OnInterrupt(std::function<void()> callback)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_signal.load() == 0)
        m_callback = std::move(callback);
    else if (callback)
        callback();
}

void InterruptWatch::Watch()
{
    pollfd fds[2] = {{m_signals.get(), POLLIN, 0}, {m_stop.get(), POLLIN, 0}};
    for (;;) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        if (fds[1].revents != 0)
            return;
        signalfd_siginfo info {};
        if (read(m_signals.get(), &info, sizeof info) != static_cast<ssize_t>(sizeof info))
            continue;
        // The callback runs under the lock, so that replacing it waits for a
        // run in progress: what it touches may go once it is replaced.
        std::lock_guard<std::mutex> lock(m_mutex);
        int none = 0;
        if (!m_signal.compare_exchange_strong(none, static_cast<int>(info.ssi_signo)))
            continue;  // a second signal changes nothing
        if (m_callback)
            m_callback();
        m_callback = nullptr;
    }
}
