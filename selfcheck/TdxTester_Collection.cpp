// The checks that look at the files of the disk cache: uncached blocks and the collection.

#include "selfcheck/TdxTester.h"

#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "selfcheck/ZebLiveReferences.h"
#include "selfcheck/ZebSelfCheck.h"
#include "selfcheck/ZebSelfCheckFrame.h"
#include "selfcheck/ZebSelfCheckStore.h"

#include <QScopeGuard>
#include <QThread>

#include <array>

using ZebByteUnits::s_BytesPerMiB;
using ZebSelfCheck::failure;
using ZebSelfCheck::line;

namespace {

constexpr int s_Roots = 2;
constexpr unsigned long s_ShortMs = 10;
constexpr unsigned long s_WriteMs = 100;
constexpr unsigned long s_CollectMs = 500;

// A reference whose hash is already computed: on a busy machine a hashing job may start late.
ZebDataReference add(const QByteArray& bytes, ZebModifyAccessor::Caching caching)
{
    const ZebDataReference reference =
        ZebDataBlockManager::instance().addBlock(bytes, caching, false);
    reference.resolveWork();
    return reference;
}

// Two uncached blocks and two cached blocks, all of the same byte, and one that fills the store.
struct FiveBlocks
{
    ZebDataReference m_A = add("a", ZebModifyAccessor::DontCache);
    ZebDataReference m_B = add("a", ZebModifyAccessor::DontCache);
    ZebDataReference m_C = add("a", ZebModifyAccessor::Cached);
    ZebDataReference m_D = add("a", ZebModifyAccessor::Cached);
    ZebDataReference m_E;
};

bool identitiesAreRight(const FiveBlocks& blocks)
{
    if (blocks.m_A.hash() == blocks.m_B.hash()) {
        return failure("Each DontCache block should have unique hash\n %s\n %s",
                       qUtf8Printable(blocks.m_A.hash()), qUtf8Printable(blocks.m_B.hash()));
    }
    if (blocks.m_C.hash() != blocks.m_D.hash()) {
        return failure("Cache blockes should have the same cache if the data is the same\n %s\n %s",
                       qUtf8Printable(blocks.m_C.hash()), qUtf8Printable(blocks.m_D.hash()));
    }
    return true;
}

bool residencyIsRight(const FiveBlocks& blocks)
{
    const bool a = blocks.m_A.isInMemory();
    const bool b = blocks.m_B.isInMemory();
    const bool c = blocks.m_C.isInMemory();
    const bool d = blocks.m_D.isInMemory();
    if (a && b && !c && !d)
        return true;
    return failure("Cache blocks are not freed or Dont cache blocks are freed when max memory is "
                   "reached. In Memory? A %d B %d C %d D %d",
                   a, b, c, d);
}

bool filesAreOfCachedBlocks(const FiveBlocks& blocks, const QStringList& roots)
{
    const QList<QFileInfo> files = ZebSelfCheckStore::blockFiles(roots);
    if (files.size() != 2)
        return failure("There should be exactly 2 files at this point");
    for (const QFileInfo& file : files) {
        const QString name = file.fileName();
        if (name == blocks.m_C.hash() || name == blocks.m_D.hash() || name == blocks.m_E.hash())
            continue;
        line("The cache file is not for one of C, D or E : %s", qUtf8Printable(name));
        line(" A %s", qUtf8Printable(blocks.m_A.hash()));
        line(" B %s", qUtf8Printable(blocks.m_B.hash()));
        line(" C %s", qUtf8Printable(blocks.m_C.hash()));
        line(" D %s", qUtf8Printable(blocks.m_D.hash()));
        return failure(" E %s", qUtf8Printable(blocks.m_E.hash()));
    }
    return true;
}

bool dontCacheWorks(const QStringList& roots)
{
    {
        FiveBlocks blocks;
        if (!identitiesAreRight(blocks))
            return false;
        blocks.m_E =
            add(QByteArray(static_cast<int>(s_BytesPerMiB), '\0'), ZebModifyAccessor::Cached);
        QThread::msleep(s_WriteMs);
        if (!residencyIsRight(blocks) || !filesAreOfCachedBlocks(blocks, roots))
            return false;
        ZebLiveReferences::runAll();
        ZebLiveReferences::clear();
    }
    QThread::msleep(s_ShortMs);
    const ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    if (manager.liveBlocks() != 0 || manager.liveBytes() != 0) {
        return failure("The memory must have been freed at this point. %lld bytes %lld blocks",
                       manager.liveBytes(), manager.liveBlocks());
    }
    return true;
}

bool hashesAre(int expected)
{
    if (ZebHashManager::instance().hashCount() == expected)
        return true;
    return failure("[!!] Hash count is not %d", expected);
}

// The registry counts the references' hashes, and no pending write keeps a hash alive.
bool registryFollowsReferences()
{
    if (!hashesAre(0))
        return false;
    constexpr int distinctBlocks = 3;
    std::array<ZebDataReference, 4> references = {
        add("a", ZebModifyAccessor::Cached), add("b", ZebModifyAccessor::Cached),
        add("b", ZebModifyAccessor::Cached), add("c", ZebModifyAccessor::Cached)};
    QThread::msleep(s_ShortMs);
    if (!hashesAre(distinctBlocks))
        return false;
    // A queued write holds its hash, and on a busy machine the sleep may be too short for it.
    ZebDataBlockManager::instance().flush(false, ZebDataBlockManager::WriteThreads);
    references[0] = ZebDataReference();
    references[1] = ZebDataReference();
    references[2] = ZebDataReference();
    QThread::msleep(s_ShortMs);
    return hashesAre(1);
}

bool filesAreLive(const QStringList& roots)
{
    const QList<QFileInfo> files = ZebSelfCheckStore::blockFiles(roots);
    const int registered = ZebHashManager::instance().hashCount();
    if (registered != files.size()) {
        return failure("The number of live hashes differ from the number of live cache files %d "
                       "!= %d",
                       registered, files.size());
    }
    for (const QFileInfo& file : files) {
        if (!ZebHashManager::instance().isHashLive(file.fileName()))
            return failure("Cache %s is not in live hashes", qUtf8Printable(file.fileName()));
    }
    return true;
}

bool collectionWorks(const QStringList& roots)
{
    if (!registryFollowsReferences())
        return false;
    ZebLiveReferences::runAll();
    QThread::msleep(s_ShortMs);
    if (!filesAreLive(roots))
        return false;
    ZebLiveReferences::clear();
    QThread::msleep(s_CollectMs);
    const int left = ZebSelfCheckStore::blockFiles(roots).size();
    if (left != 0)
        return failure("There should be no cache files, but there are %d files", left);
    return true;
}

} // namespace

bool TdxTester::testDontCacheTest()
{
    ZebSelfCheckFrame frame = {"[ -- ] Start DontCache Test", "[ OK ] Passed DontCache Test"};
    frame.m_Roots = ZebSelfCheckStore::rootsIn(m_TestDataDirectory, s_Roots);
    frame.m_MemoryBytes = s_BytesPerMiB;
    frame.m_SubCache = QLatin1String(ZebSelfCheck::s_SubCache);
    return frame.run([&frame] {
        const auto clear = qScopeGuard(&ZebLiveReferences::clear);
        return dontCacheWorks(frame.m_Roots);
    });
}

bool TdxTester::testGarbageCollection()
{
    ZebSelfCheckFrame frame = {"[ -- ] Start Garbage Collection Testing",
                               "[ OK ] Passed Garbage Collection Testing"};
    frame.m_Roots = ZebSelfCheckStore::rootsIn(m_TestDataDirectory, s_Roots);
    frame.m_SubCache = QLatin1String(ZebSelfCheck::s_SubCache);
    return frame.run([&frame] {
        const auto clear = qScopeGuard(&ZebLiveReferences::clear);
        return collectionWorks(frame.m_Roots);
    });
}
