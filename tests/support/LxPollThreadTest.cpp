// The poll thread, and the duration texts its messages use.

#include "support/DurationText.h"
#include "support/LxPollThread.h"

#include "SupportTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using Entries = std::vector<std::string>;

// Logs "name:t" (timed) or "name:s" (signalled) per run, then does what the
// test says; by default it leaves after its first run.
class JournalItem final : public LxPollItem {
public:
    using Body = std::function<bool(JournalItem&)>;
    JournalItem(std::string name, int32_t timeoutMs, Body body)
        : LxPollItem(std::move(name), timeoutMs), m_body(std::move(body))
    {
    }
    bool Run(bool signalled) override
    {
        Log("JournalItem::Run()", LOG_LEVEL_ALWAYS, "%s:%c", GetName().c_str(), signalled ? 's' : 't');
        ++runs;
        return m_body ? m_body(*this) : false;
    }
    std::atomic<int> runs{0};

private:
    Body m_body;
};

class LxPollThreadTest : public ::testing::Test {
protected:
    void TearDown() override { m_resources.Check(); }
    RCPtr<JournalItem> Item(const std::string& name, int32_t timeoutMs, JournalItem::Body body = {})
    {
        return MakeRC<JournalItem>(name, timeoutMs, std::move(body));
    }
    // Blocks in its run until `release` is set, and asks to stay.
    RCPtr<JournalItem> Busy(const std::function<void(JournalItem&)>& first = {})
    {
        return Item("busy", 0, [this, first](JournalItem& self) {
            if (first)
                first(self);
            running.Set();
            EXPECT_EQ(release.Wait(), 0);
            runEnded = true;
            return true;
        });
    }
    // The runs so far, in order, once there are at least `count`.
    Entries Ran(size_t count = 0)
    {
        Entries ran;
        EXPECT_TRUE(WaitUntil([&] {
            ran.clear();
            for (const CapturedLine& line : log.Lines())
                if (line.function == "JournalItem::Run()")
                    ran.push_back(line.text);
            return ran.size() >= count;
        }, kTestPatience));
        return ran;
    }
    ScopedLogCapture log{LOG_LEVEL_NEVER};
    LxEvent running{true, false};
    LxEvent release{true, false};
    std::atomic<bool> runEnded{false};

private:
    ResourceSnapshot m_resources;
};

