// Readers of the host at the end of its process, and in its forked children.

#include "EndingHost.h"

#include "support/ZebDataDeleteLocker.h"

#include <QSemaphore>

#include <atomic>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace {

constexpr int s_ThreadCount = 2;
constexpr int s_BlockCount = 20;

ZebDataReference added(int number)
{
    return store().addBlock(blob(number), ZebModifyAccessor::Cached, true);
}

// Closes its accessor when its thread ends.
struct LateAccessor
{
    std::optional<ZebConstAccessor> m_Accessor;
};

LateAccessor& lateAccessor()
{
    static thread_local LateAccessor late;
    return late;
}

} // namespace

int closeInThreads()
{
    constexpr int accessorsPerBlock = 3000;
    static auto* const running = new QSemaphore;
    // Never destroyed, and not leaked either.
    static auto* const kept = new std::vector<std::vector<ZebConstAccessor>*>;
    for (int i = 0; i < s_ThreadCount; ++i) {
        auto* const open = new std::vector<ZebConstAccessor>;
        kept->push_back(open);
        open->reserve(s_BlockCount * accessorsPerBlock);
        for (int number = 0; number < s_BlockCount; ++number) {
            const ZebDataReference reference = added(number);
            for (int k = 0; k < accessorsPerBlock; ++k)
                open->push_back(reference.constAccessor());
        }
        std::thread([open] {
            running->release();
            while (!open->empty())
                open->pop_back();
            running->release();
        }).detach();
    }
    running->acquire(s_ThreadCount);
    return 0;
}

int closeInLateDestructors()
{
    // Constructed before the first operation of the library in its thread, and so destroyed after
    // what the library keeps for the thread; the other way round in every second thread.
    for (int i = 0; i < s_BlockCount; ++i) {
        std::thread([i] {
            if (i % 2 == 0)
                lateAccessor().m_Accessor.reset();
            const ZebDataReference reference = added(i);
            lateAccessor().m_Accessor.emplace(reference.constAccessor());
        }).join();
    }
    // The writers hold the blocks that they write.
    store().flush();
    if (store().liveBlocks() != 0)
        return 6;
    const std::vector<ZebDataReference> kept = {added(0), added(1)};
    lateAccessor().m_Accessor.emplace(kept[0].constAccessor());
    return store().liveBlocks() == 1 ? 0 : 7;
}

int forkWhileLocking(bool byExit)
{
    // Destroyed in each child that calls exit().
    static KeptByHost kept;
    kept.m_Reference = added(0);
    kept.m_Accessor.emplace(kept.m_Reference.constAccessor());
    std::atomic<bool> ending{false};
    std::atomic<int> rounds{0};
    std::thread locker([&ending, &rounds] {
        while (!ending.load()) {
            const ZebDataDeleteLocker deleteLocker;
            rounds.fetch_add(1);
        }
    });
    std::thread reader([&ending, &rounds] {
        const ZebDataReference reference = added(1);
        while (!ending.load()) {
            const ZebConstAccessor accessor = reference.constAccessor();
            rounds.fetch_add(1);
        }
    });
    const int status = forkRepeatedly(byExit);
    // The threads of the parent go on.
    const int before = rounds.load();
    while (rounds.load() < before + 100)
        std::this_thread::yield();
    ending.store(true);
    locker.join();
    reader.join();
    return status;
}
