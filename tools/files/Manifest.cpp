#include "tools/files/Manifest.h"

#include "data/ZebGroupHeader.h"
#include "hash/ZebBlockName.h"
#include "tools/files/FileSystem.h"
#include "tools/files/ManifestReader.h"
#include "tools/files/ManifestSaver.h"
#include "tools/files/ManifestText.h"
#include "tools/files/StoredFiles.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/PathText.h"

#include <algorithm>
#include <filesystem>
#include <limits>
#include <optional>
#include <system_error>
#include <unordered_map>
#include <utility>

qint64 Manifest::bytes() const
{
    qint64 sum = 0;
    for (const File& file : m_Files)
        sum += std::min(file.m_Size, std::numeric_limits<qint64>::max() - sum);
    return sum;
}

qint64 Manifest::groupBytes(qint64 blocks)
{
    return ZebGroupHeader::s_Bytes + blocks * ZebBlockName::s_Bytes;
}

qint64 Manifest::largestBlock() const
{
    qint64 largest = 0;
    for (const File& file : m_Files)
        largest = std::max(largest, largestBlockOf(file));
    return largest;
}

qint64 Manifest::largestBlockOf(const File& file) const
{
    return std::max(std::min(file.m_Size, m_BlockSize), groupBytes(blocksOf(file)));
}

qint64 Manifest::blocksOf(const File& file) const
{
    return file.m_Size / m_BlockSize + (file.m_Size % m_BlockSize != 0 ? 1 : 0);
}

QByteArray Manifest::text() const
{
    QByteArray text = ManifestText::headLine(*this);
    for (const File& file : m_Files)
        text += ManifestText::fileLine(file);
    return text + ManifestText::lastLine(static_cast<qint64>(m_Files.size()), bytes());
}

Manifest Manifest::parse(const QByteArray& text)
{
    ManifestParser parser;
    std::vector<File> files;
    for (int at = 0; at < text.size();) {
        const int found = text.indexOf('\n', at);
        const int end = found < 0 ? text.size() : found;
        if (std::optional<File> file = parser.take(text.constData() + at, end - at))
            files.push_back(std::move(*file));
        at = end + 1;
    }
    parser.finish();
    Manifest parsed = parser.head();
    parsed.m_Files = std::move(files);
    return parsed;
}

std::string Manifest::save(const std::string& path, bool replace) const
{
    return ManifestSaver(*this, path).save(replace);
}

Manifest Manifest::load(const std::string& path)
{
    ManifestReader reader(path);
    Manifest loaded = reader.head();
    while (std::optional<File> file = reader.next())
        loaded.m_Files.push_back(std::move(*file));
    return loaded;
}

Manifest Manifest::of(const StoredFiles& stored, const StorePlace& place, ErrorReport& errors)
{
    Manifest manifest;
    manifest.m_Place = place;
    for (std::string& root : manifest.m_Place.m_Roots)
        root = FileSystem::absolute(root);
    manifest.m_BlockSize = stored.m_BlockSize;
    std::unordered_map<std::string, const StoredFile*> names;
    for (const StoredFile& file : stored.m_Files) {
        if (file.m_Group.isNull())
            continue;
        const auto [first, isNew] = names.emplace(file.m_Name, &file);
        if (isNew) {
            manifest.m_Files.push_back({file.m_Name, file.m_StoredBytes, file.m_Group.hash()});
            continue;
        }
        std::error_code error;
        if (!std::filesystem::equivalent(file.m_Path, first->second->m_Path, error))
            errors.add(file.m_Path, "is not in the manifest, as another file is listed there as " +
                                        PathText::printable(file.m_Name) +
                                        "; ingest it with a manifest of its own");
    }
    return manifest;
}

std::string Manifest::nameFor(const std::string& path)
{
    const std::filesystem::path plain = std::filesystem::path(path).lexically_normal();
    std::filesystem::path name;
    for (const std::filesystem::path& element : plain.relative_path()) {
        if (element != ".." && element != "." && !element.empty())
            name /= element;
    }
    return name.string();
}

bool Manifest::isSafeName(const std::string& name)
{
    if (name.empty() || name.front() == '/' || name.back() == '/' ||
        name.find('\0') != std::string::npos)
        return false;
    const std::filesystem::path path(name);
    return std::all_of(path.begin(), path.end(), [](const std::filesystem::path& element) {
        return !element.empty() && element != "." && element != "..";
    });
}
