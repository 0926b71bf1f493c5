#include "tools/files/ManifestSaver.h"

#include "tools/files/FileReader.h"
#include "tools/files/FileSystem.h"
#include "tools/files/FileWriter.h"
#include "tools/files/Manifest.h"
#include "tools/files/ManifestReader.h"
#include "tools/files/ManifestText.h"
#include "tools/terminal/ToolError.h"

#include <QByteArray>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <utility>

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t s_FileMode = 0644;
constexpr int s_Attempts = 100;
constexpr qint64 s_PieceBytes = 64LL * 1024;

std::string directoryOf(const std::string& path)
{
    const std::string parent = std::filesystem::path(path).parent_path().string();
    return parent.empty() ? "." : parent;
}

// Creates a file that no other process has. Sets its path.
std::unique_ptr<FileWriter> createPart(const std::string& path, std::string& part)
{
    std::random_device random;
    for (int i = 0;; ++i) {
        part = path + ".part-" + std::to_string(random());
        try {
            return std::make_unique<FileWriter>(part, O_EXCL, s_FileMode);
        } catch (const ToolError& error) {
            if (error.code() != EEXIST || i == s_Attempts)
                throw;
        }
    }
}

// Calls `visit` for each piece of a file.
template <typename Visit>
void forPieces(FileReader& file, Visit visit)
{
    qint64 offset = 0;
    for (QByteArray piece = file.read(offset, s_PieceBytes); !piece.isEmpty();
         piece = file.read(offset, s_PieceBytes)) {
        visit(piece, offset);
        offset += piece.size();
    }
}

bool isSame(const std::string& first, const std::string& second)
{
    FileReader a;
    FileReader b;
    a.open(first);
    b.open(second);
    bool same = a.stamp().m_Size == b.stamp().m_Size;
    forPieces(a, [&](const QByteArray& piece, qint64 offset) {
        same = same && b.read(offset, piece.size()) == piece;
    });
    return same;
}

// For file systems without links.
void copy(const std::string& from, const std::string& to)
{
    FileReader source;
    source.open(from);
    FileWriter target(to, O_EXCL, s_FileMode);
    forPieces(source, [&target](const QByteArray& piece, qint64) {
        target.write(piece.constData(), piece.size());
    });
    target.sync();
    target.keep();
}

} // namespace

ManifestSaver::ManifestSaver(const Manifest& manifest, std::string path)
    : m_Manifest(manifest), m_Path(std::move(path))
{}

std::string ManifestSaver::save(bool replace)
{
    struct stat status = {};
    if (::stat(m_Path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        throw ToolError(FileSystem::whyNotAFile(status.st_mode));
    if (m_Manifest.bytes() > ManifestText::s_LargestNumber)
        throw ToolError("cannot have files of more than 8 PiB in total");
    const std::unique_ptr<FileWriter> file = createPart(m_Path, m_Part);
    write(*file);
    // The only record of what was stored must survive a power loss.
    file->sync();
    bool isEqual = false;
    ToolError::locate("was written, but cannot be read back", [&] { isEqual = isWritten(); });
    if (!isEqual)
        throw ToolError("was written, but is different when it is read back; check the disk");
    std::string previous = replace ? keepPrevious() : std::string();
    const int error = replace ? (std::rename(m_Part.c_str(), m_Path.c_str()) == 0 ? 0 : errno)
                              : FileSystem::renameNew(AT_FDCWD, m_Part, m_Path);
    if (error != 0)
        throw ToolError::ofSystem(error);
    file->keep();
    const std::optional<ToolError> notSynced =
        ToolError::of([this] { FileSystem::syncDirectory(directoryOf(m_Path)); });
    // A directory that may be written may be unreadable. The manifest is complete all the same.
    if (notSynced && notSynced->code() != EACCES)
        throw ToolError(*notSynced);
    return previous;
}

void ManifestSaver::write(FileWriter& file) const
{
    QByteArray lines = ManifestText::headLine(m_Manifest);
    for (const Manifest::File& entry : m_Manifest.m_Files) {
        lines += ManifestText::fileLine(entry);
        if (lines.size() < s_PieceBytes)
            continue;
        file.write(lines.constData(), lines.size());
        lines.clear();
    }
    lines +=
        ManifestText::lastLine(static_cast<qint64>(m_Manifest.m_Files.size()), m_Manifest.bytes());
    file.write(lines.constData(), lines.size());
}

bool ManifestSaver::isWritten() const
{
    ManifestReader reader(m_Part);
    if (ManifestText::headLine(reader.head()) != ManifestText::headLine(m_Manifest))
        return false;
    auto expected = m_Manifest.m_Files.cbegin();
    while (const std::optional<Manifest::File> file = reader.next()) {
        const bool isEqual = expected != m_Manifest.m_Files.cend() &&
                             file->m_Path == expected->m_Path && file->m_Size == expected->m_Size &&
                             file->m_Group == expected->m_Group;
        if (!isEqual)
            return false;
        ++expected;
    }
    return expected == m_Manifest.m_Files.cend();
}

std::string ManifestSaver::keepPrevious() const
{
    if (::access(m_Path.c_str(), F_OK) != 0 || isSame(m_Path, m_Part))
        return {};
    for (int i = 1;; ++i) {
        std::string target = m_Path + "." + std::to_string(i);
        if (::linkat(AT_FDCWD, m_Path.c_str(), AT_FDCWD, target.c_str(), AT_SYMLINK_FOLLOW) == 0)
            return target;
        if (errno == EEXIST)
            continue;
        const std::optional<ToolError> error = ToolError::of([&] { copy(m_Path, target); });
        if (!error)
            return target;
        if (error->code() != EEXIST)
            throw ToolError("cannot be kept as " + target + ": " + error->what(), error->code());
    }
}
