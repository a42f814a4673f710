#include "support/LxPollThread.h"

#include "SupportTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Entries = std::vector<std::string>;

// The order in which items ran, with how they were woken.
class Journal {
public:
    void Add(const std::string& entry)
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_entries.push_back(entry);
        m_changed.notify_all();
    }
    std::vector<std::string> Entries() const
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_entries;
    }
    bool WaitForSize(size_t size)
    {
        std::unique_lock<std::mutex> guard(m_mutex);
        return m_changed.wait_for(guard, kTestPatience, [&] { return m_entries.size() >= size; });
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_entries;
};

// Writes "name:t" (timed) or "name:s" (signalled) per run, then does what the
// test says; by default it leaves after its first run.
class JournalItem final : public LxPollItem {
public:
    using Body = std::function<bool(JournalItem&)>;
    JournalItem(std::string name, int32_t timeoutMs, Journal& journal, Body body)
        : LxPollItem(std::move(name), timeoutMs), m_journal(journal), m_body(std::move(body))
    {
    }
    bool Run(bool signalled) override
    {
        m_journal.Add(GetName() + (signalled ? ":s" : ":t"));
        ++runs;
        return m_body ? m_body(*this) : false;
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

class LxPollThreadTest : public ::testing::Test {
protected:
    void TearDown() override { m_resources.Check(); }
    WaitableLogCapture log; // a thread made for the capture is no leak
    Journal journal;

private:
    ResourceSnapshot m_resources;
};

// Items queued in front of a marker (timed, leaving after one run) have had
// their turn once it has run.
TEST_F(LxPollThreadTest, RunsFollowTheListWithADueItemInItsPlaceAmongSignalledOnes)
{
    const struct {
        const char* name;               // the poll thread's, which starts its log lines
        std::vector<const char*> items; // "a:t" timed 0, "a:s" with a set event; " x3" stays for 3 runs
        Entries expected;
        std::vector<const char*> logged;
    } cases[] = {
        {"Turns", {"a:t x3", "b:t x3", "marker:t"}, {"a:t", "b:t", "marker:t", "a:t", "b:t", "a:t", "b:t"}, {}},
        {"DueFirst", {"timed:t", "event:s", "marker:t"}, {"timed:t", "event:s", "marker:t"}, {}},
        // Slots: exit, dirty, then the items' in list order.
        {"EventFirst", {"event:s", "timed:t", "marker:t"}, {"event:s", "timed:t", "marker:t"},
         {"EventFirst: Item event signaled(2); last run ", "EventFirst: Prioritized timed item timed @ 3"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Journal ran;
        auto poll = MakeRC<LxPollThread>(c.name);
        for (const std::string spec : c.items) {
            const int stays = spec.ends_with(" x3") ? 3 : 1;
            const bool evented = spec[spec.find(':') + 1] == 's';
            auto item = Item(spec.substr(0, spec.find(':')), evented ? -1 : 0, ran,
                             [stays](JournalItem& self) { return self.runs < stays; });
            if (evented)
                item->SetEvent(LxEvent(false, true));
            ASSERT_TRUE(poll->AddItem(item));
        }
        ASSERT_TRUE(poll->StartScheduler());
        ASSERT_TRUE(ran.WaitForSize(c.expected.size()));
        poll->StopScheduler();
        EXPECT_EQ(ran.Entries(), c.expected);
        EXPECT_EQ(poll->GetItemCount(), 0u); // each left when its body said so
        for (const char* line : c.logged)
            EXPECT_GE(log.Count(line, true), 1u) << line;
    }
}

TEST_F(LxPollThreadTest, ItemsWithoutCauseOrDisabledStayPutUntilEnabled)
{
    auto poll = MakeRC<LxPollThread>("Idle");
    poll->SetLogLevel(LOG_LEVEL_DEBUG);
    auto never = Item("never", -1, journal);
    auto disabled = Item("disabled", 0, journal);
    auto overEnabled = Item("overEnabled", 0, journal);
    for (const auto& item : {never, disabled, overEnabled})
        ASSERT_TRUE(poll->AddItem(item));
    disabled->Disable(false);
    overEnabled->Enable(); // counted too: the Disable after it leaves the item enabled
    overEnabled->Disable(false);
    ASSERT_TRUE(poll->AddItem(Item("marker", 0, journal)));
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_TRUE(journal.WaitForSize(2));
    EXPECT_EQ(journal.Entries(), (Entries{"overEnabled:t", "marker:t"}));
    disabled->Enable();
    ASSERT_TRUE(journal.WaitForSize(3));
    poll->StopScheduler();
    EXPECT_EQ(journal.Entries().back(), "disabled:t");
    EXPECT_EQ(log.Count("Idle: Item disabled disabled"), 1u);
    EXPECT_EQ(log.Count("Idle: Item overEnabled disabled"), 0u);
    EXPECT_EQ(log.Count("Idle: Item disabled enabled"), 1u);
    poll->RemoveAllItems(false);
    EXPECT_EQ(log.Count("Idle: Item never removed"), 1u);
    EXPECT_EQ(never->GetOwnerId(), 0u);
}

TEST_F(LxPollThreadTest, ItemsRemovedWhileWaitedForOrRunningAreNotRunAgain)
{
    LxEvent trigger(false, false);
    LxEvent running(true, false);
    LxEvent release(true, false);
    std::atomic<bool> runEnded{false};
    auto poll = MakeRC<LxPollThread>("Busy");
    poll->SetLogLevel(LOG_LEVEL_DEBUG);
    auto waiting = Item("waiting", -1, journal);
    waiting->SetEvent(trigger);
    ASSERT_TRUE(poll->AddItem(waiting));
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_TRUE(poll->RemoveItem(waiting, false));
    trigger.Set();
    // Asks to stay, but is removed while it runs; the removal waits for the run.
    auto busy = Item("busy", 0, journal, [&](JournalItem&) {
        running.Set();
        EXPECT_EQ(release.Wait(), 0);
        runEnded = true;
        return true;
    });
    ASSERT_TRUE(poll->AddItem(busy));
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
    EXPECT_EQ(journal.Entries(), Entries{"busy:t"});
}

// Run may change its own thread: waiting for itself returns at once, and
// re-timing itself takes effect for the next round.
TEST_F(LxPollThreadTest, RunMayWaitForAndRetimeItself)
{
    auto poll = MakeRC<LxPollThread>("Self");
    poll->SetLogLevel(LOG_LEVEL_DEBUG);
    auto self = Item("self", 0, journal, [&](JournalItem& item) {
        RCPtr<LxPollThread> owner = item.GetPollThread();
        EXPECT_EQ(owner.get(), poll.get());
        owner->WaitForItemToComplete(&item);
        owner->WaitForItemToComplete(nullptr);
        item.SetTimeoutMS(-1, false); // only its event from now on
        return item.runs < 2;
    });
    LxEvent poke(false, false);
    self->SetEvent(poke);
    ASSERT_TRUE(poll->AddItem(self));
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_TRUE(log.WaitFor("Self: Item self timeout set to INFINITE (timer at ", true));
    poke.Set();
    ASSERT_TRUE(journal.WaitForSize(2));
    poll->StopScheduler();
    EXPECT_EQ(journal.Entries(), (Entries{"self:t", "self:s"}));
    EXPECT_EQ(log.Count("to complete", true), 0u);
}

// A stop asked for during a run (here by the run itself, so it is known to
// come first) ends the scheduler after that run; a stopper waits for it.
TEST_F(LxPollThreadTest, StopWhileAnItemRunsEndsAfterTheRunAndKeepsTheItems)
{
    LxEvent running(true, false);
    LxEvent release(true, false);
    std::atomic<bool> runEnded{false};
    auto poll = MakeRC<LxPollThread>("Stopping");
    auto busy = Item("busy", 0, journal, [&](JournalItem& item) {
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
    auto item = Item("shared", -1, journal);
    EXPECT_FALSE(first->AddItem(nullptr));
    EXPECT_EQ(log.Count("First: item == NULL"), 1u);
    ASSERT_TRUE(first->AddItem(item));
    EXPECT_FALSE(first->AddItem(item));
    EXPECT_FALSE(second->AddItem(item));
    EXPECT_FALSE(second->RemoveItem(item, true));
    const std::string owner = "0x" + (std::stringstream() << std::hex << first->GetId()).str();
    EXPECT_EQ(log.Count("Second: Item shared already belongs to " + owner), 1u);
    EXPECT_EQ(log.Count("Second: Item shared belongs to " + owner), 1u);
    EXPECT_FALSE(second->RemoveItem(Item("stranger", -1, journal), false));
    EXPECT_EQ(log.Count("Second: Item stranger not found"), 1u);
    EXPECT_EQ(first->GetItemCount(), 1u);
    EXPECT_EQ(second->GetItemCount(), 0u);
    EXPECT_EQ(item->GetPollThread().get(), first.get());
    first.reset(); // going away, a thread lets go of its items
    EXPECT_EQ(item->GetOwnerId(), 0u);
    EXPECT_TRUE(second->AddItem(item));
}

TEST_F(LxPollThreadTest, ItemListAndRunTimesAreLogged)
{
    auto poll = MakeRC<LxPollThread>("Stats");
    auto timed = Item("timed", 1500, journal);
    auto evented = Item("evented", -1, journal);
    evented->SetEvent(LxEvent(false, false));
    ASSERT_TRUE(poll->AddItem(timed));
    ASSERT_TRUE(poll->AddItem(evented));
    evented->Disable(false);
    poll->LogAllItems(LOG_LEVEL_INFO);
    const std::regex list("Stats - 2 items\n"
                          "   timed - timeout\\(1\\.500s\\)  elapsed\\([0-9]+ms\\)  paused\\(FALSE\\)  "
                          "event\\(FALSE\\)  disabled\\(0\\)\n"
                          "   evented - timeout\\(INFINITE\\)  elapsed\\([0-9.]+m?s\\)  paused\\(FALSE\\)  "
                          "event\\(TRUE\\)  disabled\\(1\\)");
    const std::regex took("Stats: Item timed took [0-9]+ms");
    const std::regex ran("Stats: Item timed timed out\\((-1|2)\\); last run [0-9.]+m?s ago");
    auto matching = [&](const std::regex& pattern, const char* function) {
        int n = 0;
        for (const auto& line : log.Lines())
            n += std::regex_match(line.text, pattern) && (!*function || line.function == function);
        return n;
    };
    EXPECT_EQ(matching(list, "LxPollThread::LogAllItems()"), 1);

    timed->SetTimeoutMS(0, true);
    EXPECT_EQ(log.Count("Stats: Item timed timeout set to 0ms (timer reset)"), 1u);
    ASSERT_TRUE(poll->StartScheduler());
    ASSERT_TRUE(journal.WaitForSize(1));
    poll->StopScheduler();
    EXPECT_EQ(matching(took, ""), 1);
    EXPECT_EQ(matching(ran, ""), 1);
    EXPECT_GE(log.Count("Stats: Exit event signaled"), 1u);
}

// Nobody but the scheduler holding the poll thread ends it; the thread then
// takes the object with it.
TEST_F(LxPollThreadTest, DroppingTheLastOutsideReferenceEndsTheScheduler)
{
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
