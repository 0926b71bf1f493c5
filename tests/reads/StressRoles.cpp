#include "reads/StressRoles.h"

#include "hash/ZebHashManager.h"
#include "reads/StressWindow.h"
#include "support/ZebDataDeleteLocker.h"

#include <thread>

namespace {

constexpr quint32 s_FirstAdmittedSeed = 1000;
constexpr int s_AdmittedSeeds = 100;
constexpr quint32 s_FirstReleasedSeed = 5000;

// Limits of memory that hold a third to two thirds of the blocks, or all of them.
constexpr int s_FewestBlocks = 12;
constexpr int s_LimitsInBlocks = 10;
constexpr qint64 s_Plenty = qint64(1) << 30;

// What a thread closes in its last thread-local destructors.
std::unique_ptr<StressOpening>& lateOpening()
{
    static thread_local std::unique_ptr<StressOpening> opening;
    return opening;
}

} // namespace

// StressAdmitter

void StressAdmitter::step()
{
    Added& added = m_Added[static_cast<std::size_t>(below(static_cast<int>(m_Added.size())))];
    added.m_Seed = s_FirstAdmittedSeed + static_cast<quint32>(below(s_AdmittedSeeds));
    const QByteArray bytes = testBytes(StressBlocks::s_Size, added.m_Seed);
    const bool isCached = m_Shared.m_Round.m_Writes && below(4) != 0;
    m_Activity.setDoing("adds a block");
    added.m_Reference = manager().addBlock(
        bytes, isCached ? ZebModifyAccessor::Cached : ZebModifyAccessor::DontCache, below(2) == 0);
    if (below(4) == 0)
        readBack();
    if (manager().isWriteThreadsFull()) {
        m_Activity.setDoing("waits for the writers");
        manager().flush(false, ZebDataBlockManager::WriteThreads);
    }
    m_Activity.setDoing("rests");
    pause(below(100));
}

void StressAdmitter::readBack()
{
    m_Activity.setDoing("reads an added block");
    for (const Added& added : m_Added) {
        if (!added.m_Reference.isNull() &&
            !holdsTestBytes(added.m_Reference, StressBlocks::s_Size, added.m_Seed))
            failStress("an added block shows other bytes");
    }
}

void StressAdmitter::prepareToStand()
{
    for (Added& added : m_Added)
        added.m_Reference = ZebDataReference();
}

// StressEvictor

void StressEvictor::step()
{
    if (!m_Shared.m_Round.m_IsPlentiful) {
        m_Activity.setDoing("evicts");
        // Without a write in flight, the host's last resort is allowed, too.
        if (!m_Shared.m_Round.m_Writes && below(2) == 0)
            manager().helpMeOut();
        else
            manager().flushMemory(below(2) == 0);
    }
    m_Activity.setDoing("rests");
    pause(100 + below(1000));
}

// StressLocker

bool StressLocker::hasStillReferences(const StressBlock& block) const
{
    // A load takes references of its own, and the delete lock does not block it.
    const bool isNeverLoaded =
        block.m_Kind == StressBlock::Kind::Pinned || block.m_Kind == StressBlock::Kind::Uncached;
    return !block.isCopied() && (isNeverLoaded || m_Shared.m_Round.m_IsPlentiful);
}

std::vector<qint64> StressLocker::state(const StressOpening& opening, bool withQueries) const
{
    std::vector<qint64> state{manager().liveBlocks(), manager().liveBytes(),
                              opening.accessor().count()};
    for (const StressBlock& block : *m_Shared.m_Blocks) {
        if (withQueries)
            state.push_back(manager().isInMemory(block.m_Hash.data()) ? 1 : 0);
    }
    return state;
}

std::vector<StressLocker::References> StressLocker::stillReferences() const
{
    std::vector<References> found;
    for (const StressBlock& block : *m_Shared.m_Blocks) {
        if (!hasStillReferences(block))
            continue;
        // The operations first: those that end in between only make the check less strict.
        const int underWay =
            StressWindow::underWay(m_Shared.m_Activities, ChangesReferences, block.m_Number);
        found.push_back({&block, block.m_Hash->refCount(), underWay});
    }
    return found;
}

void StressLocker::requireStill(const std::vector<References>& references)
{
    for (const References& before : references) {
        // An accessor that was closed before the lock may release its hash after it.
        const int now = before.m_Block->m_Hash->refCount();
        if (now > before.m_Count || now < before.m_Count - before.m_UnderWay)
            failStress("the references of block " + std::to_string(before.m_Block->m_Number) +
                       " changed from " + std::to_string(before.m_Count) + " to " +
                       std::to_string(now) + " while another thread held the delete lock");
    }
}

