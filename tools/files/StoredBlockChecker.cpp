#include "tools/files/StoredBlockChecker.h"

#include "data/ZebDataReference.h"
#include "hash/ZebBlockName.h"
#include "hash/ZebDataHash.h"
#include "io/ZebBlockFileChecker.h"
#include "io/ZebMemoryBudget.h"
#include "manager/ZebDataBlockManager.h"
#include "tools/cache/ToolStore.h"
#include "tools/cache/VerdictText.h"
#include "tools/files/FileReader.h"
#include "tools/files/Manifest.h"
#include "tools/files/StoredFiles.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/StopRequest.h"
#include "tools/terminal/ToolError.h"
#include "tools/terminal/Workers.h"

#include <QVector>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <unordered_set>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace {

// What all threads keep between blocks, and what they may take beyond the largest block.
constexpr qint64 s_KeptBytes = 16LL * 1024 * 1024;
constexpr qint64 s_SpareBytes = 8LL * 1024 * 1024;

const ZebDataHash* hashOf(const ZebDataReference& reference)
{
    return reference.hashPtr().data();
}

// Whether the file is certainly no sound block. One that could not be read may well be sound, and
// may be the only copy of what other manifests name.
bool isDamaged(const ZebBlockVerdict& verdict)
{
    switch (verdict.m_Finding) {
    case ZebBlockFinding::TooLarge:
    case ZebBlockFinding::Unreadable:
        return false;
    case ZebBlockFinding::Truncated:
    case ZebBlockFinding::Removed:
        return true;
    default:
        return verdict.isDamage();
    }
}

} // namespace

StoredBlockChecker::StoredBlockChecker(const Options& options, ToolStore& store,
                                       ErrorReport& errors, ProgressBar& progress)
    : m_Options(options), m_Store(store), m_Errors(errors), m_Progress(progress)
{}

void StoredBlockChecker::run(StoredFiles& stored)
{
    // Otherwise the store would not write a resident block again.
    m_Store.evict(m_Errors);
    collect(stored);
    Findings left = check(m_Blocks, m_Options.m_Full);
    Findings damaged;
    for (auto found = left.begin(); found != left.end();) {
        if (isDamaged(found->second))
            damaged.insert(left.extract(found++));
        else
            ++found;
    }
    if (!damaged.empty()) {
        // On one thread, as this one must watch the writes.
        Workers::run(
            1, [&] { add(stored, damaged); }, [this] { m_Store.watchWrites(m_Errors); });
        m_Store.evict(m_Errors);
        std::vector<ZebDataReference> again;
        for (const ZebDataReference& block : m_Blocks) {
            if (damaged.count(hashOf(block)) != 0)
                again.push_back(block);
        }
        Findings failed = check(again, true);
        m_Rewritten = static_cast<qint64>(damaged.size() - failed.size());
        left.merge(failed);
    }
    if (m_Rewritten > 0)
        m_Errors.note(SizeText::grouped(m_Rewritten) +
                      " damaged or missing block files were written again");
    failFiles(stored, left);
}

void StoredBlockChecker::collect(const StoredFiles& stored)
{
    std::unordered_set<const ZebDataHash*> seen;
    const auto take = [this, &seen](const ZebDataReference& block) {
        if (seen.insert(hashOf(block)).second)
            m_Blocks.push_back(block);
    };
    m_LargestBlock = stored.m_BlockSize;
    std::vector<qint64> counts(stored.m_Files.size(), 0);
    for (const StoredSegment& segment : stored.m_Segments) {
        std::for_each(segment.m_Blocks.begin(), segment.m_Blocks.end(), take);
        counts[segment.m_File] += static_cast<qint64>(segment.m_Blocks.size());
    }
    for (std::size_t i = 0; i < stored.m_Files.size(); ++i) {
        if (stored.m_Files[i].m_Group.isNull())
            continue;
        take(stored.m_Files[i].m_Group);
        m_LargestBlock = std::max(m_LargestBlock, Manifest::groupBytes(counts[i]));
    }
}

