#include "tools/FolderNames.h"

#include "tools/FileKind.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include <dirent.h>

std::string FolderNames::joined(const std::string& folder, const std::string& name)
{
    return !folder.empty() && folder.back() == '/' ? folder + name : folder + "/" + name;
}

std::string FolderNames::read(const std::string& folder, std::vector<std::string>& names,
                              Order order)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::opendir(folder.c_str()), &::closedir);
    if (stream == nullptr)
        return FileKind::errorText(errno);
    for (;;) {
        errno = 0;
        const dirent* const entry = ::readdir(stream.get());
        if (entry == nullptr)
            break;
        const std::string name = static_cast<const char*>(entry->d_name);
        if (name != "." && name != "..")
            names.push_back(name);
    }
    const int error = errno;
    if (order == Order::Sorted)
        std::sort(names.begin(), names.end());
    return error == 0 ? std::string() : FileKind::errorText(error);
}
