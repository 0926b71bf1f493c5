#include "tools/files/FileRestorer.h"

#include "data/ZebConstAccessor.h"
#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "tools/cache/ToolStore.h"
#include "tools/files/FileSystem.h"
#include "tools/files/OpenDirectory.h"
#include "tools/files/PartFile.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/StopRequest.h"
#include "tools/terminal/ToolError.h"
#include "tools/terminal/Workers.h"

#include <QScopeGuard>
#include <QVector>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// How many blocks of a file are requested ahead of the one that is written.
constexpr int s_Ahead = 8;

} // namespace

FileRestorer::FileRestorer(int threads, ToolStore& store, ErrorReport& errors,
                           ProgressBar& progress)
    : m_Threads(threads), m_Store(store), m_Errors(errors), m_Progress(progress)
{}

void FileRestorer::run(const Manifest& manifest, const std::string& directory)
{
    for (const Manifest::File& file : manifest.m_Files) {
        if (PartFile::isPartName(std::filesystem::path(file.m_Path).filename().string()))
            m_PartLike.insert(file.m_Path);
    }
    std::optional<OpenDirectory> top;
    ToolError::locate(directory, [&] { top.emplace(OpenDirectory::at(directory)); });
    m_Progress.begin("Restoring", manifest.bytes());
    Workers::run(
        m_Threads, [&] { work(manifest, directory, *top); },
        [this] {
            m_Progress.show(m_DoneBytes.load());
            m_Store.watchWrites(m_Errors);
        });
    m_Progress.end();
    // What is reported as restored survives a power loss.
    const auto error = ToolError::of([&directory] { FileSystem::syncAll(directory); });
    if (error)
        m_Errors.add(directory, *error);
}

void FileRestorer::work(const Manifest& manifest, const std::string& directory,
                        const OpenDirectory& top)
{
    for (;;) {
        StopRequest::check();
        const std::size_t index = m_Next.fetch_add(1);
        if (index >= manifest.m_Files.size())
            return;
        const Manifest::File& file = manifest.m_Files[index];
        const std::string path = FileSystem::joined(directory, file.m_Path);
        bool isWritten = false;
        const std::optional<ToolError> error =
            ToolError::of([&] { isWritten = restore(file, top); });
        if (error) {
            m_Errors.add(path, *error);
        } else if (isWritten) {
            m_Files.fetch_add(1);
            m_Bytes.fetch_add(file.m_Size);
        } else {
            m_Errors.note(path, "is there already, with the same bytes");
            m_Present.fetch_add(1);
        }
    }
}

bool FileRestorer::restore(const Manifest::File& file, const OpenDirectory& top)
{
    const std::filesystem::path path(file.m_Path);
    const std::string name = path.filename().string();
    const OpenDirectory directory = OpenDirectory::below(top, path.parent_path().string());
    if (isPresent(file, directory, name))
        return false;
    PartFile target(directory, partFor(file, name));
    readBlocks(file,
               [&target](const unsigned char* bytes, qint64 size) { target.write(bytes, size); });
    target.publish(name);
    return true;
}

bool FileRestorer::isPresent(const Manifest::File& file, const OpenDirectory& directory,
                             const std::string& name)
{
    struct stat status = {};
    if (::fstatat(directory.descriptor(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT)
            return false;
        throw ToolError::ofSystem(errno);
    }
    const ToolError other("already exists, and is another file; move it away", EEXIST);
    if (!S_ISREG(status.st_mode) || status.st_size != file.m_Size)
        throw ToolError(other);
    const int descriptor = ::openat(directory.descriptor(), name.c_str(),
                                    O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        throw ToolError("already exists, and cannot be compared: " +
                            std::string(ToolError::ofSystem(errno).what()),
                        errno);
    const auto closed = qScopeGuard([descriptor] { ::close(descriptor); });
    std::vector<char> there;
    readBlocks(file, [&](const unsigned char* bytes, qint64 size) {
        there.resize(static_cast<std::size_t>(size));
        if (FileSystem::read(descriptor, there.data(), size) != size ||
            std::memcmp(there.data(), bytes, there.size()) != 0)
            throw ToolError(other);
    });
    return true;
}

std::string FileRestorer::partFor(const Manifest::File& file, const std::string& name) const
{
    const std::string parent = file.m_Path.substr(0, file.m_Path.size() - name.size());
    int number = 0;
    while (m_PartLike.count(parent + PartFile::nameFor(name, number)) != 0)
        ++number;
    return PartFile::nameFor(name, number);
}

void FileRestorer::readBlocks(const Manifest::File& file,
                              const std::function<void(const unsigned char*, qint64)>& receive)
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
        size += block.size();
        // A list that was made to fill the disk ends here.
        if (size > file.m_Size)
            break;
        receive(block.data(), block.size());
        m_DoneBytes.fetch_add(block.size());
    }
    if (size != file.m_Size)
        throw ToolError("has " + std::to_string(size) + " bytes in the cache, but " +
                        std::to_string(file.m_Size) + " in the manifest");
}