// A marker (timed, leaving after one run) shows that the items queued in
// front of it have had their turn.
TEST_F(LxPollThreadTest, RunsFollowTheListWithADueItemInItsPlaceAmongSignalledOnes)
{
    const struct {
        const char* name;
        std::vector<const char*> items; // "a:t" timed 0, "a:s" with a set event; " x3" stays for 3 runs
        Entries expected;
    } cases[] = {
        {"Turns", {"a:t x3", "b:t x3", "marker:t"}, {"a:t", "b:t", "marker:t", "a:t", "b:t", "a:t", "b:t"}},
        {"DueFirst", {"timed:t", "event:s", "marker:t"}, {"timed:t", "event:s", "marker:t"}},
        {"EventFirst", {"event:s", "timed:t", "marker:t"}, {"event:s", "timed:t", "marker:t"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        log.Clear();
        auto poll = MakeRC<LxPollThread>(c.name);
        for (const std::string what : c.items) {
            const int stays = what.ends_with(" x3") ? 3 : 1;
            const bool evented = what[what.find(':') + 1] == 's';
            auto item = Item(what.substr(0, what.find(':')), evented ? -1 : 0,
                             [stays](JournalItem& self) { return self.runs < stays; });
            if (evented)
                item->SetEvent(LxEvent(false, true));
            ASSERT_TRUE(poll->AddItem(item));
        }
        ASSERT_TRUE(poll->StartScheduler());
        Ran(c.expected.size());
        poll->StopScheduler();
        EXPECT_EQ(Ran(), c.expected);
        EXPECT_EQ(poll->GetItemCount(), 0u); // each left when its body said so
    }
}

TEST_F(LxPollThreadTest, ItemsWithoutCauseOrDisabledStayPutUntilEnabled)
{
    auto poll = MakeRC<LxPollThread>("Idle");
    auto never = Item("never", -1);
    auto disabled = Item("disabled", 0);
    auto overEnabled = Item("overEnabled", 0);
    for (const auto& item : {never, disabled, overEnabled})
        ASSERT_TRUE(poll->AddItem(item));
    disabled->Disable(false);
    overEnabled->Enable(); // counted too: the Disable after it leaves the item enabled
    overEnabled->Disable(false);
    ASSERT_TRUE(poll->AddItem(Item("marker", 0)));
    ASSERT_TRUE(poll->StartScheduler());
    EXPECT_EQ(Ran(2), (Entries{"overEnabled:t", "marker:t"}));
    disabled->Enable();
    EXPECT_EQ(Ran(3).back(), "disabled:t");
    poll->StopScheduler();
}

TEST_F(LxPollThreadTest, ItemsRemovedWhileWaitedForOrRunningAreNotRunAgain)
{
    LxEvent trigger(false, false);
    auto poll = MakeRC<LxPollThread>("Busy");
    auto waiting = Item("waiting", -1);
    waiting->SetEvent(trigger);
    ASSERT_TRUE(poll->AddItem(waiting));
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_TRUE(poll->RemoveItem(waiting, false));
    trigger.Set();
    // Removed while it runs: the removal waits for the run, and the item is gone though it asked to stay.
    auto busy = Busy();
    ASSERT_TRUE(poll->AddItem(busy));
    ASSERT_EQ(running.Wait(), 0);
    std::thread releaser([&] {
        EXPECT_TRUE(WaitForLine(log, "Busy: Waiting for busy to complete"));
        release.Set();
    });
    EXPECT_TRUE(poll->RemoveItem(busy, true));
    EXPECT_TRUE(runEnded);
    releaser.join();
    EXPECT_EQ(poll->GetItemCount(), 0u);
    EXPECT_EQ(busy->GetDisableCount(), 0);
    poll->StopScheduler();
    EXPECT_EQ(Ran(), Entries{"busy:t"});
}

TEST_F(LxPollThreadTest, RunMayWaitForAndRetimeItself)
{
    auto poll = MakeRC<LxPollThread>("Self");
    auto self = Item("self", 0, [&](JournalItem& item) {
        item.GetPollThread()->WaitForItemToComplete(&item);
        poll->WaitForItemToComplete(nullptr);
        item.SetTimeoutMS(-1, false); // only its event from now on
        return item.runs < 2;
    });
    LxEvent poke(false, false);
    self->SetEvent(poke);
    ASSERT_TRUE(poll->AddItem(self));
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_TRUE(WaitForLine(log, "Self: Item self timeout set to INFINITE (timer at "));
    poke.Set();
    Ran(2);
    poll->StopScheduler();
    EXPECT_EQ(Ran(), (Entries{"self:t", "self:s"}));
    EXPECT_EQ(log.CountContaining("to complete"), 0u);
}

TEST_F(LxPollThreadTest, StopWhileAnItemRunsEndsAfterTheRunAndKeepsTheItems)
{
    auto poll = MakeRC<LxPollThread>("Stopping");
    // Asked for by the run itself, so known to come during it; there it only asks.
    auto busy = Busy([](JournalItem& self) { self.GetPollThread()->StopScheduler(); });
    ASSERT_TRUE(poll->AddItem(busy));
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_EQ(running.Wait(), 0);
    LxEvent ended = poll->GetSchedulerEndEvent();
    std::thread stopper([&] {
        poll->StopScheduler();
        EXPECT_TRUE(runEnded);
        EXPECT_EQ(ended.Wait(0), 0);
    });
    release.Set();
    stopper.join();
    EXPECT_FALSE(poll->IsSchedulerRunning());
    EXPECT_EQ(poll->GetItemCount(), 1u);
    running.Reset(); // it starts again where it stopped
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_EQ(running.Wait(), 0);
    poll->StopScheduler();
    EXPECT_EQ(busy->runs, 2);
}

TEST_F(LxPollThreadTest, RefusedAdditionsAndRemovalsChangeNothing)
{
    auto first = MakeRC<LxPollThread>("First");
    auto second = MakeRC<LxPollThread>("Second");
    auto item = Item("shared", -1);
    EXPECT_FALSE(first->AddItem(nullptr));
    ASSERT_TRUE(first->AddItem(item));
    EXPECT_FALSE(first->AddItem(item));
    EXPECT_FALSE(second->AddItem(item));
    EXPECT_FALSE(second->RemoveItem(item, true));
    EXPECT_FALSE(second->RemoveItem(Item("stranger", -1), false));
    EXPECT_EQ(first->GetItemCount(), 1u);
    EXPECT_EQ(second->GetItemCount(), 0u);
    first.reset(); // going away, a thread lets go of its items
    EXPECT_EQ(item->GetOwnerId(), 0u);
    EXPECT_TRUE(second->AddItem(item));
}

// The scheduler's own reference ends it, and the object goes with its thread.
TEST_F(LxPollThreadTest, DroppingTheLastOutsideReferenceEndsTheScheduler)
{
    auto item = Item("idle", -1);
    auto poll = MakeRC<LxPollThread>("Orphaned");
    poll->SetAutoStart(true);
    ASSERT_TRUE(poll->AddItem(item)); // starts the scheduler
    EXPECT_TRUE(poll->IsSchedulerRunning());
    const LxEvent ended = poll->GetSchedulerEndEvent();
    const uint64_t id = poll->GetId();
    poll.reset();
    ASSERT_EQ(ended.Wait(), 0);
    EXPECT_FALSE(LxPollThread::FindById(id));
    EXPECT_EQ(item->GetOwnerId(), 0u);
    EXPECT_TRUE(Ran().empty());
}

TEST(LxDurationTextTest, SecondsUnitsClocksAndDays)
{
    const struct {
        double seconds;
        int precision;
        std::string text;
    } cases[] = {
        // Below a minute: the unit of the precision, truncated, never rounded.
        {0.0, 3, "0ms"}, {0.25, 3, "250ms"}, {0.999, 3, "999ms"}, {0.0009, 3, "0ms"}, {1.0, 3, "1.000s"},
        {1.5, 3, "1.500s"}, {1.9999, 3, "1.999s"}, {59.999, 3, "59.999s"}, {0.000123, 6, "123us"},
        {0.5, 9, "500000000ns"}, {0.5, 2, "0.50s"}, {2.5, 1, "2.5s"},
        // Precision 0 rounds the seconds.
        {0.4, 0, "0s"}, {0.5, 0, "1s"}, {59.4, 0, "59s"}, {59.5, 0, "0:01:00"}, {3661, 0, "1:01:01"},
        {60, 3, "0:01:00.000"}, {61.5, 3, "0:01:01.500"}, {3599.999, 3, "0:59:59.999"}, {3600, 3, "1:00:00.000"},
        {86399, 3, "23:59:59.000"}, {86400, 3, "1 day"}, {86400, 0, "1 day"}, {86400.5, 3, "1 day 0:00:00.500"},
        {86401, 3, "1 day 0:00:01.000"}, {2 * 86400, 3, "2 days"}, {2 * 86400 + 3600, 0, "2 days 1:00:00"},
        // The precision is clamped; digits past what 64 bits hold are zeros.
        {1.5, 20, "1.50000000000000000000s"}, {1.5, 40, "1.5" + std::string(31, '0') + "s"},
        {1.5, -2, "2s"}, {-1.5, 3, "-1.500s"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(DurationText(c.seconds, c.precision), c.text) << c.seconds << " precision " << c.precision;
}

} // namespace
