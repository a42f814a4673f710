#include "support/LxEvent.h"

#include <tolv/log/Log.h>
#include "platform/SysCall.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

using namespace tolv::log;

namespace {

uint64_t NowNs()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000ull + static_cast<uint64_t>(t.tv_nsec);
}

// Milliseconds left until `deadline`, rounded up so that a wait never wakes
// just before its deadline and spins.
int RemainingMs(uint64_t deadline)
{
    const uint64_t now = NowNs();
    if (now >= deadline)
        return 0;
    const uint64_t ms = (deadline - now + 999999) / 1000000;
    return ms > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(ms);
}

bool Readable(short revents)
{
    return (revents & (POLLIN | POLLHUP)) != 0;
}

// Takes the signal of an auto-reset event; returns the count taken, 0 when
// another waiter was first.
uint64_t Take(const LxEventData& data)
{
    uint64_t value = 0;
    const ssize_t n = tolv::platform::RetryOnEintr([&] { return ::read(data.Handle(), &value, sizeof value); });
    return n == sizeof value ? value : 0;
}

// Whether the signal of `data` is the caller's now: manual-reset events and
// foreign descriptors stay signalled, auto-reset ones must be taken.
bool Claim(const LxEventData& data)
{
    return data.m_kind != LxEventData::Kind::AutoReset || Take(data) != 0;
}

} // namespace

LxEvent::LxEvent(bool manualReset, bool initiallySignalled, const std::string& name)
{
    tolv::platform::UniqueFd fd(::eventfd(initiallySignalled ? 1 : 0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!fd) {
        LOG_ERRNO_AT(LOG_LEVEL_ERROR, "LxEvent::LxEvent()", "Cannot create event %s", name.c_str());
        return;
    }
    m_data = MakeRC<LxEventData>(std::move(fd),
                                 manualReset ? LxEventData::Kind::ManualReset : LxEventData::Kind::AutoReset, true);
}

LxEvent::LxEvent(int fd, bool ownsHandle)
{
    if (fd >= 0)
        m_data = MakeRC<LxEventData>(tolv::platform::UniqueFd(fd), LxEventData::Kind::Descriptor, ownsHandle);
}

bool LxEvent::Set() const
{
    if (!IsValid() || m_data->m_kind == LxEventData::Kind::Descriptor)
        return false;
    const uint64_t one = 1;
    const ssize_t n = tolv::platform::RetryOnEintr([&] { return ::write(m_data->Handle(), &one, sizeof one); });
    // EAGAIN: the counter is at its limit, which is signalled all the same.
    return n == sizeof one || errno == EAGAIN;
}

bool LxEvent::Reset() const
{
    if (!IsValid() || m_data->m_kind == LxEventData::Kind::Descriptor)
        return false;
    uint64_t value = 0;
    const ssize_t n = tolv::platform::RetryOnEintr([&] { return ::read(m_data->Handle(), &value, sizeof value); });
    return n == sizeof value || errno == EAGAIN;
}

int32_t LxEvent::Wait(uint32_t timeoutMs) const
{
    LxEvent* self = const_cast<LxEvent*>(this); // the wait changes no handle
    return WaitForMultiple({self}, false, timeoutMs, false);
}

int32_t LxEvent::WaitForMultiple(const std::vector<LxEvent*>& events, bool waitAll, uint32_t timeoutMs,
                                 bool alertable)
{
    if (events.empty() || events.size() > kMaxWaitObjects)
        return kFailed;
    pollfd fds[kMaxWaitObjects];
    const nfds_t count = events.size();
    for (nfds_t i = 0; i < count; ++i) {
        if (!events[i] || !events[i]->IsValid())
            return kFailed;
        fds[i] = {events[i]->GetHandle(), POLLIN, 0};
    }
    const bool infinite = timeoutMs == kInfinite;
    const uint64_t deadline = infinite ? 0 : NowNs() + static_cast<uint64_t>(timeoutMs) * 1000000ull;

    for (;;) {
        const int rc = ::poll(fds, count, infinite ? -1 : RemainingMs(deadline));
        if (rc < 0) {
            if (errno != EINTR)
                return kFailed;
            if (alertable)
                return kAlerted;
            continue;
        }
        for (nfds_t i = 0; i < count; ++i) {
            if (fds[i].revents & POLLNVAL)
                return kFailed;
        }
        if (rc > 0 && !waitAll) {
            for (nfds_t i = 0; i < count; ++i) {
                if (Readable(fds[i].revents) && Claim(*events[i]->m_data))
                    return static_cast<int32_t>(i);
            }
        } else if (rc > 0) {
            // Wait-all: poll the rest until every one is ready, then take them.
            bool all = true;
            for (nfds_t i = 0; i < count; ++i) {
                if (Readable(fds[i].revents))
                    fds[i].fd = -1; // ready: no need to poll it again
                else if (fds[i].fd >= 0)
                    all = false;
            }
            if (all) {
                pollfd check[kMaxWaitObjects];
                for (nfds_t i = 0; i < count; ++i)
                    check[i] = {events[i]->GetHandle(), POLLIN, 0};
                bool stillAll = ::poll(check, count, 0) == static_cast<int>(count);
                for (nfds_t i = 0; i < count; ++i)
                    stillAll = stillAll && Readable(check[i].revents);
                if (stillAll) {
                    uint64_t taken[kMaxWaitObjects] = {};
                    nfds_t i = 0;
                    for (; i < count; ++i) {
                        const LxEventData& data = *events[i]->m_data;
                        if (data.m_kind != LxEventData::Kind::AutoReset)
                            continue;
                        if ((taken[i] = Take(data)) == 0)
                            break;
                    }
                    if (i == count)
                        return 0;
                    // Somebody took one first: give the others back and wait on.
                    for (nfds_t j = 0; j < i; ++j) {
                        if (taken[j])
                            (void)!::write(events[j]->GetHandle(), &taken[j], sizeof taken[j]);
                    }
                }
                for (nfds_t i = 0; i < count; ++i)
                    fds[i].fd = Readable(check[i].revents) ? -1 : events[i]->GetHandle();
                bool anyLeft = false;
                for (nfds_t i = 0; i < count; ++i)
                    anyLeft = anyLeft || fds[i].fd >= 0;
                if (!anyLeft) // ready but taken by others: poll them all again
                    for (nfds_t i = 0; i < count; ++i)
                        fds[i].fd = events[i]->GetHandle();
            }
        }
        if (!infinite && NowNs() >= deadline)
            return kTimeout;
    }
}
