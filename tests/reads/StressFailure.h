#pragma once

#include <cstdio>
#include <string>

#include <unistd.h>

/// Ends the process with status 1 and a reason. At once: after a failure other threads may be stuck
/// or use freed memory, so nothing is joined or cleaned up.
[[noreturn]] inline void failStress(const std::string& reason)
{
    std::fprintf(stderr, "FAILED: %s\n", reason.c_str());
    std::fflush(stderr);
    ::_exit(1);
}

inline void require(bool isRight, const char* reason)
{
    if (!isRight)
        failStress(reason);
}
