#include "tools/files/FileRestorer.h"

#include "data/ZebConstAccessor.h"
#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "tools/cache/ToolStore.h"
#include "tools/files/FileSystem.h"
#include "tools/files/FileWriter.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/StopRequest.h"
#include "tools/terminal/ToolError.h"
#include "tools/terminal/Workers.h"

#include <QVector>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <system_error>

#include <fcntl.h>

namespace {

// How many blocks of a file are requested ahead of the one that is written.
constexpr int s_Ahead = 8;

constexpr mode_t s_FileMode = 0666;

} // namespace

FileRestorer::FileRestorer(int threads, ToolStore& store, ErrorReport& errors,
                           ProgressBar& progress)
    : m_Threads(threads), m_Store(store), m_Errors(errors), m_Progress(progress)
{}

void FileRestorer::run(const Manifest& manifest, const std::string& directory)
{
    m_Progress.begin("Restoring", manifest.bytes());
    Workers::run(
        m_Threads, [this, &manifest, &directory] { work(manifest, directory); },
        [this] {
            m_Progress.show(m_DoneBytes.load());
            m_Store.watchWrites(m_Errors);
        });
    m_Progress.end();
}

void FileRestorer::work(const Manifest& manifest, const std::string& directory)
{
    for (;;) {
        StopRequest::check();
        const std::size_t index = m_Next.fetch_add(1);
        if (index >= manifest.m_Files.size())
            return;
        const Manifest::File& file = manifest.m_Files[index];
        const std::string path = FileSystem::joined(directory, file.m_Path);
        const std::optional<ToolError> error = ToolError::of([&] { restore(file, path); });
        if (error) {
            m_Errors.add(path, *error);
            continue;
        }
        m_Files.fetch_add(1);
        m_Bytes.fetch_add(file.m_Size);
    }
}

void FileRestorer::restore(const Manifest::File& file, const std::string& path)
{
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
    if (error)
        throw ToolError(error.message(), error.value());
    FileWriter target(path, O_EXCL, s_FileMode);
    writeBlocks(file, target);
    target.keep();
}

void FileRestorer::writeBlocks(const Manifest::File& file, FileWriter& target)
{
    const ZebDataReference group(ZebHashManager::instance().getHash(file.m_Group));
    const QVector<ZebDataReference> blocks = m_Store.members(group, "its list of blocks ");
    for (const ZebDataReference& block : blocks)
        m_Store.require(block, "one of its blocks ");
    qint64 size = 0;
    int requested = 0;
    for (int i = 0; i < blocks.size(); ++i) {
        // The reader loads these while this thread waits for block i and writes it.
        requested = std::max(requested, i + 1);
        for (const int end = std::min(i + 1 + s_Ahead, blocks.size()); requested < end; ++requested)
            blocks[requested].preload();
        StopRequest::check();
        const ZebConstAccessor block = m_Store.load(blocks[i], "one of its blocks ");
        target.write(block.data(), block.size());
        size += block.size();
        m_DoneBytes.fetch_add(block.size());
    }
    if (size != file.m_Size)
        throw ToolError("has " + std::to_string(size) + " bytes in the cache, but " +
                        std::to_string(file.m_Size) + " in the manifest");
}
