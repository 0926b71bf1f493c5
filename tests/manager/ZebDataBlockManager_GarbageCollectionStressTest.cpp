// Switching the collection on and off again and again, while other threads add, drop and query
// blocks: no thread hangs, and no file of a live hash is removed.

#include "manager/ZebDataBlockManager.h"

#include "support/CollectedStore.h"
#include "support/WaitUntil.h"

#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr int s_Rounds = 250;
constexpr int s_LongRounds = 10000;
constexpr int s_RoundMs = 50;
constexpr int s_Roots = 4;
constexpr int s_Block = 200;
constexpr quint32 s_Contents = 400;
constexpr quint32 s_KeptContents = 20;
constexpr unsigned s_MaxDelayUs = 2000;

class ZebDataBlockManagerGarbageCollectionStress : public CollectedStore
{
protected:
    ZebDataBlockManagerGarbageCollectionStress() : CollectedStore(s_Roots) {}

    static void delay(std::mt19937& random)
    {
        // Half of the time not at all, so that operations also follow each other at once.
        if (random() % 2 == 0)
            QThread::usleep(random() % s_MaxDelayUs);
    }

    // Adds and drops blocks, so that gates open and files are written and removed.
    static void work(const std::atomic<bool>& isOver, unsigned seed)
    {
        std::mt19937 random(seed);
        std::vector<ZebDataReference> references(16);
        while (!isOver) {
            const quint32 choice = static_cast<quint32>(random());
            references.at(choice % references.size()) =
                add(s_Block, s_KeptContents + choice / 16 % s_Contents);
            delay(random);
        }
    }

    // Ends the process when the rounds do not end in time: a thread that hangs can't be joined.
    static void expectEnd(const std::atomic<int>& rounds, int wanted, int deadlineMs)
    {
        if (waitUntil([&] { return rounds >= wanted; }, deadlineMs))
            return;
        std::fprintf(stderr, "Still in round %d of %d.\n", rounds.load(), wanted);
        std::abort();
    }

    void run(int wanted)
    {
        std::vector<ZebDataReference> kept;
        for (quint32 i = 0; i < s_KeptContents; ++i)
            kept.push_back(add(s_Block, i));
        manager().flush(true);

        std::atomic<bool> isOver{false};
        std::atomic<int> rounds{0};
        std::vector<std::thread> threads;
        threads.emplace_back([&] { work(isOver, 1); });
        threads.emplace_back([&] { work(isOver, 2); });
        threads.emplace_back([&] {
            std::mt19937 random(3);
            while (!isOver) {
                manager().collectGarbage(nullptr);
                delay(random);
            }
        });
        threads.emplace_back([&] {
            std::mt19937 random(4);
            while (rounds < wanted) {
                manager().startGarbageCollection();
                delay(random);
                ZebDataReference dropped = add(s_Block, static_cast<quint32>(rounds));
                delay(random);
                dropped = ZebDataReference();
                delay(random);
                manager().stopGarbageCollection();
                EXPECT_EQ(StoreInside::passesRunning(), 0);
                ++rounds;
            }
        });
        expectEnd(rounds, wanted, 20000 + wanted * s_RoundMs);
        isOver = true;
        for (std::thread& thread : threads)
            thread.join();

        manager().flush(true);
        for (quint32 i = 0; i < s_KeptContents; ++i)
            EXPECT_TRUE(QFile::exists(fileOf(kept.at(i))));
        manager().freeAllBlocks();
        for (quint32 i = 0; i < s_KeptContents; ++i)
            EXPECT_TRUE(holdsTestBytes(kept.at(i), s_Block, i));

        // A last pass removes the orphaned files of all this.
        manager().startGarbageCollection();
        waitForPass();
        EXPECT_EQ(blockFileNames().size(), static_cast<int>(s_KeptContents));
        qint64 size = 0;
        for (const ZebDataReference& reference : kept)
            size += QFileInfo(fileOf(reference)).size();
        EXPECT_TRUE(waitUntil([size] { return manager().currentCacheSizeInBytes() == size; }));
    }
};

} // namespace

TEST_F(ZebDataBlockManagerGarbageCollectionStress, EveryRoundOfStartAddDropAndStopEnds)
{
    run(s_Rounds);
}

// scripts/soak.sh runs it.
TEST_F(ZebDataBlockManagerGarbageCollectionStress, DISABLED_TheSameInTenThousandRounds)
{
    run(s_LongRounds);
}