StoredBlockChecker::Findings StoredBlockChecker::check(const std::vector<ZebDataReference>& blocks,
                                                       bool full)
{
    ZebMemoryBudget budget(m_LargestBlock + s_SpareBytes);
    std::atomic<std::size_t> next = 0;
    std::atomic<qint64> done = 0;
    // Guards `found`. A leaf lock.
    std::mutex mutex;
    Findings found;
    const ZebBlockFileChecker::Receiver receive =
        [&](std::size_t index, const ZebBlockVerdict& verdict, const ZebFileStamp*) {
            done.fetch_add(1);
            if (verdict.m_Finding == ZebBlockFinding::Sound)
                return;
            const std::lock_guard<std::mutex> locker(mutex);
            found.emplace(hashOf(blocks[index]), verdict);
        };
    const auto work = [&] {
        ZebBlockFileChecker checker({!full, m_LargestBlock, s_KeptBytes / m_Options.m_Threads},
                                    budget);
        for (;;) {
            StopRequest::check();
            const std::size_t index = next.fetch_add(1);
            if (index >= blocks.size())
                break;
            const auto name = ZebBlockName::parse(blocks[index].hash().toStdString());
            checker.begin(m_Store.pathOf(blocks[index]), name.value(), index, receive);
        }
        checker.finish(receive);
    };
    m_Progress.begin("Checking ", static_cast<qint64>(blocks.size()), ProgressBar::Unit::Items);
    Workers::run(m_Options.m_Threads, work, [this, &done] { m_Progress.show(done.load()); });
    m_Progress.end();
    return found;
}

void StoredBlockChecker::remove(const ZebDataReference& block) const
{
    const std::string path = m_Store.pathOf(block);
    struct stat status = {};
    // A link or a directory in its place is not the store's.
    const bool isFile = ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    if (isFile && ::unlink(path.c_str()) != 0)
        throw ToolError::ofSystem(errno);
}

void StoredBlockChecker::add(const StoredFiles& stored, const Findings& damaged)
{
    Findings missing = damaged;
    QVector<ZebDataReference> blocks;
    for (auto segment = stored.m_Segments.cbegin(); segment != stored.m_Segments.cend();
         ++segment) {
        StopRequest::check();
        addBlocks(stored, *segment, missing);
        // The segments of a file are consecutive and in order.
        for (const ZebDataReference& block : segment->m_Blocks)
            blocks.append(block);
        const auto next = segment + 1;
        if (next != stored.m_Segments.cend() && next->m_File == segment->m_File)
            continue;
        const ZebDataReference& group = stored.m_Files[segment->m_File].m_Group;
        if (!group.isNull() && missing.erase(hashOf(group)) != 0) {
            ToolStore::waitForWriters();
            // What fails here is found by the second check.
            static_cast<void>(ToolError::of([&] {
                remove(group);
                ZebDataBlockManager::instance().makeGroupBlock(blocks).resolveWork();
            }));
        }
        blocks.clear();
    }
}

void StoredBlockChecker::addBlocks(const StoredFiles& stored, const StoredSegment& segment,
                                   Findings& missing) const
{
    const StoredFile& file = stored.m_Files[segment.m_File];
    FileReader reader;
    bool isOpen = false;
    for (std::size_t i = 0; i < segment.m_Blocks.size(); ++i) {
        const ZebDataReference& block = segment.m_Blocks[i];
        if (missing.count(hashOf(block)) == 0)
            continue;
        ToolStore::waitForWriters();
        const qint64 offset = static_cast<qint64>(i) * stored.m_BlockSize;
        // What fails here is found by the second check. Another file may have the same block.
        static_cast<void>(ToolError::of([&] {
            if (!std::exchange(isOpen, true))
                reader.open(file.m_Path);
            const qint64 size = std::min(stored.m_BlockSize, segment.m_Bytes - offset);
            const QByteArray bytes = reader.read(segment.m_Offset + offset, size);
            const ZebSmartPointer<ZebDataHash> hash = block.hashPtr();
            if (ZebDataHash(reinterpret_cast<const unsigned char*>(bytes.constData()), bytes.size(),
                            hash->size()) != *hash)
                return;
            remove(block);
            ZebDataBlockManager::instance().addBlock(bytes, ZebModifyAccessor::Cached, true);
            missing.erase(hash.data());
        }));
    }
}

void StoredBlockChecker::failFiles(StoredFiles& stored, const Findings& left)
{
    if (left.empty())
        return;
    const auto fail = [this, &stored, &left](std::size_t index, const ZebDataReference& block) {
        StoredFile& file = stored.m_Files[index];
        const auto found = left.find(hashOf(block));
        if (found == left.end() || file.m_Failed.exchange(true))
            return;
        const ZebBlockVerdict& verdict = found->second;
        m_Errors.add(file.m_Path,
                     "is not stored: the file of one of its blocks " + VerdictText::what(verdict) +
                         (isDamaged(verdict) ? ", and cannot be written again: " : ": ") +
                         m_Store.pathOf(block) + "; fix the cause and ingest it again");
    };
    for (const StoredSegment& segment : stored.m_Segments) {
        for (const ZebDataReference& block : segment.m_Blocks)
            fail(segment.m_File, block);
    }
    for (std::size_t i = 0; i < stored.m_Files.size(); ++i) {
        if (!stored.m_Files[i].m_Group.isNull())
            fail(i, stored.m_Files[i].m_Group);
    }
    stored.dropFailed();
}
