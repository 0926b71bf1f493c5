#include "tools/files/FileWalker.h"

#include "tools/files/FileSystem.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/StopRequest.h"
#include "tools/terminal/ToolError.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <memory>

#include <sys/stat.h>

namespace {

// Null when the path cannot be resolved.
std::unique_ptr<char, void (*)(void*)> realPathOf(const std::string& path)
{
    return {::realpath(path.c_str(), nullptr), &std::free};
}

} // namespace

FileWalker::FileWalker(ErrorReport& errors) : m_Errors(errors) {}

void FileWalker::leaveOut(const std::string& directory)
{
    const auto realPath = realPathOf(directory);
    if (realPath != nullptr)
        m_LeftOut.insert(realPath.get());
}

void FileWalker::add(const std::string& path)
{
    struct stat status = {};
    const auto realPath = realPathOf(path);
    if (realPath == nullptr || ::stat(path.c_str(), &status) != 0) {
        m_Errors.add(path, ToolError::ofSystem(errno));
        return;
    }
    const std::size_t timesBefore = m_TimesGiven[realPath.get()]++;
    if (timesBefore == m_Seen.size())
        m_Seen.emplace_back();
    addAny(path, realPath.get(), status.st_mode, status.st_size, m_Seen[timesBefore]);
}

void FileWalker::addAny(const std::string& path, const std::string& realPath, unsigned int mode,
                        qint64 size, Names& seen)
{
    if (m_LeftOut.count(realPath) != 0 || !seen.insert(realPath).second)
        return;
    if (S_ISLNK(mode)) {
        ++m_SkippedLinks;
        return;
    }
    if (S_ISDIR(mode)) {
        addDirectory(path, realPath, seen);
        return;
    }
    const std::string reason = FileSystem::whyNotAFile(mode);
    if (!reason.empty()) {
        m_Errors.add(path, reason);
        return;
    }
    m_Files.push_back({path, size});
    m_Bytes += std::min(size, std::numeric_limits<qint64>::max() - m_Bytes);
}

void FileWalker::addDirectory(const std::string& path, const std::string& realPath, Names& seen)
{
    for (const FileSystem::Entry& entry : FileSystem::entries(path, m_Errors)) {
        StopRequest::check();
        const std::string child = FileSystem::joined(path, entry.m_Name);
        struct stat status = {};
        if (::lstat(child.c_str(), &status) != 0) {
            m_Errors.add(child, ToolError::ofSystem(errno));
            continue;
        }
        addAny(child, FileSystem::joined(realPath, entry.m_Name), status.st_mode, status.st_size,
               seen);
    }
}
