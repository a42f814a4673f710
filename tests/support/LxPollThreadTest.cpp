#include "support/LxPollThread.h"

#include "SupportTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

using namespace tolv::log;

namespace {

// The order in which items ran, with how they were woken.
class Journal {
public:
    void Add(const std::string& entry)
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_entries.push_back(entry);
    }
    std::vector<std::string> Entries() const
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_entries;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_entries;
};

// Writes "name:t" (timed) or "name:s" (signalled) per run, then does what the
// test says; by default it leaves after its first run.
class JournalItem final : public LxPollItem {
public:
    using Body = std::function<bool(JournalItem&, bool)>;
    JournalItem(std::string name, int32_t timeoutMs, Journal& journal, Body body = {})
        : LxPollItem(std::move(name), timeoutMs), m_journal(journal), m_body(std::move(body))
    {
    }
    bool Run(bool signalled) override
    {
        m_journal.Add(GetName() + (signalled ? ":s" : ":t"));
        ++runs;
        return m_body ? m_body(*this, signalled) : false;
    }
    std::atomic<int> runs{0};

private:
    Journal& m_journal;
    Body m_body;
};

RCPtr<JournalItem> Item(const std::string& name, int32_t timeoutMs, Journal& journal, JournalItem::Body body = {})
{
    return MakeRC<JournalItem>(name, timeoutMs, journal, std::move(body));
}

// Leaves after its run and tells the test: items queued in front of it have
// had their turn by then.
RCPtr<JournalItem> Marker(Journal& journal, LxEvent& done)
{
    return Item("marker", 0, journal, [&done](JournalItem&, bool) {
        done.Set();
        return false;
    });
}

class LxPollThreadTest : public ::testing::Test {
protected:
    void TearDown() override { m_resources.Check(); }

private:
    ResourceSnapshot m_resources;
};

using Entries = std::vector<std::string>;

TEST_F(LxPollThreadTest, EqualTimedItemsTakeTurnsInListOrder)
{
    Journal journal;
    LxEvent done(true, false);
    auto poll = MakeRC<LxPollThread>("Turns");
    auto counted = [&done](int limit) {
        return [&done, limit](JournalItem& self, bool) {
            if (self.runs == limit && self.GetName() == "b")
                done.Set();
            return self.runs < limit;
        };
    };
    ASSERT_TRUE(poll->AddItem(Item("a", 0, journal, counted(3))));
    ASSERT_TRUE(poll->AddItem(Item("b", 0, journal, counted(3))));
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_EQ(done.Wait(), 0);
    poll->StopScheduler();
    EXPECT_EQ(journal.Entries(), (Entries{"a:t", "b:t", "a:t", "b:t", "a:t", "b:t"}));
    EXPECT_EQ(poll->GetItemCount(), 0u); // each left when its body said so
}

TEST_F(LxPollThreadTest, DueTimedItemRunsBeforeASignalledEventItemBehindIt)
{
    Journal journal;
    LxEvent done(true, false);
    LxEvent ready(false, true);
    auto poll = MakeRC<LxPollThread>("DueFirst");
    auto eventItem = Item("event", -1, journal);
    eventItem->SetEvent(ready);
    ASSERT_TRUE(poll->AddItem(Item("timed", 0, journal)));
    ASSERT_TRUE(poll->AddItem(eventItem));
    ASSERT_TRUE(poll->AddItem(Marker(journal, done)));
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_EQ(done.Wait(), 0);
    poll->StopScheduler();
    EXPECT_EQ(journal.Entries(), (Entries{"timed:t", "event:s", "marker:t"}));
}

