#include "tools/cache/Quarantine.h"

#include "tools/files/FileReader.h"
#include "tools/files/FileSystem.h"
#include "tools/files/FileWriter.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ToolError.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr mode_t s_FileMode = 0600;
constexpr qint64 s_PieceBytes = 65536;

// Creates an empty file with a free name, so that no other process gets it.
std::unique_ptr<FileWriter> reserve(const std::string& wanted, std::string& target)
{
    for (int i = 1;; ++i) {
        target = i == 1 ? wanted : wanted + "." + std::to_string(i);
        try {
            return std::make_unique<FileWriter>(target, O_EXCL, s_FileMode);
        } catch (const ToolError& error) {
            if (error.code() != EEXIST)
                throw;
        }
    }
}

void copy(const std::string& path, FileWriter& target)
{
    FileReader source;
    source.open(path, ZebFileReader::Links::Refuse);
    qint64 done = 0;
    for (QByteArray piece = source.read(done, s_PieceBytes); !piece.isEmpty();
         piece = source.read(done, s_PieceBytes)) {
        target.write(piece.constData(), piece.size());
        done += piece.size();
    }
    target.sync();
}

std::string rootName(std::size_t index)
{
    return "root-" + std::to_string(index + 1);
}

} // namespace

Quarantine::Quarantine(std::string directory) : m_Directory(std::move(directory)) {}

void Quarantine::require(const std::vector<std::string>& roots) const
{
    std::error_code error;
    const fs::path directory = fs::weakly_canonical(fs::absolute(m_Directory, error), error);
    if (error)
        throw ToolError(error.message(), error.value());
    for (const std::string& root : roots) {
        const std::string shown = PathText::printable(root);
        const fs::path path = fs::canonical(root, error);
        if (error)
            throw ToolError(shown + ": " + error.message(), error.value());
        if (FileSystem::isWithin(directory, path))
            throw ToolError("is inside the cache root " + shown +
                            ", where a collector would remove its files; choose a directory "
                            "outside of all roots");
        bool contains = false;
        for (std::size_t i = 0; i < roots.size(); ++i)
            contains = contains || FileSystem::isWithin(path, directory / rootName(i));
        if (contains)
            throw ToolError("contains the cache root " + shown + "; choose another directory");
    }
}

std::string Quarantine::move(const CacheFiles& files, const CacheFiles::File& file) const
{
    const CacheFiles::Directory& from = files.directoryOf(file);
    const fs::path directory = fs::path(m_Directory) / rootName(from.m_Root) / from.m_SubCache /
                               std::to_string(from.m_Bucket);
    std::error_code error;
    fs::create_directories(directory, error);
    const std::string shown = PathText::printable(directory.string());
    if (error)
        throw ToolError(shown + ": " + error.message(), error.value());
    // A link below the quarantine could lead back.
    if (!FileSystem::isWithin(fs::canonical(directory, error), fs::canonical(m_Directory, error)))
        throw ToolError(shown + ": leads out of the quarantine; remove the link");
    std::string target;
    const auto reserved = reserve((directory / file.m_Name.text()).string(), target);
    const std::string path = files.pathOf(file);
    // Replaces the reserved file, which belongs to this process.
    int failure = std::rename(path.c_str(), target.c_str()) == 0 ? 0 : errno;
    if (failure == EXDEV) {
        copy(path, *reserved);
        // A power loss must not lose both names.
        FileSystem::syncDirectory(directory.string());
        failure = ::unlink(path.c_str()) == 0 ? 0 : errno;
    }
    if (failure != 0)
        throw ToolError("cannot be moved: " + std::string(ToolError::ofSystem(failure).what()),
                        failure);
    reserved->disown();
    return target;
}
