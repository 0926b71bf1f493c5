#include "tools/files/FileComparer.h"

#include "data/ZebConstAccessor.h"
#include "tools/cache/ToolStore.h"
#include "tools/files/FileReader.h"
#include "tools/files/StoredFiles.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/StopRequest.h"
#include "tools/terminal/ToolError.h"
#include "tools/terminal/Workers.h"

#include <algorithm>
#include <cstring>
#include <optional>

FileComparer::FileComparer(int threads, ToolStore& store, ErrorReport& errors,
                           ProgressBar& progress)
    : m_Threads(threads), m_Store(store), m_Errors(errors), m_Progress(progress)
{}

void FileComparer::run(StoredFiles& stored)
{
    // Otherwise resident blocks would be compared, and not what a later run finds.
    m_Store.evict(m_Errors);
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
        StopRequest::check();
        const std::size_t index = m_NextSegment.fetch_add(1);
        if (index >= stored.m_Segments.size())
            return;
        const StoredSegment& segment = stored.m_Segments[index];
        // The segments of a file are consecutive.
        if (index == 0 || stored.m_Segments[index - 1].m_File != segment.m_File)
            checkList(stored.m_Files[segment.m_File]);
        checkSegment(stored, segment, reader);
    }
}

void FileComparer::checkList(StoredFile& file)
{
    if (file.m_Failed.load())
        return;
    // Compares its digest with its name, which is that of the list that was stored.
    const std::optional<ToolError> error =
        ToolError::of([&] { m_Store.members(file.m_Group, "its list of blocks "); });
    if (error && !file.m_Different.exchange(true))
        m_Errors.add(file.m_Path, *error);
}

void FileComparer::checkSegment(StoredFiles& stored, const StoredSegment& segment,
                                FileReader& reader)
{
    StoredFile& file = stored.m_Files[segment.m_File];
    if (file.m_Failed.load() || file.m_Different.load())
        return;
    bool equal = false;
    const std::optional<ToolError> error = ToolError::of([&] {
        reader.open(file.m_Path);
        equal = isEqual(stored.m_BlockSize, segment, reader);
    });
    if (equal || file.m_Different.exchange(true))
        return;
    if (error) {
        m_Errors.add(file.m_Path, *error);
        return;
    }
    m_Differences.fetch_add(1);
    // A changed stamp separates a changed file from a wrong store.
    m_Errors.add(file.m_Path, reader.stamp() != segment.m_Stamp
                                  ? "changed after it was stored; ingest it again"
                                  : "differs from the bytes in the store; run zebtdx verify");
}

bool FileComparer::isEqual(qint64 blockSize, const StoredSegment& segment, FileReader& reader)
{
    qint64 done = 0;
    for (const ZebDataReference& reference : segment.m_Blocks) {
        const ZebConstAccessor accessor = reference.constAccessor();
        if (accessor.isNull())
            throw ToolError(
                "cannot be compared: one of its blocks cannot be loaded from the store");
        const qint64 size = std::min(blockSize, segment.m_Bytes - done);
        const QByteArray expected = reader.read(segment.m_Offset + done, size);
        if (accessor.size() != size || expected.size() != size ||
            std::memcmp(accessor.data(), expected.constData(), static_cast<std::size_t>(size)) != 0)
            return false;
        done += size;
        m_DoneBytes.fetch_add(size);
    }
    const bool isEnd = segment.m_Last && segment.m_Complete;
    return !isEnd || reader.read(segment.m_Offset + done, 1).isEmpty();
}