TEST_F(LxPollThreadTest, SignalledEventItemRunsBeforeADueTimedItemBehindIt)
{
    WaitableLogCapture log;
    Journal journal;
    LxEvent done(true, false);
    LxEvent ready(false, true);
    auto poll = MakeRC<LxPollThread>("EventFirst");
    auto eventItem = Item("event", -1, journal);
    eventItem->SetEvent(ready);
    ASSERT_TRUE(poll->AddItem(eventItem));
    ASSERT_TRUE(poll->AddItem(Item("timed", 0, journal)));
    ASSERT_TRUE(poll->AddItem(Marker(journal, done)));
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_EQ(done.Wait(), 0);
    poll->StopScheduler();
    EXPECT_EQ(journal.Entries(), (Entries{"event:s", "timed:t", "marker:t"}));
    // The due item's slot follows the event item's: exit, dirty, event, due.
    EXPECT_GE(log.Count("EventFirst: Prioritized timed item timed @ 3"), 1u);
    EXPECT_EQ(log.CountContaining("EventFirst: Item event signaled(2); last run "), 1u);
}

// Items that can never be due or signalled, and items disabled, stay put while
// others run; an Enable on an enabled item is counted too.
TEST_F(LxPollThreadTest, ItemsWithoutCauseOrDisabledNeverRun)
{
    WaitableLogCapture log(LOG_LEVEL_DEBUG);
    Journal journal;
    LxEvent done(true, false);
    auto poll = MakeRC<LxPollThread>("Idle");
    poll->SetLogLevel(LOG_LEVEL_DEBUG);
    auto never = Item("never", -1, journal);
    auto disabled = Item("disabled", 0, journal);
    auto overEnabled = Item("overEnabled", 0, journal);
    ASSERT_TRUE(poll->AddItem(never));
    ASSERT_TRUE(poll->AddItem(disabled));
    ASSERT_TRUE(poll->AddItem(overEnabled));
    disabled->Disable(false);
    overEnabled->Enable();
    EXPECT_EQ(overEnabled->GetDisableCount(), -1);
    overEnabled->Disable(false);
    EXPECT_EQ(overEnabled->GetDisableCount(), 0);
    EXPECT_EQ(log.Count("Idle: Item disabled disabled"), 1u);
    EXPECT_EQ(log.Count("Idle: Item overEnabled disabled"), 0u);
    ASSERT_TRUE(poll->AddItem(Marker(journal, done)));
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_EQ(done.Wait(), 0);
    poll->StopScheduler();
    EXPECT_EQ(journal.Entries(), (Entries{"overEnabled:t", "marker:t"}));
    EXPECT_EQ(poll->GetItemCount(), 2u);
    disabled->Enable();
    EXPECT_EQ(log.Count("Idle: Item disabled enabled"), 1u);
    poll->RemoveAllItems(false);
    EXPECT_EQ(log.Count("Idle: Item never removed"), 1u);
    EXPECT_EQ(never->GetOwnerId(), 0u);
}

TEST_F(LxPollThreadTest, ItemRemovedWhileTheSchedulerWaitsDoesNotRun)
{
    Journal journal;
    LxEvent done(true, false);
    LxEvent trigger(false, false);
    auto poll = MakeRC<LxPollThread>("Removal");
    auto waiting = Item("waiting", -1, journal);
    waiting->SetEvent(trigger);
    ASSERT_TRUE(poll->AddItem(waiting));
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_TRUE(poll->RemoveItem(waiting, false));
    trigger.Set();
    ASSERT_TRUE(poll->AddItem(Marker(journal, done)));
    ASSERT_EQ(done.Wait(), 0);
    poll->StopScheduler();
    EXPECT_EQ(journal.Entries(), (Entries{"marker:t"}));
}

// Removing an item that is running: with wait the call returns after the run;
// the item is not queued again even though its Run asks to stay.
TEST_F(LxPollThreadTest, ItemRemovedWhileRunningIsNotQueuedAgain)
{
    WaitableLogCapture log(LOG_LEVEL_DEBUG);
    Journal journal;
    LxEvent running(true, false);
    LxEvent release(true, false);
    std::atomic<bool> runEnded{false};
    auto poll = MakeRC<LxPollThread>("Busy");
    auto busy = Item("busy", 0, journal, [&](JournalItem&, bool) {
        running.Set();
        EXPECT_EQ(release.Wait(), 0);
        runEnded = true;
        return true;
    });
    ASSERT_TRUE(poll->AddItem(busy));
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_EQ(running.Wait(), 0);
    std::thread releaser([&] {
        EXPECT_TRUE(log.WaitFor("Busy: Waiting for busy to complete"));
        release.Set();
    });
    EXPECT_TRUE(poll->RemoveItem(busy, true));
    EXPECT_TRUE(runEnded);
    releaser.join();
    EXPECT_EQ(log.Count("Busy: busy completed"), 1u);
    EXPECT_EQ(busy->GetOwnerId(), 0u);
    EXPECT_EQ(poll->GetItemCount(), 0u);
    EXPECT_EQ(busy->GetDisableCount(), 0);
    poll->StopScheduler();
    EXPECT_EQ(busy->runs, 1);
}

