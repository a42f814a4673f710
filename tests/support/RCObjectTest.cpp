#include "support/RCObject.h"
#include "support/RCPtr.h"
#include "support/WkPtr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

class Tracked : public RCObject {
public:
    explicit Tracked(std::atomic<int>& destroyed) : m_destroyed(destroyed) {}
    ~Tracked() override { ++m_destroyed; }

private:
    std::atomic<int>& m_destroyed;
};

// Recycles itself instead of going, as a pooled message does.
class Recycled : public RCObject {
public:
    int finalReleases = 0;
    bool keep = true;

protected:
    bool OnFinalRelease() override
    {
        ++finalReleases;
        return keep;
    }
};

TEST(RCObjectTest, LastReleaseDeletesAndWeakPointersSeeItGo)
{
    std::atomic<int> destroyed{0};
    RCPtr<Tracked> a = MakeRC<Tracked>(destroyed);
    WkPtr<Tracked> weak(a);
    {
        RCPtr<Tracked> b = a;
        EXPECT_EQ(a->GetRefCount(), 2);
        RCPtr<RCObject> base = b; // converts without a second object
        EXPECT_EQ(a->GetRefCount(), 3);
    }
    EXPECT_EQ(a->GetRefCount(), 1);
    RCPtr<Tracked> promoted = weak.Lock();
    ASSERT_TRUE(promoted);
    EXPECT_EQ(promoted.get(), a.get());
    promoted.reset();
    a.reset();
    EXPECT_EQ(destroyed, 1);
    EXPECT_FALSE(weak.IsAlive());
    EXPECT_FALSE(weak.Lock());
}

TEST(RCObjectTest, FinalReleaseThatKeepsTheObjectCutsWeakReferencesButAllowsReuse)
{
    auto* object = new Recycled;
    {
        RCPtr<Recycled> first(object);
        WkPtr<Recycled> weak(first);
        first.reset();
        EXPECT_EQ(object->finalReleases, 1);
        // A recycled object is a new life: the old weak pointers must not reach it.
        EXPECT_FALSE(weak.Lock());
    }
    {
        RCPtr<Recycled> second(object);
        WkPtr<Recycled> weak(second);
        EXPECT_TRUE(weak.Lock());
        object->keep = false; // the last life deletes it
    }
    // Under ASan a missing delete is a leak report, a double one a crash.
}

// Promotion racing the final release is the reason counts share one lock:
// every promotion must either fail or give a live object.
TEST(WkPtrTest, PromotionRacingTheLastReleaseNeverSeesAFinalisedObject)
{
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> destroyed{0};
        RCPtr<Tracked> strong = MakeRC<Tracked>(destroyed);
        WkPtr<Tracked> weak(strong);
        std::atomic<bool> go{false};
        std::vector<std::thread> promoters;
        std::atomic<int> promotedWhileDestroyed{0};
        for (int t = 0; t < 3; ++t) {
            promoters.emplace_back([&] {
                while (!go)
                    std::this_thread::yield();
                for (int i = 0; i < 50; ++i) {
                    if (RCPtr<Tracked> p = weak.Lock())
                        promotedWhileDestroyed += destroyed.load();
                }
            });
        }
        go = true;
        strong.reset();
        for (std::thread& t : promoters)
            t.join();
        EXPECT_EQ(destroyed, 1);
        EXPECT_EQ(promotedWhileDestroyed, 0);
    }
}

} // namespace
