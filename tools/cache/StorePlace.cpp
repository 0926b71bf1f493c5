#include "tools/cache/StorePlace.h"

#include "tools/terminal/PathText.h"

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

// Whether Qt opens a path of these bytes by the same bytes, which depends on the user's locale.
bool survivesQt(const std::string& path)
{
    const QByteArray bytes = QByteArray::fromStdString(path);
    return QFile::encodeName(QFile::decodeName(bytes)) == bytes;
}

} // namespace

std::string StorePlace::whyNoSubCache(const std::string& name)
{
    if (name.empty())
        return "the name of a sub-cache is not empty";
    if (name == "." || name == "..")
        return "'" + name + "' is not the name of a folder";
    if (name.find('/') != std::string::npos)
        return "'" + PathText::printable(name) + "' has a separator; a sub-cache is one folder";
    if (std::all_of(name.begin(), name.end(), isDigit))
        return "'" + name + "' is the name of a bucket; put a letter into it";
    if (!survivesQt(name))
        return "'" + PathText::printable(name) + "' is no text in this locale";
    return {};
}

std::string StorePlace::whyNoRoots(const std::vector<std::string>& roots)
{
    std::unordered_set<std::string> seen;
    for (const std::string& root : roots) {
        if (root.empty())
            return "the path of a cache root is not empty";
        if (!survivesQt(root))
            return "'" + PathText::printable(root) + "' is no text in this locale";
        std::filesystem::path path = std::filesystem::absolute(root).lexically_normal();
        // "a/" and "a" are the same folder.
        if (!path.has_filename())
            path = path.parent_path();
        if (!seen.insert(path.string()).second)
            return "'" + PathText::printable(root) + "' is given twice";
    }
    return {};
}
