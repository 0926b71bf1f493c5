#include "tools/files/FileIngester.h"

#include "data/ZebDataBlock.h"
#include "manager/ZebDataBlockManager.h"
#include "tools/cache/ToolStore.h"
#include "tools/files/FileReader.h"
#include "tools/files/Manifest.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/StopRequest.h"
#include "tools/terminal/ToolError.h"
#include "tools/terminal/Workers.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace {

// How much of a file a thread takes at a time, at least one block.
constexpr qint64 s_SegmentBytes = 4 * 1024 * 1024;

// A thread this many blocks ahead of the hashing pool does not wait for it; more gains nothing.
constexpr qint64 s_MostPending = 8;

// All blocks without a hash may take the memory limit divided by this.
constexpr qint64 s_PendingShare = 4;

} // namespace

FileIngester::FileIngester(const Options& options, ToolStore& store, ErrorReport& errors,
                           ProgressBar& progress)
    : m_Options(options),
      m_SegmentBytes(std::max<qint64>(s_SegmentBytes / options.m_BlockSize, 1) *
                     options.m_BlockSize),
      m_MostPending(static_cast<std::size_t>(std::clamp<qint64>(
          options.m_Memory / s_PendingShare / options.m_Threads / options.m_BlockSize, 1,
          s_MostPending))),
      m_Store(store),
      m_Errors(errors),
      m_Progress(progress)
{}

StoredFiles FileIngester::run(const FileWalker& walk)
{
    m_Stored.m_BlockSize = m_Options.m_BlockSize;
    for (const FileWalker::File& file : walk.files())
        m_Stored.m_Files.emplace_back(file.m_Path, Manifest::nameFor(file.m_Path), file.m_Size);
    m_Progress.begin("Storing  ", walk.bytes());
    Workers::run(
        m_Options.m_Threads, [this] { work(); },
        [this] {
            m_Progress.show(m_DoneBytes.load());
            m_Store.watchWrites(m_Errors);
        });
    m_Progress.end();
    makeGroups();
    m_Stored.dropFailed();
    return std::move(m_Stored);
}

StoredSegment* FileIngester::nextSegment()
{
    StopRequest::check();
    const std::lock_guard<std::mutex> locker(m_CursorMutex);
    if (m_NextFile == m_Stored.m_Files.size())
        return nullptr;
    const StoredFile& file = m_Stored.m_Files[m_NextFile];
    StoredSegment& segment = m_Stored.m_Segments.emplace_back();
    segment.m_File = m_NextFile;
    segment.m_Offset = m_NextOffset;
    segment.m_PlannedBytes = std::min(m_SegmentBytes, file.m_Size - m_NextOffset);
    m_NextOffset += segment.m_PlannedBytes;
    // A file that has failed gets no further segments.
    segment.m_Last = m_NextOffset >= file.m_Size || file.m_Failed.load();
    if (segment.m_Last) {
        ++m_NextFile;
        m_NextOffset = 0;
    }
    return &segment;
}

void FileIngester::work()
{
    FileReader reader;
    for (StoredSegment* segment = nextSegment(); segment != nullptr; segment = nextSegment())
        storeSegment(*segment, reader);
}

void FileIngester::storeSegment(StoredSegment& segment, FileReader& reader)
{
    StoredFile& file = m_Stored.m_Files[segment.m_File];
    if (file.m_Failed.load())
        return;
    const std::optional<ToolError> error = ToolError::of([&] {
        reader.open(file.m_Path);
        storeBlocks(segment, file, reader);
    });
    if (error)
        fail(file, error->what());
}

void FileIngester::storeBlocks(StoredSegment& segment, const StoredFile& file, FileReader& reader)
{
    segment.m_Stamp = reader.stamp();
    const qint64 blockSize = m_Options.m_BlockSize;
    // Its destructor waits for the hashes.
    std::deque<ZebDataReference> pending;
    while (segment.m_Last || segment.m_Bytes < segment.m_PlannedBytes) {
        if (file.m_Failed.load())
            return;
        const QByteArray block = reader.read(segment.m_Offset + segment.m_Bytes, blockSize);
        if (block.size() < blockSize && !segment.m_Last)
            throw ToolError("became shorter while it was being read; ingest it again");
        if (!block.isEmpty())
            storeBlock(block, segment, pending);
        if (block.size() < blockSize)
            break;
    }
    for (const ZebDataReference& reference : pending) {
        reference.resolveWork();
        segment.m_Blocks.push_back(reference);
    }
    segment.m_Complete = true;
}

void FileIngester::storeBlock(const QByteArray& block, StoredSegment& segment,
                              std::deque<ZebDataReference>& pending)
{
    ToolStore::waitForWriters();
    if (pending.size() == m_MostPending) {
        pending.front().resolveWork();
        segment.m_Blocks.push_back(pending.front());
        pending.pop_front();
    }
    pending.push_back(
        ZebDataBlockManager::instance().addBlock(block, ZebModifyAccessor::Cached, false));
    segment.m_Bytes += block.size();
    m_DoneBytes.fetch_add(block.size());
}

void FileIngester::fail(StoredFile& file, const std::string& reason)
{
    if (!file.m_Failed.exchange(true))
        m_Errors.add(file.m_Path, reason);
}

void FileIngester::makeGroups()
{
    // The segments of a file are consecutive and in order.
    for (auto begin = m_Stored.m_Segments.cbegin(); begin != m_Stored.m_Segments.cend();) {
        StoredFile& file = m_Stored.m_Files[begin->m_File];
        QVector<ZebDataReference> blocks;
        qint64 bytes = 0;
        auto end = begin;
        for (; end != m_Stored.m_Segments.cend() && end->m_File == begin->m_File; ++end) {
            for (const ZebDataReference& reference : end->m_Blocks)
                blocks.append(reference);
            bytes += end->m_Bytes;
        }
        begin = end;
        if (file.m_Failed.load())
            continue;
        const qint64 groupSize = Manifest::groupBytes(blocks.size());
        if (groupSize > ZebDataBlock::maxBlockSize()) {
            fail(file, "has too many blocks: their list (" + SizeText::print(groupSize) +
                           ") is larger than the largest block; raise --block");
            continue;
        }
        StopRequest::check();
        // No thread that ticks is running now.
        m_Store.watchWrites(m_Errors);
        file.m_StoredBytes = bytes;
        file.m_Group = ZebDataBlockManager::instance().makeGroupBlock(blocks);
        file.m_Group.resolveWork();
    }
}