// Run may change its own thread: waiting for itself returns at once, and
// re-timing itself takes effect for the next round.
TEST_F(LxPollThreadTest, RunMayWaitForAndRetimeItself)
{
    WaitableLogCapture log(LOG_LEVEL_DEBUG);
    Journal journal;
    LxEvent done(true, false);
    auto poll = MakeRC<LxPollThread>("Self");
    poll->SetLogLevel(LOG_LEVEL_DEBUG);
    auto self = Item("self", 0, journal, [&](JournalItem& item, bool) {
        RCPtr<LxPollThread> owner = item.GetPollThread();
        EXPECT_EQ(owner.get(), poll.get());
        owner->WaitForItemToComplete(&item);
        owner->WaitForItemToComplete(nullptr);
        if (item.runs == 2) {
            done.Set();
            return false;
        }
        item.SetTimeoutMS(-1, false); // only its event from now on
        return true;
    });
    LxEvent poke(false, false);
    self->SetEvent(poke);
    ASSERT_TRUE(poll->AddItem(self));
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_TRUE(log.WaitForContaining("Self: Item self timeout set to INFINITE (timer at "));
    poke.Set();
    ASSERT_EQ(done.Wait(), 0);
    poll->StopScheduler();
    EXPECT_EQ(journal.Entries(), (Entries{"self:t", "self:s"}));
    EXPECT_EQ(log.CountContaining("to complete"), 0u);
}

// A stop asked for during a run (here by the run itself, so it is known to
// come first) ends the scheduler after that run; a stopper waits for it.
TEST_F(LxPollThreadTest, StopWhileAnItemRunsEndsAfterTheRunAndKeepsTheItems)
{
    Journal journal;
    LxEvent running(true, false);
    LxEvent release(true, false);
    std::atomic<bool> runEnded{false};
    auto poll = MakeRC<LxPollThread>("Stopping");
    auto busy = Item("busy", 0, journal, [&](JournalItem& item, bool) {
        item.GetPollThread()->StopScheduler(); // on the scheduler thread: asks, cannot wait
        running.Set();
        EXPECT_EQ(release.Wait(), 0);
        runEnded = true;
        return true;
    });
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
    EXPECT_EQ(busy->runs, 1);
    // It starts again where it stopped.
    running.Reset();
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_EQ(running.Wait(), 0);
    poll->StopScheduler();
    EXPECT_EQ(busy->runs, 2);
}

TEST_F(LxPollThreadTest, RefusedAdditionsAndRemovalsChangeNothing)
{
    WaitableLogCapture log(LOG_LEVEL_DEBUG);
    Journal journal;
    auto first = MakeRC<LxPollThread>("First");
    auto second = MakeRC<LxPollThread>("Second");
    auto item = Item("shared", -1, journal);
    EXPECT_FALSE(first->AddItem(nullptr));
    EXPECT_EQ(log.Count("First: item == NULL"), 1u);
    ASSERT_TRUE(first->AddItem(item));
    EXPECT_FALSE(first->AddItem(item));
    EXPECT_FALSE(second->AddItem(item));
    char owned[96];
    snprintf(owned, sizeof owned, "Second: Item shared already belongs to 0x%llx",
             static_cast<unsigned long long>(first->GetId()));
    EXPECT_EQ(log.Count(owned), 1u);
    EXPECT_FALSE(second->RemoveItem(item, true));
    snprintf(owned, sizeof owned, "Second: Item shared belongs to 0x%llx",
             static_cast<unsigned long long>(first->GetId()));
    EXPECT_EQ(log.Count(owned), 1u);
    EXPECT_FALSE(second->RemoveItem(Item("stranger", -1, journal), false));
    EXPECT_EQ(log.Count("Second: Item stranger not found"), 1u);
    EXPECT_EQ(first->GetItemCount(), 1u);
    EXPECT_EQ(second->GetItemCount(), 0u);
    EXPECT_EQ(item->GetPollThread().get(), first.get());
    // Going away, a thread lets go of its items.
    first.reset();
    EXPECT_EQ(item->GetOwnerId(), 0u);
    EXPECT_TRUE(second->AddItem(item));
}

