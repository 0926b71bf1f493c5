#include "tools/files/FileComparer.h"

#include "data/ZebConstAccessor.h"
#include "tools/cache/ToolStore.h"
#include "tools/files/FileReader.h"
#include "tools/files/StoredFiles.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/Workers.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>

FileComparer::FileComparer(int threads, ToolStore& store, ErrorReport& errors,
                           ProgressBar& progress)
    : m_Threads(threads),
      m_Store(store),
      m_Errors(errors),
      m_Progress(progress),
      m_NextSegment(0),
      m_DoneBytes(0),
      m_Differences(0)
{}

void FileComparer::run(StoredFiles& stored)
{
    qint64 total = 0;
    for (const StoredSegment& segment : stored.m_Segments)
        total += segment.m_Bytes;
    m_Progress.begin("Comparing", total);
    Workers::run(
        m_Threads, [this, &stored] { work(stored); },
        [this] {
            m_Progress.show(m_DoneBytes.load());
            m_Store.watchWrites(m_Errors);
        });
    m_Progress.end();
}

void FileComparer::work(StoredFiles& stored)
{
    FileReader reader;
    for (;;) {
        const std::size_t index = m_NextSegment.fetch_add(1);
        if (index >= stored.m_Segments.size())
            return;
        checkSegment(stored, stored.m_Segments[index], reader);
    }
}

void FileComparer::checkSegment(StoredFiles& stored, const StoredSegment& segment,
                                FileReader& reader)
{
    StoredFile& file = stored.m_Files[segment.m_File];
    if (file.m_Failed.load() || file.m_Different.load())
        return;
    bool equal = false;
    std::string reason;
    try {
        reason = reader.open(file.m_Path);
        if (reason.empty())
            reason = compare(stored.m_BlockSize, segment, reader, equal);
    } catch (const std::bad_alloc&) {
        reason = "out of memory";
    } catch (const std::exception& error) {
        reason = error.what();
    }
    if (reason.empty() && equal)
        return;
    if (file.m_Different.exchange(true))
        return;
    if (!reason.empty()) {
        m_Errors.add(file.m_Path, reason);
        return;
    }
    m_Differences.fetch_add(1);
    // The state at the first pass tells a file that moved on from a store that went wrong.
    m_Errors.add(file.m_Path, reader.stamp() != segment.m_Stamp
                                  ? "changed after it was stored"
                                  : "what the store gives back differs from the file");
}

std::string FileComparer::compare(qint64 blockSize, const StoredSegment& segment,
                                  FileReader& reader, bool& equal)
{
    equal = false;
    qint64 done = 0;
    QByteArray expected;
    for (const ZebDataReference& reference : segment.m_Blocks) {
        const ZebConstAccessor accessor = reference.constAccessor();
        if (accessor.isNull())
            return "a block of it cannot be had from the store";
        const qint64 size = std::min(blockSize, segment.m_Bytes - done);
        std::string reason = reader.readBlock(segment.m_Offset + done, size, expected);
        if (!reason.empty())
            return reason;
        if (accessor.size() != size || expected.size() != size ||
            std::memcmp(accessor.data(), expected.constData(), static_cast<std::size_t>(size)) != 0)
            return {};
        done += size;
        m_DoneBytes.fetch_add(size);
    }
    if (segment.m_Last && segment.m_Complete) {
        std::string reason = reader.readBlock(segment.m_Offset + done, 1, expected);
        if (!reason.empty() || !expected.isEmpty())
            return reason;
    }
    equal = true;
    return {};
}
