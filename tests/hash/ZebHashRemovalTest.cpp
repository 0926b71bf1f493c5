// The registry while the file of a digest is removed.

#include "hash/ZebHashRemoval.h"

#include "hash/ZebHashManager.h"
#include "support/BlockedThread.h"
#include "support/MessageCapture.h"
#include "support/Registry.h"
#include "support/RegistryInside.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace {

QByteArray bytes()
{
    return "removed and added again";
}

QString text()
{
    return ZebDataHash(bytes(), ZebDataHash::Hash512).toString();
}

using Removal = std::unique_ptr<const ZebHashRemoval>;

Removal removal()
{
    return std::make_unique<const ZebHashRemoval>(text());
}

// Interns the bytes on another thread, and proves that it waits for the end of `removals`.
template <typename Intern>
void expectWait(std::vector<Removal> removals, Intern intern)
{
    ZebSmartPointer<ZebDataHash> interned;
    BlockedThread interning([&] { interned = intern(); });
    while (!removals.empty()) {
        EXPECT_TRUE(interning.waitsFor(RegistryInside::removalEnded(registry())));
        EXPECT_FALSE(registry().isHashLive(text()));
        removals.pop_back();
    }
    EXPECT_TRUE(interning.ends());
    ASSERT_FALSE(interned.isNull());
    EXPECT_TRUE(registry().isHashLive(text()));
    EXPECT_EQ(interned->refCount(), 1);
}

std::vector<Removal> removals(int count)
{
    std::vector<Removal> made;
    for (int i = 0; i < count; ++i)
        made.push_back(removal());
    return made;
}

} // namespace

TEST(ZebHashRemoval, ARegisteredHashIsLiveAndNothingWaits)
{
    const MessageCapture messages;
    const ZebSmartPointer<ZebDataHash> held = registry().getHash(bytes());
    const ZebHashRemoval removal(text());
    EXPECT_TRUE(removal.isHashLive());
    EXPECT_EQ(registry().getHash(bytes()), held);
}

TEST(ZebHashRemoval, AThreadThatInternsTheBytesWaits)
{
    const MessageCapture messages;
    expectWait(removals(1), [] { return registry().getHash(bytes()); });
}

TEST(ZebHashRemoval, AThreadThatInternsTheTextWaits)
{
    const MessageCapture messages;
    expectWait(removals(1), [] { return registry().getHash(text()); });
}

TEST(ZebHashRemoval, AThreadThatAddsAnObjectWaits)
{
    const MessageCapture messages;
    expectWait(removals(1), [] { return registry().addHash(newHash(bytes())); });
}

TEST(ZebHashRemoval, EveryRemovalOfTheDigestIsWaitedFor)
{
    const MessageCapture messages;
    expectWait(removals(3), [] { return registry().getHash(bytes()); });
}

TEST(ZebHashRemoval, ItEndsAlthoughAThreadThatWaitsHasTheRegistryLocked)
{
    const MessageCapture messages;
    Removal current = removal();
    BlockedThread adding([] {
        // An entry more of the recursive mutex, which the wait does not release.
        const ZebTdxMutexLocker locker(&RegistryInside::mutexOf(bytes()));
        registry().addHash(newHash(bytes()));
    });
    EXPECT_TRUE(adding.waitsFor(RegistryInside::removalEnded(registry())));
    current.reset();
    EXPECT_TRUE(adding.ends());
}

TEST(ZebHashRemoval, OtherDigestsAreInternedMeanwhileAndTheRegistryIsFree)
{
    const MessageCapture messages;
    Removal current = removal();
    BlockedThread waiting([] { registry().getHash(bytes()); });
    EXPECT_TRUE(waiting.waitsFor(RegistryInside::removalEnded(registry())));
    const ZebSmartPointer<ZebDataHash> other = registry().getHash(QByteArray("other"));
    EXPECT_FALSE(other.isNull());
    EXPECT_FALSE(waiting.hasEnded());
    current.reset();
    EXPECT_TRUE(waiting.ends());
}

TEST(ZebHashRemoval, ItEndsWhileAnotherThreadHasTheRegistryLocked)
{
    const MessageCapture messages;
    Removal current = removal();
    const ZebTdxMutexLocker locker(&RegistryInside::mutexOf(bytes()));
    BlockedThread ending([&] { current.reset(); });
    EXPECT_TRUE(ending.ends());
}

TEST(ZebHashRemoval, AFileIsNeverRemovedWhileItsHashIsHeld)
{
    const MessageCapture messages;
    std::atomic<int> held{0};
    std::atomic<int> removing{0};
    std::atomic<int> both{0};
    std::atomic<int> decisions{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            while (decisions < 20000) {
                {
                    const ZebSmartPointer<ZebDataHash> hash = registry().getHash(bytes());
                    ++held;
                    both += removing != 0 ? 1 : 0;
                    --held;
                }
                std::this_thread::yield();
            }
        });
        threads.emplace_back([&] {
            while (decisions < 20000) {
                const ZebHashRemoval current(text());
                ++decisions;
                if (current.isHashLive())
                    continue;
                ++removing;
                both += held != 0 ? 1 : 0;
                --removing;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(both, 0);
    EXPECT_FALSE(registry().isHashLive(text()));
}
