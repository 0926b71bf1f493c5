// Many threads open, read and close blocks while others admit, evict, lock, look up and drop them.
// Every byte is compared; at quiet points all counts, sums and the exact order of eviction are
// checked, and a watchdog ends a run in which a thread is stuck.
//
// Exits with 0 when all is right, with 1 and a reason when not.

#include "data/ZebBlockFuture.h"
#include "hash/ZebHashManager.h"
#include "reads/QuietChecks.h"
#include "reads/StressOptions.h"
#include "reads/StressPoints.h"
#include "reads/StressRoles.h"
#include "reads/StressWatchdog.h"
#include "support/FakeMemory.h"
#include "support/TemporaryStore.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

// What must be the same before and after.
struct Counts
{
    int hashes = ZebDataHash::hashCount();
    int interned = ZebHashManager::instance().hashCount();
    int references = ZebDataReference::referenceCount();
    int jobs = ZebBlockFuture::numHashJobs();

    bool operator==(const Counts& other) const
    {
        return hashes == other.hashes && interned == other.interned &&
               references == other.references && jobs == other.jobs;
    }
};

class ReadStress
{
public:
    ReadStress(const StressOptions& options, MessageCapture& messages)
        : m_Options(options),
          m_Messages(messages),
          m_Blocks(options.m_Readers),
          m_Director("the director", m_Blocks.count()),
          m_Random(options.m_Seed)
    {
        m_Shared.m_Blocks = &m_Blocks;
        for (int i = 0; i < options.m_Readers; ++i)
            addRole<StressReader>("reader " + std::to_string(i), i);
        addRole<StressAdmitter>("the admitter");
        addRole<StressEvictor>("the evictor");
        addRole<StressLocker>("the locker");
        addRole<StressHashHolder>("the holder of hashes");
        addRole<StressReleaser>("releaser 0");
        addRole<StressReleaser>("releaser 1");
        addRole<StressChurner>("the starter of threads");
        addRole<StressReporter>("the reporter");
        for (const auto& activity : m_Activities)
            m_Shared.m_Activities.push_back(activity.get());
        m_Shared.m_Activities.push_back(&m_Director);
    }

    void run()
    {
        StressPause pause(static_cast<int>(m_Roles.size()));
        QuietChecks checks(m_Shared, pause, m_Director, static_cast<int>(m_Roles.size()));
        StressWatchdog watchdog(m_Shared.m_Activities, m_Options.m_StuckMs);
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < m_Roles.size(); ++i)
            threads.emplace_back([this, i, &pause] { work(static_cast<int>(i), pause); });
        QElapsedTimer timer;
        timer.start();
        bool isEnding = false;
        while (!isEnding) {
            m_Director.setDoing("waits until all stand still");
            pause.stopAll();
            watchdog.setWorkersMove(false);
            checkQuiet(checks);
            isEnding = timer.elapsed() > m_Options.m_Seconds * 1000LL;
            beginRound();
            watchdog.setWorkersMove(!isEnding);
            pause.goOn(isEnding);
            if (!isEnding)
                QThread::msleep(static_cast<unsigned long>(m_Options.m_RoundMs));
        }
        for (std::thread& thread : threads)
            thread.join();
        printSteps();
    }

private:
    template <typename Role, typename... Arguments>
    void addRole(const std::string& name, Arguments... arguments)
    {
        m_Activities.push_back(std::make_unique<StressActivity>(name, m_Blocks.count()));
        m_Roles.push_back(std::make_unique<Role>(m_Shared, *m_Activities.back(),
                                                 static_cast<quint32>(m_Random()), arguments...));
    }

    void work(int worker, StressPause& pause)
    {
        StressRole& role = *m_Roles[static_cast<std::size_t>(worker)];
        do {
            role.prepareToStand();
            m_Activities[static_cast<std::size_t>(worker)]->setDoing("stands still");
            if (!pause.arrive(worker))
                break;
            while (!pause.isRequested())
                role.step();
        } while (true);
    }

    void checkQuiet(QuietChecks& checks)
    {
        m_Director.setDoing("waits for the disk threads");
        manager().flush(false, ZebDataBlockManager::AllThreads);
        checks.checkCounts();
        checks.checkFlag();
        checks.checkOrder(static_cast<quint32>(m_Random()));
        checks.checkCounts();
        m_Messages.clear();
        ++m_Rounds;
    }

    void beginRound()
    {
        m_Director.setDoing("begins a round");
        m_Shared.m_Round.m_IsPlentiful = m_Random() % 3 == 0;
        m_Shared.m_Round.m_Writes = m_Random() % 3 != 0;
        StressReporter::setLimit(m_Shared.m_Round, 0);
        if (!m_Shared.m_Round.m_IsPlentiful)
            return;
        for (const StressBlock& block : m_Blocks)
            block.requireBytes(block.m_Reference.constAccessor());
        manager().flush(false, ZebDataBlockManager::AllThreads);
    }

    void printSteps() const
    {
        std::printf("%d rounds, seed %u\n", m_Rounds, m_Options.m_Seed);
        for (const auto& activity : m_Activities)
            std::printf("%12llu steps: %s\n", static_cast<unsigned long long>(activity->progress()),
                        activity->name().c_str());
    }

    const StressOptions m_Options;
    MessageCapture& m_Messages;
    StressBlocks m_Blocks;
    StressActivity m_Director;
    std::minstd_rand m_Random;
    StressShared m_Shared;
    std::vector<std::unique_ptr<StressActivity>> m_Activities;
    std::vector<std::unique_ptr<StressRole>> m_Roles;
    int m_Rounds = 0;
};

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const StressOptions options = StressOptions::parse(argc, argv);
    const FakeMemory memory;
    const Counts before;
    TemporaryStore store;
    manager().flushMemory(true);
    const qint64 target = manager().targetFreeMemorySize();
    StressPoints::begin(options);
    ReadStress(options, store.messages()).run();
    StressPoints::end();
    manager().setTargetFreeMemorySize(target);
    manager().flush(false, ZebDataBlockManager::AllThreads);
    store.cleanUp();
    require(Counts() == before, "hashes, references or jobs are left over");
    require(manager().liveBlocks() == 0, "evictable blocks are left over");
    require(manager().liveBytes() == 0, "bytes of blocks are left over");
    return 0;
}
