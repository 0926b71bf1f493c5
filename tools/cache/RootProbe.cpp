#include "tools/cache/RootProbe.h"

#include "tools/cache/BlockName.h"
#include "tools/cache/RootLock.h"
#include "tools/files/FileKind.h"
#include "tools/files/FolderNames.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/SizeText.h"

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

// As long as the longest name of a block, and no such name.
std::string longName()
{
    std::string name = "zebtdx_probe_" + std::to_string(::getpid()) + "_";
    name.resize(BlockName::s_MostCharacters, 'x');
    return name;
}

} // namespace

RootProbe::RootProbe(const std::vector<std::string>& roots, qint64 spaceBytes)
{
    for (const std::string& root : roots)
        probe(root, spaceBytes);
    probeApartness(roots);
    probeOthers(roots);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    add({}, "umask", (mask & s_OthersWrite) == s_OthersWrite,
        (mask & s_OthersWrite) == s_OthersWrite
            ? "new files are for their owner to write"
            : "new files would let others write; set it to 022 or 077");
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
    struct stat status = {};
    if (::stat(root.c_str(), &status) != 0) {
        add(root, "exists", false,
            FileKind::errorText(errno) + "; make it, so that it does not come to lie on a disk "
                                         "that was meant to be mounted there");
        return;
    }
    if (!S_ISDIR(status.st_mode)) {
        add(root, "exists", false, "is not a folder; give another one");
        return;
    }
    add(root, "exists", true, "is a folder");
    probeWriting(root);
    probeSpace(root, spaceBytes);
    probePermissions(root, status.st_mode);
}

void RootProbe::probeWriting(const std::string& root)
{
    const std::string name = longName();
    const long longest = ::pathconf(root.c_str(), _PC_NAME_MAX);
    const std::string path = FolderNames::joined(root, name);
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
                      " characters are too long here; take another file system"
                : "names may be as long as those of blocks");
    const bool readable = ::access(root.c_str(), R_OK | X_OK) == 0;
    const bool fit = readable && (error == 0 || error == ENAMETOOLONG);
    add(root, "writable", fit,
        fit ? "a file could be made and removed"
            : FileKind::errorText(error != 0 ? error : EACCES) +
                  "; give its owner the rights to read, write and enter");
}

void RootProbe::probeSpace(const std::string& root, qint64 spaceBytes)
{
    struct statvfs space = {};
    if (::statvfs(root.c_str(), &space) != 0) {
        add(root, "space", false, FileKind::errorText(errno) + "; look after the file system");
        return;
    }
    const qint64 free = static_cast<qint64>(space.f_bavail) * static_cast<qint64>(space.f_frsize);
    // Some file systems have no table of files to run out of, and say 0 of 0.
    const bool noFiles = space.f_files > 0 && space.f_favail == 0;
    const bool fit = free >= spaceBytes && !noFiles;
    std::string text = SizeText::print(free) + " free";
    if (noFiles)
        text += ", but no room for another file; remove some";
    else if (!fit)
        text += ", and " + SizeText::print(spaceBytes) +
                " are asked for; a full disk keeps the store waiting for ever";
    add(root, "space", fit, text);
}

void RootProbe::probePermissions(const std::string& root, unsigned int mode)
{
    const bool loose = (mode & s_OthersWrite) != 0;
    add(root, "permissions", !loose,
        loose ? "others may write here, and so give wrong bytes; take that right by chmod go-w"
              : "only its owner may write");
}

void RootProbe::probeApartness(const std::vector<std::string>& roots)
{
    for (std::size_t i = 0; i < roots.size(); ++i) {
        for (std::size_t k = 0; k < roots.size(); ++k) {
            std::error_code outerError;
            std::error_code innerError;
            const std::filesystem::path outer = std::filesystem::canonical(roots[i], outerError);
            const std::filesystem::path inner = std::filesystem::canonical(roots[k], innerError);
            // What does not exist is told elsewhere, and lies nowhere.
            if (i == k || outerError || innerError || (outer == inner && i > k))
                continue;
            if (std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first ==
                outer.end()) {
                add(roots[k], "apart", false,
                    "lies in or is the cache root " + PathText::printable(roots[i]) +
                        "; give folders apart from each other");
            }
        }
    }
}

void RootProbe::probeOthers(const std::vector<std::string>& roots)
{
    for (const std::string& root : roots) {
        if (RootLock::fileOf(root).empty())
            continue;
        RootLock lock;
        std::string holder;
        const bool fit = lock.take({root}, RootLock::Use::Alone, holder);
        std::string text = "no other process of zebtdx has it";
        if (!fit)
            text = "another process has it; let one process at a time use a root";
        else if (lock.isPartial())
            text = "cannot tell: its lock file " + PathText::printable(RootLock::fileOf(root)) +
                   " cannot be made";
        add(root, "alone", fit, text);
    }
}