void StressLocker::step()
{
    {
        m_Activity.setDoing("waits for a snapshot");
        const std::lock_guard<std::mutex> noSnapshot(m_Shared.m_Snapshots);
        StressBlock& block = anyShared();
        const StressOpening opening(m_Activity, block, referenceTo(block.m_Number));
        m_Activity.setDoing("takes the delete lock");
        const ZebDataDeleteLocker locker;
        m_Activity.setDoing("holds the delete lock");
        const StressWindow window(m_Shared.m_Activities, NeedsDeleteLock, -1);
        const bool withQueries = below(2) == 0;
        const std::vector<References> references = stillReferences();
        const std::vector<qint64> before = state(opening, withQueries);
        pause(below(100));
        if (state(opening, withQueries) != before)
            failStress("something changed while another thread held the delete lock");
        requireStill(references);
        const std::string completed = window.completedOperation();
        if (!completed.empty())
            failStress(completed + " while another thread held the delete lock");
        if (block.m_Kind != StressBlock::Kind::Shared) {
            // The holder itself may read.
            const ZebConstAccessor again = referenceTo(block.m_Number).constAccessor();
            block.requireBytes(again);
            require(again.count() == before[2] + 1, "the holder's accessor is not counted");
        }
    }
    m_Activity.setDoing("rests");
    pause(200 + below(1000));
}

// StressHashHolder

void StressHashHolder::step()
{
    const StressBlock& block = anyShared();
    ZebDataHash& hash = *block.m_Hash;
    // A look-up adds to the references of a locked hash, too.
    if (!block.isLookedUp() && hash.tryLock()) {
        m_Activity.setDoing("holds the hash of", block.m_Number);
        {
            const StressWindow window(m_Shared.m_Activities, ChangesReferences, block.m_Number);
            const int references = hash.refCount();
            pause(below(60));
            if (hash.refCount() != references)
                failStress("the references of a locked hash changed");
            const std::string completed = window.completedOperation();
            if (!completed.empty())
                failStress(completed + " while its hash was locked");
        }
        hash.unlock();
    }
    m_Activity.setDoing("rests");
    pause(100 + below(500));
}

// StressReleaser

StressReleaser::StressReleaser(StressShared& shared, StressActivity& activity, quint32 seed)
    : StressRole(shared, activity, seed)
{
    for (int i = 0; i < s_Blocks; ++i)
        m_Texts[static_cast<std::size_t>(i)] =
            ZebDataHash(bytesOf(i), ZebDataHash::Hash512).toString();
}

QByteArray StressReleaser::bytesOf(int which)
{
    return testBytes(StressBlocks::s_Size, s_FirstReleasedSeed + static_cast<quint32>(which));
}

void StressReleaser::requireBytes(const ZebDataReference& reference, int which)
{
    const ZebConstAccessor accessor = reference.constAccessor();
    // A block may be gone with its last reference before its file was written.
    if (accessor.isNull())
        return;
    require(accessor.size() == StressBlocks::s_Size &&
                std::memcmp(accessor.data(), bytesOf(which).constData(), StressBlocks::s_Size) == 0,
            "a block that was added again shows other bytes");
}

void StressReleaser::step()
{
    const int which = below(s_Blocks);
    if (!m_Shared.m_Round.m_Writes) {
        m_Activity.setDoing("rests");
        pause(500);
    } else if (below(2) == 0) {
        m_Activity.setDoing("adds, reads and drops block", which);
        const ZebDataReference reference =
            manager().addBlock(bytesOf(which), ZebModifyAccessor::Cached, below(2) == 0);
        if (below(2) == 0)
            requireBytes(reference, which);
    } else {
        m_Activity.setDoing("looks up and drops block", which);
        const ZebDataReference reference(
            ZebHashManager::instance().getHash(m_Texts[static_cast<std::size_t>(which)]));
        if (reference.isInMemory())
            requireBytes(reference, which);
    }
}

// StressChurner

void StressChurner::live(StressActivity& activity, StressBlock& block,
                         const ZebDataReference& reference, bool isLate)
{
    // Constructed before the thread's first operation of the library, so destroyed after whatever
    // the library keeps for the thread.
    if (isLate)
        lateOpening() = nullptr;
    for (int i = 0; i < 4; ++i)
        const StressOpening opening(activity, block, reference);
    if (isLate)
        lateOpening() = std::make_unique<StressOpening>(activity, block, reference);
}

void StressChurner::step()
{
    StressBlock& first = anyShared();
    StressBlock& second = anyShared();
    // Each thread uses a reference of this one, which waits meanwhile.
    if (&first == &second)
        return;
    std::thread one([&] { live(m_Activity, first, referenceTo(first.m_Number), true); });
    std::thread other([&] { live(m_Activity, second, referenceTo(second.m_Number), false); });
    one.join();
    other.join();
    m_Activity.setDoing("rests");
    pause(below(500));
}

// StressReporter

void StressReporter::setLimit(const StressRound& round, int choice)
{
    const qint64 blocks = s_FewestBlocks + choice % s_LimitsInBlocks;
    manager().setMaxDataCacheSize(round.m_IsPlentiful ? s_Plenty + choice
                                                      : blocks * StressBlocks::s_Size);
}

void StressReporter::step()
{
    m_Activity.setDoing("reports");
    manager().dumpStats();
    const qint64 evictable = manager().liveBlocks();
    require(evictable >= 0 && evictable < 1000, "the number of evictable blocks is impossible");
    setLimit(m_Shared.m_Round, below(1000));
    {
        m_Activity.setDoing("takes a snapshot");
        const std::lock_guard<std::mutex> snapshots(m_Shared.m_Snapshots);
        QList<ZebDataReference> references;
        manager().snapshot(references);
        require(references.size() >= m_Shared.m_Blocks->count(), "a snapshot lacks hashes");
    }
    m_Activity.setDoing("rests");
    pause(1000 + below(2000));
}
