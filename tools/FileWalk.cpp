#include "tools/FileWalk.h"

#include "tools/ErrorReport.h"
#include "tools/FileKind.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include <dirent.h>
#include <sys/stat.h>

namespace {

std::string joined(const std::string& folder, const std::string& name)
{
    return !folder.empty() && folder.back() == '/' ? folder + name : folder + "/" + name;
}

// Reads the names in a folder, sorted. Gives the reason when that fails.
std::string readNames(const std::string& folder, std::vector<std::string>& names)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::opendir(folder.c_str()), &::closedir);
    if (stream == nullptr)
        return FileKind::errorText(errno);
    for (;;) {
        errno = 0;
        const dirent* const entry = ::readdir(stream.get());
        if (entry == nullptr)
            break;
        const std::string name = static_cast<const char*>(entry->d_name);
        if (name != "." && name != "..")
            names.push_back(name);
    }
    const int error = errno;
    std::sort(names.begin(), names.end());
    return error == 0 ? std::string() : FileKind::errorText(error);
}

} // namespace

FileWalk::FileWalk(ErrorReport& errors) : m_Errors(errors), m_Bytes(0), m_SkippedLinks(0) {}

void FileWalk::add(const std::string& path)
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

void FileWalk::addThing(const std::string& path, const std::string& realPath, unsigned int mode,
                        qint64 size, Names& seen)
{
    if (!seen.insert(realPath).second)
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

void FileWalk::addFolder(const std::string& path, const std::string& realPath, Names& seen)
{
    std::vector<std::string> names;
    const std::string reason = readNames(path, names);
    if (!reason.empty())
        m_Errors.add(path, reason);
    for (const std::string& name : names) {
        const std::string child = joined(path, name);
        struct stat status = {};
        if (::lstat(child.c_str(), &status) != 0) {
            m_Errors.add(child, FileKind::errorText(errno));
            continue;
        }
        addThing(child, joined(realPath, name), status.st_mode, status.st_size, seen);
    }
}
