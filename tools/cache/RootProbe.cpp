#include "tools/cache/RootProbe.h"

#include "hash/ZebHashText.h"
#include "tools/cache/CacheWarnings.h"
#include "tools/cache/RootLock.h"
#include "tools/files/FileSystem.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/ToolError.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr mode_t s_FileMode = 0600;
constexpr unsigned int s_OthersWrite = S_IWGRP | S_IWOTH;

// As long as the longest name of a block, without being one.
std::string longName()
{
    std::string name = "zebtdx_probe_" + std::to_string(::getpid()) + "_";
    name.resize(ZebHashText::s_MaxBlockCharacters, 'x');
    return name;
}

} // namespace

RootProbe::RootProbe(const std::vector<std::string>& roots, qint64 spaceBytes)
{
    for (const std::string& root : roots)
        probe(root, spaceBytes);
    probeSeparation(roots);
    probeUse(roots);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    add({}, "umask", (mask & s_OthersWrite) == s_OthersWrite,
        (mask & s_OthersWrite) == s_OthersWrite
            ? "new files are writable by their owner only"
            : "new files would be group- or world-writable; set it to 022 or 077");
}

void RootProbe::add(const std::string& root, const std::string& name, bool fit,
                    const std::string& text)
{
    m_Checks.push_back({root, name, fit, text});
}

bool RootProbe::isFit() const
{
    return std::all_of(m_Checks.begin(), m_Checks.end(),
                       [](const Check& check) { return check.m_Fit; });
}

void RootProbe::probe(const std::string& root, qint64 spaceBytes)
{
    const auto error = ToolError::of([&] { FileSystem::requireDirectory(root); });
    if (error) {
        add(root, "exists", false,
            std::string(error->what()) + "; mount its disk and create the directory, or choose "
                                         "another root");
        return;
    }
    add(root, "exists", true, "is a directory");
    probeWriting(root);
    probeSpace(root, spaceBytes);
    struct stat status = {};
    const bool writable =
        ::stat(root.c_str(), &status) == 0 && CacheWarnings::isWritableByOthers(status.st_mode);
    add(root, "permissions", !writable,
        writable ? "is group- or world-writable, so others can change blocks; correct that with "
                   "chmod go-w"
                 : "only its owner may write");
}

void RootProbe::probeWriting(const std::string& root)
{
    const std::string name = longName();
    const long longest = ::pathconf(root.c_str(), _PC_NAME_MAX);
    const std::string path = FileSystem::joined(root, name);
    const int descriptor =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, s_FileMode);
    const int error = descriptor < 0 ? errno : 0;
    if (descriptor >= 0) {
        ::close(descriptor);
        ::unlink(path.c_str());
    }
    const bool tooLong = error == ENAMETOOLONG || (longest >= 0 && longest < long(name.size()));
    add(root, "names", !tooLong,
        tooLong ? "names of " + std::to_string(name.size()) +
                      " characters are too long here; use another file system"
                : "the names of blocks are not too long");
    const bool readable = ::access(root.c_str(), R_OK | X_OK) == 0;
    const bool fit = readable && (error == 0 || error == ENAMETOOLONG);
    add(root, "writable", fit,
        fit ? "a file could be created and removed"
            : ToolError::ofSystem(error != 0 ? error : EACCES).what() +
                  std::string("; grant its owner read, write and search permission"));
}

void RootProbe::probeSpace(const std::string& root, qint64 spaceBytes)
{
    struct statvfs space = {};
    if (::statvfs(root.c_str(), &space) != 0) {
        add(root, "space", false,
            ToolError::ofSystem(errno).what() + std::string("; check the file system"));
        return;
    }
    const qint64 free = static_cast<qint64>(space.f_bavail) * static_cast<qint64>(space.f_frsize);
    // File systems without a fixed number of inodes report 0 of 0.
    const bool noFiles = space.f_files > 0 && space.f_favail == 0;
    const bool fit = free >= spaceBytes && !noFiles;
    std::string text = SizeText::print(free) + " free";
    if (noFiles)
        text += ", but no inode for another file; remove some files";
    else if (!fit)
        text += ", but " + SizeText::print(spaceBytes) +
                " required (--space); make room, as a store waits indefinitely for a full disk";
    add(root, "space", fit, text);
}

void RootProbe::probeSeparation(const std::vector<std::string>& roots)
{
    for (std::size_t i = 0; i < roots.size(); ++i) {
        for (std::size_t k = 0; k < roots.size(); ++k) {
            std::error_code outerError;
            std::error_code innerError;
            const std::filesystem::path outer = std::filesystem::canonical(roots[i], outerError);
            const std::filesystem::path inner = std::filesystem::canonical(roots[k], innerError);
            // A missing root fails another check.
            if (i == k || outerError || innerError || (outer == inner && i > k))
                continue;
            if (FileSystem::isWithin(inner, outer)) {
                add(roots[k], "separate", false,
                    "is, or is inside, the cache root " + PathText::printable(roots[i]) +
                        "; choose separate directories");
            }
        }
    }
}

void RootProbe::probeUse(const std::vector<std::string>& roots)
{
    for (const std::string& root : roots) {
        // A missing root fails another check.
        if (ToolError::of([&root] { FileSystem::requireDirectory(root); }))
            continue;
        RootLock lock;
        const auto error = ToolError::of([&] { lock.take({root}, RootLock::Use::Alone); });
        const bool used = error && error->code() == EWOULDBLOCK;
        std::string text = "no other process has it locked";
        if (used)
            text = "another process uses it; wait until that has ended";
        else if (error)
            text = error->what();
        add(root, "unused", !error, text);
    }
}
