#include "support/FailingAllocations.h"

#include <atomic>
#include <cerrno>
#include <cstring>

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZEBTDX_ALLOCATOR_IS_FIXED
#endif

namespace {

constexpr std::size_t s_NameBytes = 16;

// The plan. Written while s_Active is false, read by any thread while it is true.
char s_Name[s_NameBytes];
std::atomic<bool> s_Active{false};
std::atomic<pid_t> s_Owner{0};
std::atomic<bool> s_OwnerFails{false};
std::atomic<qint64> s_Skipped{0};
std::atomic<qint64> s_Failures{0};
std::atomic<std::size_t> s_LeastBytes{0};

std::atomic<qint64> s_Seen{0};
std::atomic<qint64> s_Failed{0};

pid_t thisThread()
{
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

#ifndef ZEBTDX_ALLOCATOR_IS_FIXED

bool isChosenThread()
{
    if (s_Name[0] == '\0')
        return (thisThread() == s_Owner.load()) == s_OwnerFails.load();
    char name[s_NameBytes] = {};
    ::prctl(PR_GET_NAME, name);
    return std::strncmp(name, s_Name, s_NameBytes - 1) == 0;
}

// Called for each allocation of the program, so it must not allocate.
bool mustFail(std::size_t bytes)
{
    if (!s_Active.load(std::memory_order_acquire) || bytes < s_LeastBytes.load() ||
        !isChosenThread())
        return false;
    const qint64 number = s_Seen.fetch_add(1);
    const qint64 skipped = s_Skipped.load();
    const qint64 failures = s_Failures.load();
    if (number < skipped || (failures != FailingAllocations::s_All && number >= skipped + failures))
        return false;
    s_Failed.fetch_add(1);
    errno = ENOMEM;
    return true;
}

#endif

void begin(const char* name, bool ownerFails, qint64 skipped, qint64 failures,
           std::size_t leastBytes)
{
    std::memset(s_Name, 0, sizeof s_Name);
    std::strncpy(s_Name, name, s_NameBytes - 1);
    s_Owner = thisThread();
    s_OwnerFails = ownerFails;
    s_Skipped = skipped;
    s_Failures = failures;
    s_LeastBytes = leastBytes;
    s_Seen = 0;
    s_Failed = 0;
    s_Active.store(true, std::memory_order_release);
}

} // namespace

#ifndef ZEBTDX_ALLOCATOR_IS_FIXED

// The C library's allocator under its other names.
extern "C" {
void* __libc_malloc(std::size_t bytes);
void* __libc_calloc(std::size_t count, std::size_t bytes);
void* __libc_realloc(void* memory, std::size_t bytes);

// Exported, so that the calls from inside Qt and the C++ library come here, too.
__attribute__((visibility("default"))) void* malloc(std::size_t bytes)
{
    return mustFail(bytes) ? nullptr : __libc_malloc(bytes);
}

__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t bytes)
{
    return mustFail(count * bytes) ? nullptr : __libc_calloc(count, bytes);
}

__attribute__((visibility("default"))) void* realloc(void* memory, std::size_t bytes)
{
    return mustFail(bytes) ? nullptr : __libc_realloc(memory, bytes);
}
}

#endif

FailingAllocations::FailingAllocations(Where where, qint64 skipped, qint64 failures,
                                       std::size_t leastBytes)
{
    begin("", where == Here, skipped, failures, leastBytes);
}

FailingAllocations::FailingAllocations(const char* threadName, qint64 skipped, qint64 failures,
                                       std::size_t leastBytes)
{
    begin(threadName, false, skipped, failures, leastBytes);
}

FailingAllocations::~FailingAllocations()
{
    s_Active.store(false, std::memory_order_release);
}

qint64 FailingAllocations::failed() const
{
    return s_Failed.load();
}

qint64 FailingAllocations::seen() const
{
    return s_Seen.load();
}

bool FailingAllocations::isAvailable()
{
#ifdef ZEBTDX_ALLOCATOR_IS_FIXED
    return false;
#else
    return true;
#endif
}
