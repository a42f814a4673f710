// Latency of the task executor against a bare floor:
//   work:  submitWork to the start of its callback;
//   wait:  an eventfd write to the start of the wait task's callback;
//   floor: an eventfd write to the return of a read() blocked in another thread.
// Each sample is one-way and taken one at a time (the next starts when the
// previous has been acknowledged). Prints median and p99 of each and the ratio
// of the executor's medians to the floor's.
//
//   taskLatencyBench [samples]

#include "task/LinuxThreadPoolExecutor.h"

#include <tolv/log/Log.h>
#include "log/LoggerManager.h"
#include <tolv/platform/UniqueFd.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

using namespace tolv::log;

using Clock = std::chrono::steady_clock;
using tamsel::task::LinuxThreadPoolExecutor;

namespace {

void Post(int fd)
{
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(fd, &one, sizeof one);
}

void Take(int fd)
{
    uint64_t value;
    [[maybe_unused]] ssize_t n = ::read(fd, &value, sizeof value);
}

struct Stats {
    double median;
    double p99;
};

Stats Summarise(std::vector<double>& samples)
{
    std::sort(samples.begin(), samples.end());
    return {samples[samples.size() / 2], samples[samples.size() * 99 / 100]};
}

double Micros(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::micro>(to - from).count();
}

} // namespace

int main(int argc, char** argv)
{
    LogToStandardError("taskLatencyBench", LOG_LEVEL_ERROR);
    const size_t samples = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 20000;
    auto executor = LinuxThreadPoolExecutor::create();
    tolv::platform::UniqueFd ack(::eventfd(0, EFD_CLOEXEC));
    std::atomic<Clock::time_point::rep> sentAt{0};
    std::vector<double> work, wait, floor;
    work.reserve(samples);
    wait.reserve(samples);
    floor.reserve(samples);
    auto since = [&](Clock::time_point now) {
        return Micros(Clock::time_point(Clock::duration(sentAt.load(std::memory_order_acquire))), now);
    };

    // Work: submit to callback.
    auto workTask = executor->createWorkTask([&](void*, void*) {
        work.push_back(since(Clock::now()));
        Post(ack.get());
    });
    for (size_t i = 0; i < samples; ++i) {
        sentAt.store(Clock::now().time_since_epoch().count(), std::memory_order_release);
        executor->submitWork(workTask, {}, {});
        Take(ack.get());
    }

    // Wait: eventfd signal to wait callback.
    tolv::platform::UniqueFd event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    auto waitTask = executor->createWaitTask(event.get(), [&] {
        const auto now = Clock::now();
        Take(event.get());
        wait.push_back(since(now));
        Post(ack.get());
    });
    for (size_t i = 0; i < samples; ++i) {
        executor->armWait(waitTask);
        sentAt.store(Clock::now().time_since_epoch().count(), std::memory_order_release);
        Post(event.get());
        Take(ack.get());
    }
    executor->closeWorkTask(workTask);
    executor->closeWaitTask(waitTask);

    // Floor: two threads and two eventfds, nothing else.
    tolv::platform::UniqueFd ping(::eventfd(0, EFD_CLOEXEC));
    std::thread partner([&] {
        for (size_t i = 0; i < samples; ++i) {
            Take(ping.get());
            floor.push_back(since(Clock::now()));
            Post(ack.get());
        }
    });
    for (size_t i = 0; i < samples; ++i) {
        sentAt.store(Clock::now().time_since_epoch().count(), std::memory_order_release);
        Post(ping.get());
        Take(ack.get());
    }
    partner.join();

    const Stats w = Summarise(work), e = Summarise(wait), f = Summarise(floor);
    std::printf("one-way latency over %zu samples each (microseconds)\n", samples);
    std::printf("  %-34s median %7.2f   p99 %7.2f\n", "work submit -> callback", w.median, w.p99);
    std::printf("  %-34s median %7.2f   p99 %7.2f\n", "eventfd signal -> wait callback", e.median, e.p99);
    std::printf("  %-34s median %7.2f   p99 %7.2f\n", "floor: eventfd ping-pong", f.median, f.p99);
    std::printf("  ratio to floor (median): work %.2f, wait %.2f\n", w.median / f.median, e.median / f.median);
    return 0;
}
