#include "reads/QuietChecks.h"

#include "hash/ZebHashManager.h"
#include "reads/OrderScript.h"
#include "support/FakeMemory.h"
#include "support/WaitUntil.h"

namespace {

constexpr int s_ReferencesDeadlineMs = 5000;
constexpr qint64 s_Plenty = qint64(1) << 30;
constexpr qint64 s_Tightest = qint64(4) * StressBlocks::s_Size;

std::string numbered(const char* text, qint64 found, qint64 expected)
{
    return std::string(text) + ": " + std::to_string(found) + " instead of " +
           std::to_string(expected);
}

} // namespace

QuietChecks::QuietChecks(StressShared& shared, StressPause& pause, StressActivity& activity,
                         int workers)
    : m_Shared(shared),
      m_Pause(pause),
      m_Activity(activity),
      m_Workers(workers),
      m_LastSignal(manager().allFreeBlocksFlushed())
{
    m_Connection = QObject::connect(
        &manager(), &ZebDataBlockManager::allFreeBlocksFlushedChanged, &manager(),
        [this](bool flushed) {
            ++m_Signals;
            require(flushed != m_LastSignal, "the flag of the host changed to the value it had");
            m_LastSignal = flushed;
        },
        Qt::DirectConnection);
}

void QuietChecks::checkCounts()
{
    m_Activity.setDoing("counts");
    qint64 evictable = 0;
    qint64 bytes = 0;
    {
        QList<ZebDataReference> references;
        manager().snapshot(references);
        for (const ZebDataReference& reference : qAsConst(references)) {
            const ZebSmartPointer<ZebDataHash> hash = reference.hashPtr();
            if (!reference.isInMemory())
                continue;
            bytes += manager().blockSize(hash.data());
            bool isPinned = hash->isDontCache();
            for (const StressBlock& block : *m_Shared.m_Blocks)
                isPinned = isPinned || (block.m_Hash == hash && block.pins() != 0);
            evictable += isPinned ? 0 : 1;
        }
    }
    if (manager().liveBlocks() != evictable)
        failStress(numbered("evictable blocks", manager().liveBlocks(), evictable));
    if (manager().liveBytes() != bytes)
        failStress(numbered("bytes of resident blocks", manager().liveBytes(), bytes));
    for (StressBlock& block : *m_Shared.m_Blocks) {
        // The block, its holder of the hash, each worker, and each open accessor.
        const int expected = 2 + m_Workers + block.pins();
        // A disk thread may still be dropping a reference.
        if (!pollUntil([&] { return block.m_Hash->refCount() == expected; },
                       s_ReferencesDeadlineMs))
            failStress(numbered(("references of block " + std::to_string(block.m_Number)).c_str(),
                                block.m_Hash->refCount(), expected));
        const ZebConstAccessor accessor = block.m_Reference.constAccessor();
        block.requireBytes(accessor);
        if (accessor.count() != block.pins() + 1)
            failStress(numbered(("accessors of block " + std::to_string(block.m_Number)).c_str(),
                                accessor.count(), block.pins() + 1));
    }
}

void QuietChecks::evictAll()
{
    manager().setMaxDataCacheSize(s_Tightest);
    manager().flushMemory(true);
    manager().setMaxDataCacheSize(s_Plenty);
    if (manager().liveBlocks() != 0)
        failStress(numbered("evictable blocks after all were evicted", manager().liveBlocks(), 0));
}

void QuietChecks::evictNext()
{
    // The target of free memory is missed by less than a block.
    manager().setTargetFreeMemorySize(FakeMemory::s_Plenty);
    manager().createNewBlock(1);
    manager().setTargetFreeMemorySize(0);
}

void QuietChecks::checkFlag()
{
    m_Activity.setDoing("checks the flag of the host");
    evictAll();
    std::vector<StressBlock*> unpinned;
    for (StressBlock& block : *m_Shared.m_Blocks) {
        if (block.m_Kind == StressBlock::Kind::Shared && block.pins() == 0)
            unpinned.push_back(&block);
    }
    if (unpinned.size() < 2)
        return;
    const ZebDataReference& kept = unpinned[0]->m_Reference;
    const ZebDataReference& evicted = unpinned[1]->m_Reference;
    std::optional<ZebConstAccessor> accessor;
    accessor.emplace(kept.constAccessor());
    evicted.constAccessor();
    evictNext();
    require(manager().allFreeBlocksFlushed(), "the last eviction did not set the host's flag");
    const int signalsBefore = m_Signals;
    m_Pause.perform(0, [&accessor] { accessor.reset(); });
    require(!manager().allFreeBlocksFlushed(), "the end of an accessor left the host's flag set");
    require(m_Signals == signalsBefore + 1, "the host's flag was not signalled exactly once");
    m_Pause.perform(0, [&kept] { kept.constAccessor(); });
    require(m_Signals == signalsBefore + 1, "the host's flag was signalled without a change");
}

void QuietChecks::checkOrder(quint32 seed)
{
    m_Activity.setDoing("prepares the check of the order");
    evictAll();
    std::vector<StressBlock*> unpinned;
    for (StressBlock& block : *m_Shared.m_Blocks) {
        if (block.m_Kind == StressBlock::Kind::Shared && block.pins() == 0)
            unpinned.push_back(&block);
    }
    OrderScript script(unpinned, m_Workers, seed);
    if (!script.isPossible())
        return;
    script.load();
    m_Activity.setDoing("has threads use blocks in a known order");
    std::vector<std::pair<int, std::function<void()>>> tasks;
    for (const int actor : script.actors())
        tasks.emplace_back(actor, [&script, actor] { script.play(actor); });
    tasks.emplace_back(script.evictor(), [&script] { script.evictSome(&evictNext); });
    m_Pause.perform(tasks);
    m_Activity.setDoing("checks the order of eviction");
    script.requireOrder(&evictNext);
}
