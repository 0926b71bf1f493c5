#include "tools/files/FileRestorer.h"

#include "data/ZebConstAccessor.h"
#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "tools/cache/ToolStore.h"
#include "tools/files/FileKind.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/Workers.h"

#include <QVector>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <new>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace {

// How many blocks of a file are asked for ahead of the one that is written.
constexpr int s_Ahead = 8;

// Whether the bytes are those that the hash names.
bool matches(const ZebConstAccessor& accessor, const ZebDataHash& hash)
{
    return ZebDataHash(accessor.data(), accessor.size(), hash.size()) == hash;
}

std::string writeAll(int descriptor, const unsigned char* bytes, qint64 size)
{
    for (qint64 done = 0; done < size;) {
        const ssize_t count =
            ::write(descriptor, bytes + done, static_cast<std::size_t>(size - done));
        if (count > 0)
            done += count;
        else if (count < 0 && errno != EINTR)
            return FileKind::errorText(errno);
    }
    return {};
}

} // namespace

FileRestorer::FileRestorer(int threads, ToolStore& store, ErrorReport& errors,
                           ProgressBar& progress)
    : m_Threads(threads),
      m_Store(store),
      m_Errors(errors),
      m_Progress(progress),
      m_Next(0),
      m_DoneBytes(0),
      m_Files(0),
      m_Bytes(0)
{}

void FileRestorer::run(const Manifest& manifest, const std::string& folder)
{
    m_Progress.begin("Restoring", manifest.bytes());
    Workers::run(
        m_Threads, [this, &manifest, &folder] { work(manifest, folder); },
        [this] {
            m_Progress.show(m_DoneBytes.load());
            m_Store.watchWrites(m_Errors);
        });
    m_Progress.end();
}

void FileRestorer::work(const Manifest& manifest, const std::string& folder)
{
    for (;;) {
        const std::size_t index = m_Next.fetch_add(1);
        if (index >= manifest.m_Files.size())
            return;
        const Manifest::File& file = manifest.m_Files[index];
        const std::string path = folder + "/" + file.m_Path;
        std::string reason;
        try {
            reason = restore(file, path);
        } catch (const std::bad_alloc&) {
            reason = "out of memory";
        } catch (const std::exception& error) {
            reason = error.what();
        }
        if (!reason.empty()) {
            m_Errors.add(path, reason);
            continue;
        }
        m_Files.fetch_add(1);
        m_Bytes.fetch_add(file.m_Size);
    }
}

std::string FileRestorer::restore(const Manifest::File& file, const std::string& path)
{
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
    if (error)
        return error.message();
    // Refuses whatever is there already, links too.
    const int descriptor =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (descriptor < 0)
        return FileKind::errorText(errno);
    std::string reason;
    try {
        const ZebDataReference group(ZebHashManager::instance().getHash(file.m_Group));
        reason = writeBlocks(file, group, descriptor);
    } catch (...) {
        ::close(descriptor);
        ::unlink(path.c_str());
        throw;
    }
    if (::close(descriptor) != 0 && reason.empty())
        reason = FileKind::errorText(errno);
    if (!reason.empty())
        ::unlink(path.c_str());
    return reason;
}

std::string FileRestorer::writeBlocks(const Manifest::File& file, const ZebDataReference& group,
                                      int descriptor)
{
    if (!m_Store.has(group))
        return "its list of blocks is not in the cache";
    {
        const ZebConstAccessor list = group.constAccessor();
        if (list.isNull())
            return "its list of blocks is not in the cache";
        if (!matches(list, *group.hashPtr()))
            return "its list of blocks is damaged in the cache";
    }
    const QVector<ZebDataReference> blocks =
        ZebDataBlockManager::instance().extractGroupBlock(group);
    for (const ZebDataReference& block : blocks) {
        if (!m_Store.has(block))
            return "a block of it is not in the cache";
    }
    qint64 size = 0;
    for (int i = 0; i < blocks.size(); ++i) {
        // The first block is waited for at once; the reader fetches what follows meanwhile.
        const int last = std::min(i + s_Ahead, blocks.size() - 1);
        for (int k = i == 0 ? 1 : last; k <= last; ++k) {
            if (k > i)
                blocks[k].preload();
        }
        const ZebConstAccessor block = blocks[i].constAccessor();
        if (block.isNull())
            return "a block of it is not in the cache";
        if (!matches(block, *blocks[i].hashPtr()))
            return "a block of it is damaged in the cache";
        std::string reason = writeAll(descriptor, block.data(), block.size());
        if (!reason.empty())
            return reason;
        size += block.size();
        m_DoneBytes.fetch_add(block.size());
    }
    if (size != file.m_Size)
        return "has " + std::to_string(size) + " bytes in the cache, and " +
               std::to_string(file.m_Size) + " in the manifest";
    return {};
}
