#include "support/LxEvent.h"

#include "SupportTestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <thread>

namespace {

TEST(LxEventTest, ManualResetStaysSignalledAutoResetReleasesOneWait)
{
    ResourceSnapshot resources;
    {
        LxEvent manual(true, false);
        EXPECT_EQ(manual.Wait(0), LxEvent::kTimeout);
        EXPECT_TRUE(manual.Set());
        EXPECT_TRUE(manual.Set());
        EXPECT_EQ(manual.Wait(0), 0);
        EXPECT_EQ(manual.Wait(0), 0);
        EXPECT_TRUE(manual.Reset());
        EXPECT_EQ(manual.Wait(0), LxEvent::kTimeout);

        LxEvent automatic(false, true);
        EXPECT_EQ(automatic.Wait(0), 0); // initially signalled
        EXPECT_EQ(automatic.Wait(0), LxEvent::kTimeout);
        automatic.Set();
        automatic.Set(); // two settings before a wait release one wait
        EXPECT_EQ(automatic.Wait(0), 0);
        EXPECT_EQ(automatic.Wait(0), LxEvent::kTimeout);

        LxEvent empty;
        EXPECT_FALSE(empty.IsValid());
        EXPECT_FALSE(empty.Set());
        EXPECT_EQ(empty.Wait(0), LxEvent::kFailed);
    }
    resources.Check();
}

TEST(LxEventTest, AutoResetSetReleasesExactlyOneOfTwoWaiters)
{
    LxEvent event(false, false);
    LxEvent done(false, false);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i) {
        waiters.emplace_back([&] {
            if (event.Wait() == 0) {
                ++released;
                done.Set();
            }
        });
    }
    event.Set();
    ASSERT_EQ(done.Wait(), 0);
    EXPECT_EQ(released, 1); // the second waiter needs a second setting
    event.Set();
    ASSERT_EQ(done.Wait(), 0);
    for (std::thread& t : waiters)
        t.join();
    EXPECT_EQ(released, 2);
}

TEST(LxEventTest, WaitForMultipleReportsTheLowestSignalledAndWaitAllNeedsEvery)
{
    LxEvent a(true, false);
    LxEvent b(false, false);
    LxEvent c(true, false);
    EXPECT_EQ(LxEvent::WaitForMultiple({&a, &b, &c}, false, 0), LxEvent::kTimeout);
    c.Set();
    b.Set();
    EXPECT_EQ(LxEvent::WaitForMultiple({&a, &b, &c}, false, 0), 1);
    EXPECT_EQ(LxEvent::WaitForMultiple({&a, &b, &c}, false, 0), 2); // b was taken; c stays signalled

    // A wake from another thread ends an infinite wait.
    std::thread setter([&] { a.Set(); });
    EXPECT_EQ(LxEvent::WaitForMultiple({&b, &a}, false, LxEvent::kInfinite), 1);
    setter.join();

    LxEvent empty;
    std::vector<LxEvent*> tooMany(LxEvent::kMaxWaitObjects + 1, &a);
    for (const std::vector<LxEvent*>& bad : {std::vector<LxEvent*>{&a, nullptr}, {&a, &empty}, {}, tooMany})
        EXPECT_EQ(LxEvent::WaitForMultiple(bad, false, 0), LxEvent::kFailed) << bad.size();

    // Wait-all: a (manual, set) alone is not enough; the auto-reset one is taken.
    EXPECT_EQ(LxEvent::WaitForMultiple({&a, &b}, true, 0), LxEvent::kTimeout);
    std::thread allSetter([&] { b.Set(); });
    EXPECT_EQ(LxEvent::WaitForMultiple({&a, &b}, true, LxEvent::kInfinite), 0);
    allSetter.join();
    EXPECT_EQ(b.Wait(0), LxEvent::kTimeout);
    EXPECT_EQ(a.Wait(0), 0);
}

// An event can wrap any descriptor; the settings watcher waits on inotify.
TEST(LxEventTest, ADescriptorEventIsSignalledWhileReadable)
{
    ResourceSnapshot resources;
    {
        char dir[] = "/tmp/lxevent-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        const std::string file = std::string(dir) + "/value";
        const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        ASSERT_GE(fd, 0);
        ASSERT_GE(inotify_add_watch(fd, dir, IN_CREATE), 0);
        LxEvent watch(fd, true);
        LxEvent stop(true, false);
        EXPECT_EQ(LxEvent::WaitForMultiple({&stop, &watch}, false, 0), LxEvent::kTimeout);
        EXPECT_FALSE(watch.Set()); // only its owner changes its state
        std::thread writer([&] { std::ofstream(file) << "1"; });
        EXPECT_EQ(LxEvent::WaitForMultiple({&stop, &watch}, false, LxEvent::kInfinite), 1);
        writer.join();
        EXPECT_EQ(watch.Wait(0), 0); // not consumed by the wait
        char buffer[4096];
        EXPECT_GT(read(fd, buffer, sizeof buffer), 0);
        EXPECT_EQ(watch.Wait(0), LxEvent::kTimeout);
        unlink(file.c_str());
        rmdir(dir);

        // Not owned: the descriptor outlives the event.
        int pipeFds[2];
        ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
        { LxEvent borrowed(pipeFds[0], false); }
        EXPECT_EQ(close(pipeFds[0]), 0);
        EXPECT_EQ(close(pipeFds[1]), 0);
    }
    resources.Check();
}

} // namespace
