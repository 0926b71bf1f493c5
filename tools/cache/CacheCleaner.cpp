#include "tools/cache/CacheCleaner.h"

#include "data/ZebConstAccessor.h"
#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "tools/cache/CacheScanner.h"
#include "tools/cache/ToolStore.h"
#include "tools/files/Manifest.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"

#include <QByteArray>
#include <QVector>

namespace {

// A collector's thread and this one may be at it at the same time, and each remembers that it is
// done: another pass finds what the first one has left.
constexpr int s_MostPasses = 3;

// Draws how far a pass has come.
class PassProgress : public ZebDataBlockManager::ProgressReporter
{
public:
    explicit PassProgress(ProgressBar& bar) : m_Bar(bar) {}

    void start(const QString&, int total) override
    {
        m_Bar.begin("Cleaning ", total, ProgressBar::Unit::Things);
    }
    void finish() override { m_Bar.end(); }
    void update(int value, const QString&) override { m_Bar.show(value); }

private:
    ProgressBar& m_Bar;
};

} // namespace

CacheCleaner::CacheCleaner(const StorePlace& place, const ToolStore& store, ErrorReport& errors,
                           ProgressBar& progress)
    : m_Place(place), m_Store(store), m_Errors(errors), m_Progress(progress)
{}

bool CacheCleaner::isSound(const ZebDataReference& group) const
{
    if (!m_Store.has(group))
        return false;
    const ZebConstAccessor list = group.constAccessor();
    if (list.isNull())
        return false;
    // The digest of what the block holds is its name, so damage shows.
    const ZebSmartPointer<ZebDataHash> hash = group.hashPtr();
    return ZebDataHash(list.data(), list.size(), hash->size()) == *hash;
}

bool CacheCleaner::keep(const Manifest& manifest)
{
    bool all = true;
    m_Progress.begin("Reading  ", static_cast<qint64>(manifest.m_Files.size()),
                     ProgressBar::Unit::Things);
    qint64 done = 0;
    for (const Manifest::File& file : manifest.m_Files) {
        const ZebDataReference group(ZebHashManager::instance().getHash(file.m_Group));
        if (isSound(group)) {
            m_Held.push_back(group);
            for (const ZebDataReference& member :
                 ZebDataBlockManager::instance().extractGroupBlock(group))
                m_Held.push_back(member);
        } else {
            m_Errors.add(file.m_Path, "its list of blocks cannot be read from the cache");
            all = false;
        }
        m_Progress.show(++done);
    }
    m_Progress.end();
    return all;
}

void CacheCleaner::count()
{
    m_Kept = {};
    m_Rest = {};
    CacheScanner scan(m_Errors);
    scan.only(m_Place.m_SubCache);
    const ZebHashManager& hashes = ZebHashManager::instance();
    scan.run(m_Place.m_Roots, [this, &hashes](const CacheScanner::File& file) {
        if (!file.m_IsBlock)
            return;
        Sum& sum = hashes.isHashLive(QString::fromStdString(file.m_Name)) ? m_Kept : m_Rest;
        ++sum.m_Files;
        sum.m_Bytes += file.m_Size;
    });
}

bool CacheCleaner::removeRest()
{
    for (int i = 0; i < s_MostPasses; ++i) {
        pass();
        count();
        if (m_Rest.m_Files == 0)
            return true;
    }
    return false;
}

void CacheCleaner::pass()
{
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    manager.startGarbageCollection();
    // A collector begins when a block has left memory since its last pass.
    manager.freeAllBlocks();
    PassProgress progress(m_Progress);
    manager.collectGarbage(&progress);
    manager.stopGarbageCollection();
}
