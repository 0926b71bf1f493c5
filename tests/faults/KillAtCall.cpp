// Preloaded into a program, kills it at one of its system calls that change files, chosen by
// number: a random number is a random moment, with as many moments inside short work on files as
// inside long computations. A write that is chosen writes a part of its bytes first, as the kernel
// may when it kills a process inside a long write.
//
// ZEBTDX_KILL_AT is the number of the call, counted from 1. Without it, nothing is killed and the
// number of calls is appended to the file that ZEBTDX_KILL_COUNT names, when the process ends.

#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

std::atomic<long> s_Calls{0};

long chosenCall()
{
    static const long chosen = [] {
        const char* const text = std::getenv("ZEBTDX_KILL_AT");
        return text == nullptr ? 0 : std::strtol(text, nullptr, 10);
    }();
    return chosen;
}

// Whether this call is the chosen one.
bool isChosen()
{
    return ++s_Calls == chosenCall();
}

[[noreturn]] void die()
{
    ::kill(::getpid(), SIGKILL);
    for (;;)
        ::pause();
}

void dieIfChosen()
{
    if (isChosen())
        die();
}

// Kills the process when a call that opens a file may create it and is chosen. Otherwise returns
// the mode, which only such a call has: O_TMPFILE creates a file, too.
mode_t dieOrModeOf(int flags, va_list rest)
{
    if ((flags & O_CREAT) == 0 && (flags & O_TMPFILE) != O_TMPFILE)
        return 0;
    dieIfChosen();
    return va_arg(rest, mode_t);
}

// The next definition of a function of the C library.
template <typename Function>
Function next(const char* name)
{
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

struct CountAtExit
{
    ~CountAtExit()
    {
        const char* const path = std::getenv("ZEBTDX_KILL_COUNT");
        if (path == nullptr)
            return;
        const long calls = s_Calls;
        if (std::FILE* const file = std::fopen(path, "a")) {
            std::fprintf(file, "%ld\n", calls);
            std::fclose(file);
        }
    }
} s_CountAtExit;

} // namespace

extern "C" {

ssize_t write(int descriptor, const void* bytes, size_t size)
{
    static const auto system = next<ssize_t (*)(int, const void*, size_t)>("write");
    // Pipes wake threads and are no files.
    struct stat status = {};
    if (::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && isChosen()) {
        // Any part, from none to all.
        timespec now = {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        const size_t part = static_cast<size_t>(now.tv_nsec) % (size + 1);
        if (part > 0)
            static_cast<void>(system(descriptor, bytes, part) == 0);
        die();
    }
    return system(descriptor, bytes, size);
}

int close(int descriptor)
{
    static const auto system = next<int (*)(int)>("close");
    struct stat status = {};
    if (::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode))
        dieIfChosen();
    return system(descriptor);
}

int fsync(int descriptor)
{
    static const auto system = next<int (*)(int)>("fsync");
    dieIfChosen();
    return system(descriptor);
}

int syncfs(int descriptor) noexcept
{
    static const auto system = next<int (*)(int)>("syncfs");
    dieIfChosen();
    return system(descriptor);
}

int ftruncate64(int descriptor, off64_t size) noexcept
{
    static const auto system = next<int (*)(int, off64_t)>("ftruncate64");
    dieIfChosen();
    return system(descriptor, size);
}

int rename(const char* from, const char* to) noexcept
{
    static const auto system = next<int (*)(const char*, const char*)>("rename");
    dieIfChosen();
    return system(from, to);
}

int renameat2(int fromDirectory, const char* from, int toDirectory, const char* to,
              unsigned int flags) noexcept
{
    static const auto system =
        next<int (*)(int, const char*, int, const char*, unsigned int)>("renameat2");
    dieIfChosen();
    return system(fromDirectory, from, toDirectory, to, flags);
}

int linkat(int fromDirectory, const char* from, int toDirectory, const char* to, int flags) noexcept
{
    static const auto system = next<int (*)(int, const char*, int, const char*, int)>("linkat");
    dieIfChosen();
    return system(fromDirectory, from, toDirectory, to, flags);
}

// Only the calls that may create a file count. The mode is there only then.
int open(const char* path, int flags, ...)
{
    static const auto system = next<int (*)(const char*, int, mode_t)>("open");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = dieOrModeOf(flags, rest);
    va_end(rest);
    return system(path, flags, mode);
}

int open64(const char* path, int flags, ...)
{
    static const auto system = next<int (*)(const char*, int, mode_t)>("open64");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = dieOrModeOf(flags, rest);
    va_end(rest);
    return system(path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...)
{
    static const auto system = next<int (*)(int, const char*, int, mode_t)>("openat");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = dieOrModeOf(flags, rest);
    va_end(rest);
    return system(directory, path, flags, mode);
}

int openat64(int directory, const char* path, int flags, ...)
{
    static const auto system = next<int (*)(int, const char*, int, mode_t)>("openat64");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = dieOrModeOf(flags, rest);
    va_end(rest);
    return system(directory, path, flags, mode);
}

int unlinkat(int directory, const char* path, int flags) noexcept
{
    static const auto system = next<int (*)(int, const char*, int)>("unlinkat");
    dieIfChosen();
    return system(directory, path, flags);
}

int unlink(const char* path) noexcept
{
    static const auto system = next<int (*)(const char*)>("unlink");
    dieIfChosen();
    return system(path);
}

int mkdir(const char* path, mode_t mode) noexcept
{
    static const auto system = next<int (*)(const char*, mode_t)>("mkdir");
    dieIfChosen();
    return system(path, mode);
}
}
