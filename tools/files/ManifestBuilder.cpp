#include "tools/files/ManifestBuilder.h"

#include "tools/files/StoredFiles.h"
#include "tools/terminal/ErrorReport.h"

#include <filesystem>
#include <system_error>
#include <unordered_map>

ManifestBuilder::ManifestBuilder(const StorePlace& place, ErrorReport& errors)
    : m_Place(place), m_Errors(errors)
{
    for (std::string& root : m_Place.m_Roots)
        root = std::filesystem::absolute(root).lexically_normal().string();
}

Manifest ManifestBuilder::build(const StoredFiles& stored)
{
    Manifest manifest;
    manifest.m_Place = m_Place;
    manifest.m_BlockSize = stored.m_BlockSize;
    std::unordered_map<std::string, const StoredFile*> names;
    for (const StoredFile& file : stored.m_Files) {
        if (file.m_Group.isNull())
            continue;
        const auto [place, isNew] = names.emplace(file.m_Name, &file);
        if (isNew) {
            manifest.m_Files.push_back({file.m_Name, file.m_StoredBytes, file.m_Group.hash()});
            continue;
        }
        std::error_code error;
        if (!std::filesystem::equivalent(file.m_Path, place->second->m_Path, error))
            m_Errors.add(file.m_Path,
                         "is not in the manifest, where another file has the name " + file.m_Name);
    }
    return manifest;
}
