#include "tools/cache/CacheCleaner.h"

#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "tools/cache/CacheScanner.h"
#include "tools/cache/ToolStore.h"
#include "tools/files/ManifestReader.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/StopRequest.h"
#include "tools/terminal/ToolError.h"

#include <QScopeGuard>
#include <QVector>

#include <optional>

namespace {

// A collector's thread may run a pass at the same time and then leave files to this one: another
// pass finds what the first one has left.
constexpr int s_MostPasses = 3;

// Draws the progress of a pass.
class PassProgress : public ZebDataBlockManager::ProgressReporter
{
public:
    explicit PassProgress(ProgressBar& bar) : m_Bar(bar) {}

    void start(const QString&, int total) override
    {
        m_Bar.begin("Cleaning ", total, ProgressBar::Unit::Items);
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

bool CacheCleaner::keep(ManifestReader& manifest, qint64 files)
{
    bool all = true;
    m_Progress.begin("Reading  ", files, ProgressBar::Unit::Items);
    qint64 done = 0;
    while (const std::optional<Manifest::File> next = manifest.next()) {
        const Manifest::File& file = *next;
        StopRequest::check();
        const auto error = ToolError::of([&] {
            const ZebDataReference group(ZebHashManager::instance().getHash(file.m_Group));
            const QVector<ZebDataReference> members = m_Store.members(group, "its list of blocks ");
            // Blocks that the list does not name would be removed.
            if (members.size() != manifest.head().blocksOf(file))
                throw ToolError("its list names " + std::to_string(members.size()) +
                                " blocks, but its size in the manifest needs " +
                                std::to_string(manifest.head().blocksOf(file)));
            m_Held.push_back(group);
            m_Held.insert(m_Held.end(), members.begin(), members.end());
        });
        if (error) {
            m_Errors.add(file.m_Path, *error);
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
    m_Unreferenced = {};
    CacheScanner scanner(m_Errors);
    scanner.only(m_Place.m_SubCache);
    const ZebHashManager& hashes = ZebHashManager::instance();
    scanner.run(m_Place.m_Roots, [this, &hashes](const CacheScanner::File& file) {
        if (!file.m_IsBlock)
            return;
        const std::optional<qint64> bytes = CacheScanner::fileBytesOf(file, m_Errors);
        if (!bytes)
            return;
        Sum& sum = hashes.isHashLive(QString::fromStdString(file.m_Name)) ? m_Kept : m_Unreferenced;
        ++sum.m_Files;
        sum.m_Bytes += *bytes;
    });
}

bool CacheCleaner::removeUnreferenced()
{
    for (int i = 0; i < s_MostPasses; ++i) {
        StopRequest::check();
        pass();
        count();
        if (m_Unreferenced.m_Files == 0)
            return true;
    }
    return false;
}

void CacheCleaner::pass()
{
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    manager.startGarbageCollection();
    const auto stop = qScopeGuard([&manager] { manager.stopGarbageCollection(); });
    // A collector starts when a block was evicted since its last pass.
    manager.freeAllBlocks();
    PassProgress progress(m_Progress);
    manager.collectGarbage(&progress);
}
