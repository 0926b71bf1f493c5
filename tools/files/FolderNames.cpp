#include "tools/files/FolderNames.h"

#include "tools/files/FileKind.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include <dirent.h>

namespace {

// Calls `take` with each entry but "." and "..". Gives the reason when that fails.
template <typename Take>
std::string forEach(const std::string& folder, Take take)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::opendir(folder.c_str()), &::closedir);
    if (stream == nullptr)
        return FileKind::errorText(errno);
    for (;;) {
        errno = 0;
        const dirent* const entry = ::readdir(stream.get());
        if (entry == nullptr)
            break;
        std::string name = static_cast<const char*>(entry->d_name);
        if (name != "." && name != "..")
            take(std::move(name), entry->d_type == DT_REG);
    }
    return errno == 0 ? std::string() : FileKind::errorText(errno);
}

} // namespace

std::string FolderNames::joined(const std::string& folder, const std::string& name)
{
    return !folder.empty() && folder.back() == '/' ? folder + name : folder + "/" + name;
}

std::string FolderNames::read(const std::string& folder, std::vector<std::string>& names,
                              Order order)
{
    std::string reason =
        forEach(folder, [&names](std::string name, bool) { names.push_back(std::move(name)); });
    if (order == Order::Sorted)
        std::sort(names.begin(), names.end());
    return reason;
}

std::string FolderNames::readEntries(const std::string& folder, std::vector<Entry>& entries)
{
    return forEach(folder, [&entries](std::string name, bool isSurelyFile) {
        entries.push_back({std::move(name), isSurelyFile});
    });
}
