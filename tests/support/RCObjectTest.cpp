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

TEST(RCObjectTest, LastReleaseDeletesOrRecyclesAndWeakPointersSeeItGo)
{
    std::atomic<int> destroyed{0};
    RCPtr<Tracked> a = MakeRC<Tracked>(destroyed);
    WkPtr<Tracked> weak(a);
    {
        RCPtr<Tracked> b = a;
        RCPtr<RCObject> base = b; // converts without a second object
        EXPECT_EQ(a->GetRefCount(), 3);
    }
    EXPECT_EQ(a->GetRefCount(), 1);
    RCPtr<Tracked> promoted = weak.Lock();
    EXPECT_EQ(promoted.get(), a.get());
    promoted.reset();
    a.reset();
    EXPECT_EQ(destroyed, 1);
    EXPECT_FALSE(weak.IsAlive());
    EXPECT_FALSE(weak.Lock());
    auto* object = new Recycled;
    RCPtr<Recycled> first(object);
    WkPtr<Recycled> oldWeak(first);
    first.reset();
    EXPECT_EQ(object->finalReleases, 1);
    // A recycled object is a new life: the old weak pointers must not reach it.
    EXPECT_FALSE(oldWeak.Lock());
    oldWeak.reset();
    RCPtr<Recycled> second(object);
    WkPtr<Recycled> newWeak(second);
    EXPECT_TRUE(newWeak.Lock());
    object->keep = false; // the last life deletes it: under ASan a missing delete leaks, a double one crashes
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
        std::atomic<int> promotedWhileDestroyed{0};
        std::vector<std::thread> promoters;
        for (int t = 0; t < 3; ++t) {
            promoters.emplace_back([&] {
                while (!go)
                    std::this_thread::yield();
                for (int i = 0; i < 50; ++i)
                    if (RCPtr<Tracked> p = weak.Lock())
                        promotedWhileDestroyed += destroyed.load();
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
