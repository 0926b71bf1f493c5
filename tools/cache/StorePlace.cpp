#include "tools/cache/StorePlace.h"

#include "tools/files/FileSystem.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ToolError.h"

#include <QByteArray>
#include <QFile>
#include <QString>

#include <algorithm>
#include <filesystem>
#include <unordered_set>

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

} // namespace

void StorePlace::requireDirectories() const
{
    for (const std::string& root : m_Roots)
        ToolError::locate(root, [&root] { FileSystem::requireDirectory(root); });
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
        std::filesystem::path path = std::filesystem::absolute(root).lexically_normal();
        // "a/" and "a" are the same directory.
        if (!path.has_filename())
            path = path.parent_path();
        if (!seen.insert(path.string()).second)
            throw ToolError(quoted(root) + " is given twice");
    }
}
