#include "tools/files/FileWalker.h"

#include "tools/files/FileKind.h"
#include "tools/files/FolderNames.h"
#include "tools/terminal/ErrorReport.h"

#include <cerrno>
#include <cstdlib>
#include <memory>

#include <sys/stat.h>

FileWalker::FileWalker(ErrorReport& errors) : m_Errors(errors), m_Bytes(0), m_SkippedLinks(0) {}

void FileWalker::leaveOut(const std::string& folder)
{
    const std::unique_ptr<char, void (*)(void*)> realPath(::realpath(folder.c_str(), nullptr),
                                                          &std::free);
    if (realPath != nullptr)
        m_LeftOut.insert(realPath.get());
}

void FileWalker::add(const std::string& path)
{
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0) {
        m_Errors.add(path, FileKind::errorText(errno));
        return;
    }
    const std::unique_ptr<char, void (*)(void*)> realPath(::realpath(path.c_str(), nullptr),
                                                          &std::free);
    if (realPath == nullptr) {
        m_Errors.add(path, FileKind::errorText(errno));
        return;
    }
    const std::size_t timesBefore = m_TimesGiven[realPath.get()]++;
    if (timesBefore == m_Seen.size())
        m_Seen.emplace_back();
    addThing(path, realPath.get(), status.st_mode, status.st_size, m_Seen[timesBefore]);
}

void FileWalker::addThing(const std::string& path, const std::string& realPath, unsigned int mode,
                          qint64 size, Names& seen)
{
    if (m_LeftOut.count(realPath) != 0 || !seen.insert(realPath).second)
        return;
    if (S_ISLNK(mode)) {
        ++m_SkippedLinks;
        return;
    }
    if (S_ISDIR(mode)) {
        addFolder(path, realPath, seen);
        return;
    }
    const std::string reason = FileKind::whyNotAFile(mode);
    if (!reason.empty()) {
        m_Errors.add(path, reason);
        return;
    }
    m_Files.push_back({path, size});
    m_Bytes += size;
}

void FileWalker::addFolder(const std::string& path, const std::string& realPath, Names& seen)
{
    std::vector<std::string> names;
    const std::string reason = FolderNames::read(path, names);
    if (!reason.empty())
        m_Errors.add(path, reason);
    for (const std::string& name : names) {
        const std::string child = FolderNames::joined(path, name);
        struct stat status = {};
        if (::lstat(child.c_str(), &status) != 0) {
            m_Errors.add(child, FileKind::errorText(errno));
            continue;
        }
        addThing(child, FolderNames::joined(realPath, name), status.st_mode, status.st_size, seen);
    }
}
