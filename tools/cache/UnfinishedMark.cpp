#include "tools/cache/UnfinishedMark.h"

#include "tools/files/FileReader.h"
#include "tools/files/FileSystem.h"
#include "tools/files/FileWriter.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ToolError.h"

#include <QCryptographicHash>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

const std::string s_Prefix = "zebtdx-unfinished-";

constexpr mode_t s_FileMode = 0644;
constexpr int s_NameBytes = 8;
constexpr qint64 s_MostTextBytes = 65536;

const char* const s_FirstLine = "An ingest into this cache has not finished. Its manifest is:\n";

std::string absolute(const std::string& path)
{
    return path.empty() ? path : FileSystem::absolute(path);
}

// A name for these texts, the same in every run.
std::string digestOf(const std::vector<std::string>& texts)
{
    QCryptographicHash digest(QCryptographicHash::Sha256);
    for (const std::string& text : texts)
        // With the terminating null, so that two texts never read as one.
        digest.addData(text.c_str(), static_cast<int>(text.size()) + 1);
    return digest.result().left(s_NameBytes).toHex().toStdString();
}

} // namespace

UnfinishedMark::UnfinishedMark(const StorePlace& place, const std::string& manifest,
                               const std::vector<std::string>& paths, qint64 blockSize)
    : m_Place(place), m_Manifest(absolute(manifest))
{
    std::vector<std::string> texts = {m_Manifest, std::to_string(place.m_Buckets),
                                      std::to_string(blockSize)};
    for (const std::vector<std::string>* list : {&place.m_Roots, &paths}) {
        texts.push_back(std::to_string(list->size()));
        for (const std::string& path : *list)
            texts.push_back(absolute(path));
    }
    m_Name = s_Prefix + digestOf(texts);
}

std::string UnfinishedMark::directoryOf(const std::string& root) const
{
    return m_Place.m_SubCache.empty() ? root : FileSystem::joined(root, m_Place.m_SubCache);
}

std::string UnfinishedMark::pathIn(const std::string& root) const
{
    return FileSystem::joined(directoryOf(root), m_Name);
}

void UnfinishedMark::set() const
{
    for (const std::string& root : m_Place.m_Roots) {
        ToolError::locate(pathIn(root), [this, &root] {
            std::error_code error;
            fs::create_directories(directoryOf(root), error);
            if (error)
                throw ToolError(error.message(), error.value());
            try {
                FileWriter file(pathIn(root), O_EXCL, s_FileMode);
                const std::string text = s_FirstLine + PathText::printable(m_Manifest) + '\n';
                file.write(text.data(), static_cast<qint64>(text.size()));
                file.sync();
                file.keep();
            } catch (const ToolError& failure) {
                if (failure.code() != EEXIST)
                    throw;
                FileReader().open(pathIn(root), ZebFileReader::Links::Refuse);
            }
            FileSystem::syncDirectory(directoryOf(root));
            FileSystem::syncDirectory(root);
        });
    }
}

void UnfinishedMark::clear() const
{
    std::vector<std::string> paths;
    for (const std::string& root : m_Place.m_Roots)
        paths.push_back(pathIn(root));
    remove(paths);
}

void UnfinishedMark::remove(const std::vector<std::string>& paths)
{
    for (const std::string& path : paths) {
        ToolError::locate(path, [&path] {
            if (::unlink(path.c_str()) != 0 && errno != ENOENT)
                throw ToolError::ofSystem(errno);
            FileSystem::syncDirectory(fs::path(path).parent_path().string());
        });
    }
}

bool UnfinishedMark::isAt(const std::string& path) const
{
    return fs::path(path).filename() == m_Name;
}

std::vector<std::string> UnfinishedMark::find(const StorePlace& place)
{
    std::vector<std::string> found;
    for (const std::string& root : place.m_Roots) {
        const std::string directory =
            place.m_SubCache.empty() ? root : FileSystem::joined(root, place.m_SubCache);
        std::error_code error;
        fs::directory_iterator entry(directory, error);
        for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
            const std::string name = entry->path().filename().string();
            if (isName(name))
                found.push_back(FileSystem::joined(directory, name));
        }
        if (error && error != std::errc::no_such_file_or_directory)
            throw ToolError(PathText::printable(directory) + ": " + error.message(), error.value());
    }
    return found;
}

bool UnfinishedMark::isName(const std::string& name)
{
    return name.compare(0, s_Prefix.size(), s_Prefix) == 0;
}

std::string UnfinishedMark::textOf(const std::string& path)
{
    std::string manifest;
    // Only a text: without it the mark is as valid.
    ToolError::of([&path, &manifest] {
        FileReader reader;
        reader.open(path, ZebFileReader::Links::Refuse);
        const std::string text = reader.read(0, s_MostTextBytes).toStdString();
        const std::string first = s_FirstLine;
        if (text.compare(0, first.size(), first) == 0 && text.back() == '\n')
            manifest = text.substr(first.size(), text.size() - first.size() - 1);
    });
    return "is the mark of an ingest that has not finished" +
           (manifest.empty() ? "" : ", with the manifest " + PathText::printable(manifest)) +
           "; run that ingest again, or zebtdx repair --apply";
}