TEST_F(LxPollThreadTest, ItemListAndRunTimesAreLogged)
{
    WaitableLogCapture log(LOG_LEVEL_NEVER);
    Journal journal;
    LxEvent done(true, false);
    auto poll = MakeRC<LxPollThread>("Stats");
    auto timed = Item("timed", 1500, journal);
    auto evented = Item("evented", -1, journal);
    evented->SetEvent(LxEvent(false, false));
    ASSERT_TRUE(poll->AddItem(timed));
    ASSERT_TRUE(poll->AddItem(evented));
    evented->Disable(false);
    log.WaitFor("Stats: Item evented disabled");
    poll->LogAllItems(LOG_LEVEL_INFO);
    const std::regex list(
        "Stats - 2 items\n"
        "   timed - timeout\\(1\\.500s\\)  elapsed\\([0-9]+ms\\)  paused\\(FALSE\\)  event\\(FALSE\\)  disabled\\(0\\)\n"
        "   evented - timeout\\(INFINITE\\)  elapsed\\([0-9.]+m?s\\)  paused\\(FALSE\\)  event\\(TRUE\\)  "
        "disabled\\(1\\)");
    bool found = false;
    for (const auto& line : log.Lines())
        found = found || (line.function == "LxPollThread::LogAllItems()" && std::regex_match(line.text, list));
    EXPECT_TRUE(found);

    timed->SetTimeoutMS(0, true);
    EXPECT_EQ(log.Count("Stats: Item timed timeout set to 0ms (timer reset)"), 1u);
    ASSERT_TRUE(poll->AddItem(Marker(journal, done)));
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_EQ(done.Wait(), 0);
    poll->StopScheduler();
    const std::regex took("Stats: Item timed took [0-9]+ms");
    const std::regex ran("Stats: Item timed timed out\\((-1|2)\\); last run [0-9.]+m?s ago");
    int tookLines = 0, ranLines = 0;
    for (const auto& line : log.Lines()) {
        tookLines += std::regex_match(line.text, took);
        ranLines += std::regex_match(line.text, ran);
    }
    EXPECT_EQ(tookLines, 1);
    EXPECT_EQ(ranLines, 1);
    EXPECT_GE(log.Count("Stats: Exit event signaled"), 1u);
}

// Nobody but the scheduler holding the poll thread ends it; the thread then
// takes the object with it.
TEST_F(LxPollThreadTest, DroppingTheLastOutsideReferenceEndsTheScheduler)
{
    WaitableLogCapture log(LOG_LEVEL_NEVER);
    Journal journal;
    LxEvent ended;
    auto item = Item("idle", -1, journal);
    uint64_t id = 0;
    {
        auto poll = MakeRC<LxPollThread>("Orphaned");
        poll->SetAutoStart(true);
        ASSERT_TRUE(poll->AddItem(item)); // starts the scheduler
        EXPECT_TRUE(poll->IsSchedulerRunning());
        ended = poll->GetSchedulerEndEvent();
        id = poll->GetId();
    }
    ASSERT_EQ(ended.Wait(), 0);
    EXPECT_EQ(log.Count("Orphaned: I'm the last reference"), 1u);
    EXPECT_FALSE(LxPollThread::FindById(id));
    EXPECT_EQ(item->GetOwnerId(), 0u);
    EXPECT_EQ(journal.Entries(), Entries{});
}

} // namespace
