#include "tools/cache/StorePlace.h"

#include "tools/files/FileSystem.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ToolError.h"

#include <QByteArray>
#include <QFile>
#include <QString>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <unordered_set>

#include <sys/stat.h>

namespace {

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

std::string quoted(const std::string& name)
{
    return "'" + PathText::printable(name) + "'";
}

// Qt must open a path of these bytes by the same bytes, which depends on the user's locale.
void requireLocale(const std::string& path)
{
    const QByteArray bytes = QByteArray::fromStdString(path);
    if (QFile::encodeName(QFile::decodeName(bytes)) != bytes)
        throw ToolError(quoted(path) + " is not valid text in this locale; rename it, or change "
                                       "LC_ALL");
}

// Syncs the file system of each of these directories once.
class FileSystemSync
{
public:
    explicit FileSystemSync(const std::string& subCache) : m_SubCache(subCache) {}

    void visitRoot(const std::string& root)
    {
        visit(root);
        for (const std::string& name : directoriesIn(root)) {
            const std::string path = FileSystem::joined(root, name);
            if (m_SubCache.empty() && isBucket(name))
                visit(path);
            else if (m_SubCache.empty() || name == m_SubCache)
                visitSubCache(path);
        }
    }

private:
    static bool isBucket(const std::string& name)
    {
        return std::all_of(name.begin(), name.end(), isDigit);
    }

    // Links are followed, as the store does.
    static std::vector<std::string> directoriesIn(const std::string& directory)
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            std::error_code error;
            if (entry.is_directory(error))
                names.push_back(entry.path().filename().string());
        }
        return names;
    }

    void visitSubCache(const std::string& directory)
    {
        visit(directory);
        for (const std::string& name : directoriesIn(directory)) {
            if (isBucket(name))
                visit(FileSystem::joined(directory, name));
        }
    }

    void visit(const std::string& directory)
    {
        struct stat status = {};
        if (::stat(directory.c_str(), &status) != 0)
            throw ToolError::ofSystem(errno);
        if (m_Seen.insert(status.st_dev).second)
            FileSystem::syncAll(directory);
    }

    const std::string m_SubCache;
    std::unordered_set<dev_t> m_Seen;
};

} // namespace

void StorePlace::requireDirectories() const
{
    for (const std::string& root : m_Roots)
        ToolError::locate(root, [&root] { FileSystem::requireDirectory(root); });
}

void StorePlace::syncAll() const
{
    FileSystemSync sync(m_SubCache);
    for (const std::string& root : m_Roots)
        ToolError::locate("cache root " + root, [&] { sync.visitRoot(root); });
}

void StorePlace::requireSubCache(const std::string& name)
{
    if (name.empty())
        throw ToolError("the name of a sub-cache must not be empty");
    if (name == "." || name == "..")
        throw ToolError(quoted(name) + " is not the name of a directory");
    if (name.find('/') != std::string::npos)
        throw ToolError(quoted(name) + " contains a '/'; a sub-cache is a single directory");
    if (std::all_of(name.begin(), name.end(), isDigit))
        throw ToolError(quoted(name) + " is the name of a bucket; add a letter");
    requireLocale(name);
}

void StorePlace::requireRoots(const std::vector<std::string>& roots)
{
    std::unordered_set<std::string> seen;
    for (const std::string& root : roots) {
        if (root.empty())
            throw ToolError("the path of a cache root must not be empty");
        requireLocale(root);
        std::filesystem::path path = FileSystem::absolute(root);
        // "a/" and "a" are the same directory.
        if (!path.has_filename())
            path = path.parent_path();
        if (!seen.insert(path.string()).second)
            throw ToolError(quoted(root) + " is given twice");
    }
}
