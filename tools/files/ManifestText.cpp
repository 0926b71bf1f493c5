#include "tools/files/ManifestText.h"

#include "hash/ZebBlockName.h"
#include "tools/terminal/ToolError.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <limits>

const char* const ManifestText::s_NoManifest = "is not a manifest";

namespace {

using ManifestText::s_LargestNumber;
using ManifestText::s_NoManifest;

const QLatin1String s_FormatName("zebtdx manifest");
constexpr int s_Version = 1;

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

Manifest::File parseFile(const QJsonObject& object)
{
    Manifest::File file;
    file.m_Path = getBytes(object, QStringLiteral("path"));
    if (!Manifest::isSafeName(file.m_Path))
        throw ToolError("has a name that leads out of the directory");
    file.m_Size = getNumber(object, QStringLiteral("size"), 0);
    file.m_Group = object[QStringLiteral("group")].toString();
    if (!ZebBlockName::parse(file.m_Group.toStdString()))
        throw ToolError("has no valid \"group\"");
    return file;
}

} // namespace

QByteArray ManifestText::headLine(const Manifest& manifest)
{
    return line(headOf(manifest));
}

QByteArray ManifestText::fileLine(const Manifest::File& file)
{
    QJsonObject object;
    putBytes(object, QStringLiteral("path"), file.m_Path);
    object[QStringLiteral("size")] = file.m_Size;
    object[QStringLiteral("group")] = file.m_Group;
    return line(object);
}

QByteArray ManifestText::lastLine(qint64 files, qint64 bytes)
{
    // Separates a complete manifest from a truncated one.
    QJsonObject end;
    end[QStringLiteral("files")] = files;
    end[QStringLiteral("bytes")] = bytes;
    return line(end);
}

std::optional<Manifest::File> ManifestParser::take(const char* line, qint64 size)
{
    if (m_Lines == 0) {
        const QJsonDocument document =
            QJsonDocument::fromJson(QByteArray::fromRawData(line, static_cast<int>(size)));
        ++m_Lines;
        parseHead(document.object(), m_Head);
        return std::nullopt;
    }
    std::optional<Manifest::File> file;
    if (!m_IsComplete)
        ++m_Lines;
    const std::optional<ToolError> error = ToolError::of([&] {
        if (m_IsComplete)
            throw ToolError("is not the last one");
        file = takeFile(line, size);
    });
    if (error)
        throw ToolError("line " + std::to_string(m_Lines) + " " + error->what());
    return file;
}

std::optional<Manifest::File> ManifestParser::takeFile(const char* line, qint64 size)
{
    const QJsonDocument document =
        QJsonDocument::fromJson(QByteArray::fromRawData(line, static_cast<int>(size)));
    if (!document.isObject())
        throw ToolError("is not a JSON object");
    const QJsonObject object = document.object();
    if (object.contains(QStringLiteral("files"))) {
        if (getNumber(object, QStringLiteral("files"), 0) != m_Files ||
            getNumber(object, QStringLiteral("bytes"), 0) != m_Bytes)
            throw ToolError("does not match the files above it");
        m_IsComplete = true;
        return std::nullopt;
    }
    Manifest::File file = parseFile(object);
    if (file.m_Size > s_LargestNumber - m_Bytes)
        throw ToolError("has a size that makes the sum of all sizes too large");
    ++m_Files;
    m_Bytes += file.m_Size;
    return file;
}

void ManifestParser::finish() const
{
    if (!m_IsComplete)
        throw ToolError(m_Lines == 0 ? s_NoManifest : "is incomplete: its last line is missing");
}
