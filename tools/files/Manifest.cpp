#include "tools/files/Manifest.h"

#include "tools/files/FileKind.h"
#include "tools/files/FileReader.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <limits>

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

const QLatin1String s_FormatName("zebtdx manifest");
constexpr int s_Version = 1;

// A group block's own bytes, and those for each block that it lists.
constexpr qint64 s_GroupHeader = 16;
constexpr qint64 s_DigestSize = 64;
constexpr int s_DigestWords = 16;

// JSON numbers are exact up to here.
constexpr double s_LargestNumber = 9007199254740992.0;

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

bool getBytes(const QJsonObject& object, const QString& key, std::string& bytes)
{
    const QJsonValue text = object[key];
    if (text.isString()) {
        bytes = text.toString().toUtf8().toStdString();
        return true;
    }
    const QJsonValue encoded = object[key + QStringLiteral("_base64")];
    if (!encoded.isString())
        return false;
    bytes = QByteArray::fromBase64(encoded.toString().toLatin1()).toStdString();
    return true;
}

bool getNumber(const QJsonObject& object, const QString& key, qint64 least, qint64& number)
{
    const double value = object[key].toDouble(-1);
    if (value < static_cast<double>(least) || value > s_LargestNumber)
        return false;
    number = static_cast<qint64>(value);
    return static_cast<double>(number) == value;
}

// Whether this is the text form of a hash as blocks have it.
bool isHashText(const QString& text)
{
    const QStringList words = text.split(QLatin1Char('-'));
    return words.size() == s_DigestWords &&
           std::all_of(words.begin(), words.end(), [](const QString& word) {
               bool fits = false;
               const uint value = word.toUInt(&fits);
               return fits && QString::number(value) == word;
           });
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

std::string parseHead(const QJsonObject& head, Manifest& manifest)
{
    if (head[QStringLiteral("format")].toString() != s_FormatName)
        return "is no manifest";
    if (head[QStringLiteral("version")].toInt() != s_Version)
        return "is a manifest of a version that this program does not know";
    for (const QJsonValue& value : head[QStringLiteral("roots")].toArray()) {
        std::string root;
        if (!getBytes(value.toObject(), QStringLiteral("path"), root))
            return "names no cache root";
        manifest.m_Place.m_Roots.push_back(root);
    }
    std::string reason = StorePlace::whyNoRoots(manifest.m_Place.m_Roots);
    if (manifest.m_Place.m_Roots.empty())
        reason = "names no cache root";
    qint64 buckets = 0;
    if (!getNumber(head, QStringLiteral("buckets"), 1, buckets) ||
        buckets > std::numeric_limits<int>::max())
        return "names no number of buckets";
    manifest.m_Place.m_Buckets = static_cast<int>(buckets);
    if (!getBytes(head, QStringLiteral("sub_cache"), manifest.m_Place.m_SubCache))
        return "names no sub-cache";
    if (reason.empty() && !manifest.m_Place.m_SubCache.empty())
        reason = StorePlace::whyNoSubCache(manifest.m_Place.m_SubCache);
    if (!getNumber(head, QStringLiteral("block_size"), 1, manifest.m_BlockSize))
        return "names no block size";
    return reason;
}

std::string parseFile(const QJsonObject& object, File& file)
{
    if (!getBytes(object, QStringLiteral("path"), file.m_Path))
        return "names no file";
    if (!Manifest::isSafeName(file.m_Path))
        return "has a name that leads out of the folder";
    if (!getNumber(object, QStringLiteral("size"), 0, file.m_Size))
        return "names no size";
    file.m_Group = object[QStringLiteral("group")].toString();
    if (!isHashText(file.m_Group))
        return "names no hash";
    return {};
}

} // namespace

qint64 Manifest::bytes() const
{
    qint64 sum = 0;
    for (const File& file : m_Files)
        sum += file.m_Size;
    return sum;
}

qint64 Manifest::largestBlock() const
{
    qint64 largest = 0;
    for (const File& file : m_Files) {
        const qint64 blocks = file.m_Size / m_BlockSize + (file.m_Size % m_BlockSize != 0);
        largest = std::max(
            {largest, std::min(file.m_Size, m_BlockSize), s_GroupHeader + blocks * s_DigestSize});
    }
    return largest;
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
    // Tells a whole manifest from one that was cut off.
    QJsonObject end;
    end[QStringLiteral("files")] = static_cast<qint64>(m_Files.size());
    end[QStringLiteral("bytes")] = bytes();
    return text + line(end);
}

std::string Manifest::parse(const QByteArray& text)
{
    Manifest parsed;
    qint64 number = 0;
    for (int at = 0; at < text.size();) {
        const int found = text.indexOf('\n', at);
        const int end = found < 0 ? text.size() : found;
        ++number;
        const std::string where = "line " + std::to_string(number) + " ";
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(
            QByteArray::fromRawData(text.constData() + at, end - at), &error);
        at = end + 1;
        if (!document.isObject())
            return number == 1 ? "is no manifest" : where + "is no JSON object";
        const QJsonObject object = document.object();
        if (number == 1) {
            const std::string reason = parseHead(object, parsed);
            if (!reason.empty())
                return reason;
            continue;
        }
        if (object.contains(QStringLiteral("files"))) {
            qint64 files = 0;
            qint64 bytes = 0;
            if (!getNumber(object, QStringLiteral("files"), 0, files) ||
                !getNumber(object, QStringLiteral("bytes"), 0, bytes) ||
                files != static_cast<qint64>(parsed.m_Files.size()) || bytes != parsed.bytes())
                return where + "does not agree with the files before it";
            if (at < text.size())
                return where + "is not the last one";
            *this = std::move(parsed);
            return {};
        }
        const std::string reason = parseFile(object, parsed.m_Files.emplace_back());
        if (!reason.empty())
            return where + reason;
    }
    return number == 0 ? "is no manifest" : "has no last line; it is not whole";
}

std::string Manifest::save(const std::string& path, bool replace) const
{
    const std::string partial = path + ".part";
    const QByteArray content = text();
    const int descriptor =
        ::open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (descriptor < 0)
        return FileKind::errorText(errno);
    int error = 0;
    for (int done = 0; done < content.size() && error == 0;) {
        const ssize_t count = ::write(descriptor, content.constData() + done,
                                      static_cast<std::size_t>(content.size() - done));
        if (count > 0)
            done += static_cast<int>(count);
        else if (count < 0 && errno != EINTR)
            error = errno;
    }
    // The only record of what was stored must outlast a power cut.
    if (error == 0 && ::fsync(descriptor) != 0)
        error = errno;
    if (::close(descriptor) != 0 && error == 0)
        error = errno;
    if (error == 0 && !replace && ::access(path.c_str(), F_OK) == 0)
        error = EEXIST;
    if (error == 0 && std::rename(partial.c_str(), path.c_str()) != 0)
        error = errno;
    if (error == 0)
        return {};
    ::unlink(partial.c_str());
    return FileKind::errorText(error);
}

std::string Manifest::load(const std::string& path)
{
    FileReader reader;
    std::string reason = reader.open(path);
    QByteArray content;
    if (reason.empty())
        reason = reader.readBlock(0, std::numeric_limits<int>::max() / 2, content);
    return reason.empty() ? parse(content) : reason;
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
