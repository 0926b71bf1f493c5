#include "tools/files/Manifest.h"

#include "data/ZebGroupHeader.h"
#include "hash/ZebBlockName.h"
#include "tools/files/FileReader.h"
#include "tools/files/FileWriter.h"
#include "tools/files/StoredFiles.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ToolError.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <limits>
#include <optional>
#include <system_error>
#include <unordered_map>

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

const QLatin1String s_FormatName("zebtdx manifest");
constexpr int s_Version = 1;
const char* const s_NoManifest = "is not a manifest";

constexpr mode_t s_FileMode = 0644;

// JSON numbers are exact up to here.
constexpr qint64 s_LargestNumber = 9007199254740992;

using File = Manifest::File;

// Text where the bytes are UTF-8, which nearly all names are, and base64 where they are not.
void putBytes(QJsonObject& object, const QString& key, const std::string& bytes)
{
    const QString text = QString::fromUtf8(bytes.data(), static_cast<int>(bytes.size()));
    if (text.toUtf8().toStdString() == bytes)
        object[key] = text;
    else
        object[key + QStringLiteral("_base64")] =
            QString::fromLatin1(QByteArray::fromStdString(bytes).toBase64());
}

std::string getBytes(const QJsonObject& object, const QString& key)
{
    const QJsonValue text = object[key];
    if (text.isString())
        return text.toString().toUtf8().toStdString();
    const QJsonValue encoded = object[key + QStringLiteral("_base64")];
    if (!encoded.isString())
        throw ToolError("has no valid \"" + key.toStdString() + "\"");
    return QByteArray::fromBase64(encoded.toString().toLatin1()).toStdString();
}

qint64 getNumber(const QJsonObject& object, const QString& key, qint64 least,
                 qint64 most = s_LargestNumber)
{
    const double value = object[key].toDouble(-1);
    const bool fits = value >= static_cast<double>(least) && value <= static_cast<double>(most);
    const qint64 number = fits ? static_cast<qint64>(value) : 0;
    if (!fits || static_cast<double>(number) != value)
        throw ToolError("has no valid \"" + key.toStdString() + "\"");
    return number;
}

QByteArray line(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

QJsonObject headOf(const Manifest& manifest)
{
    QJsonArray roots;
    for (const std::string& root : manifest.m_Place.m_Roots) {
        QJsonObject object;
        putBytes(object, QStringLiteral("path"), root);
        roots.append(object);
    }
    QJsonObject head;
    head[QStringLiteral("format")] = s_FormatName;
    head[QStringLiteral("version")] = s_Version;
    head[QStringLiteral("roots")] = roots;
    head[QStringLiteral("buckets")] = manifest.m_Place.m_Buckets;
    putBytes(head, QStringLiteral("sub_cache"), manifest.m_Place.m_SubCache);
    head[QStringLiteral("block_size")] = manifest.m_BlockSize;
    return head;
}

void parseHead(const QJsonObject& head, Manifest& manifest)
{
    if (head[QStringLiteral("format")].toString() != s_FormatName)
        throw ToolError(s_NoManifest);
    if (head[QStringLiteral("version")].toInt() != s_Version)
        throw ToolError("is a manifest of a version that this program cannot read");
    StorePlace& place = manifest.m_Place;
    for (const QJsonValue value : head[QStringLiteral("roots")].toArray())
        place.m_Roots.push_back(getBytes(value.toObject(), QStringLiteral("path")));
    if (place.m_Roots.empty())
        throw ToolError("has no cache roots");
    place.m_Buckets = static_cast<int>(
        getNumber(head, QStringLiteral("buckets"), 1, std::numeric_limits<int>::max()));
    place.m_SubCache = getBytes(head, QStringLiteral("sub_cache"));
    manifest.m_BlockSize = getNumber(head, QStringLiteral("block_size"), 1);
    StorePlace::requireRoots(place.m_Roots);
    if (!place.m_SubCache.empty())
        StorePlace::requireSubCache(place.m_SubCache);
}

File parseFile(const QJsonObject& object)
{
    File file;
    file.m_Path = getBytes(object, QStringLiteral("path"));
    if (!Manifest::isSafeName(file.m_Path))
        throw ToolError("has a name that leads out of the directory");
    file.m_Size = getNumber(object, QStringLiteral("size"), 0);
    file.m_Group = object[QStringLiteral("group")].toString();
    if (!ZebBlockName::parse(file.m_Group.toStdString()))
        throw ToolError("has no valid \"group\"");
    return file;
}

// Takes one line after the first. Returns whether it is the last one.
bool parseLine(const QJsonObject& object, Manifest& manifest)
{
    if (!object.contains(QStringLiteral("files"))) {
        manifest.m_Files.push_back(parseFile(object));
        return false;
    }
    const qint64 files = getNumber(object, QStringLiteral("files"), 0);
    if (files != static_cast<qint64>(manifest.m_Files.size()) ||
        getNumber(object, QStringLiteral("bytes"), 0) != manifest.bytes())
        throw ToolError("does not match the files above it");
    return true;
}

} // namespace

qint64 Manifest::bytes() const
{
    qint64 sum = 0;
    for (const File& file : m_Files)
        sum += file.m_Size;
    return sum;
}

qint64 Manifest::groupBytes(qint64 blocks)
{
    return ZebGroupHeader::s_Bytes + blocks * ZebBlockName::s_Bytes;
}

qint64 Manifest::largestBlock() const
{
    qint64 largest = 0;
    for (const File& file : m_Files) {
        const qint64 list = groupBytes(blocksOf(file));
        largest = std::max({largest, std::min(file.m_Size, m_BlockSize), list});
    }
    return largest;
}

qint64 Manifest::blocksOf(const File& file) const
{
    return file.m_Size / m_BlockSize + (file.m_Size % m_BlockSize != 0 ? 1 : 0);
}

QByteArray Manifest::text() const
{
    QByteArray text = line(headOf(*this));
    for (const File& file : m_Files) {
        QJsonObject object;
        putBytes(object, QStringLiteral("path"), file.m_Path);
        object[QStringLiteral("size")] = file.m_Size;
        object[QStringLiteral("group")] = file.m_Group;
        text += line(object);
    }
    // Separates a complete manifest from a truncated one.
    QJsonObject end;
    end[QStringLiteral("files")] = static_cast<qint64>(m_Files.size());
    end[QStringLiteral("bytes")] = bytes();
    return text + line(end);
}

Manifest Manifest::parse(const QByteArray& text)
{
    Manifest parsed;
    bool isComplete = false;
    int number = 0;
    for (int at = 0; at < text.size();) {
        const int found = text.indexOf('\n', at);
        const int end = found < 0 ? text.size() : found;
        const QJsonDocument document =
            QJsonDocument::fromJson(QByteArray::fromRawData(text.constData() + at, end - at));
        at = end + 1;
        if (++number == 1) {
            parseHead(document.object(), parsed);
            continue;
        }
        const std::optional<ToolError> error = ToolError::of([&] {
            if (!document.isObject())
                throw ToolError("is not a JSON object");
            isComplete = parseLine(document.object(), parsed);
            if (isComplete && at < text.size())
                throw ToolError("is not the last one");
        });
        if (error)
            throw ToolError("line " + std::to_string(number) + " " + error->what());
    }
    if (!isComplete)
        throw ToolError(number == 0 ? s_NoManifest : "is incomplete: its last line is missing");
    return parsed;
}

void Manifest::save(const std::string& path, bool replace) const
{
    const std::string partial = path + ".part";
    const QByteArray bytes = text();
    FileWriter file(partial, O_TRUNC, s_FileMode);
    file.write(bytes.constData(), bytes.size());
    // The only record of what was stored must survive a power loss.
    file.sync();
    file.keep();
    int error = !replace && ::access(path.c_str(), F_OK) == 0 ? EEXIST : 0;
    if (error == 0 && std::rename(partial.c_str(), path.c_str()) != 0)
        error = errno;
    if (error != 0) {
        ::unlink(partial.c_str());
        throw ToolError::ofSystem(error);
    }
}

Manifest Manifest::load(const std::string& path)
{
    FileReader reader;
    reader.open(path);
    return parse(reader.read(0, std::numeric_limits<int>::max() / 2));
}

Manifest Manifest::of(const StoredFiles& stored, const StorePlace& place, ErrorReport& errors)
{
    Manifest manifest;
    manifest.m_Place = place;
    for (std::string& root : manifest.m_Place.m_Roots)
        root = std::filesystem::absolute(root).lexically_normal().string();
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
