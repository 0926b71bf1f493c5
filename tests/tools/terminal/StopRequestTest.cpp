#include "tools/terminal/StopRequest.h"

#include "tools/terminal/ToolError.h"

#include <gtest/gtest.h>

#include <csignal>
#include <functional>

#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int s_Caught = 10;
constexpr int s_Missed = 11;

// The wait status of a child process that calls `work`. A shell starts background jobs with SIGINT
// ignored, so the child sets the default actions first.
int statusOf(const std::function<int()>& work)
{
    const pid_t child = ::fork();
    if (child == 0) {
        for (const int signal : {SIGINT, SIGTERM})
            std::signal(signal, SIG_DFL);
        ::_exit(work());
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return status;
}

// Which signal check() reports.
int stopSignal()
{
    try {
        StopRequest::check();
    } catch (const StopRequest::Stopped& stop) {
        return stop.signal();
    }
    return 0;
}

} // namespace

TEST(StopRequestTest, TheFirstSignalIsReportedByEveryCheck)
{
    for (const int signal : {SIGINT, SIGTERM}) {
        const int status = statusOf([signal] {
            StopRequest::install();
            if (stopSignal() != 0)
                return s_Missed;
            std::raise(signal);
            return stopSignal() == signal && stopSignal() == signal ? s_Caught : s_Missed;
        });
        ASSERT_TRUE(WIFEXITED(status)) << signal;
        EXPECT_EQ(WEXITSTATUS(status), s_Caught) << signal;
    }
}

TEST(StopRequestTest, TheSecondSignalEndsTheProcess)
{
    const int status = statusOf([] {
        StopRequest::install();
        std::raise(SIGINT);
        std::raise(SIGTERM);
        return s_Missed;
    });
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST(StopRequestTest, TheProcessEndsByTheSignal)
{
    const int status = statusOf([]() -> int {
        StopRequest::install();
        std::raise(SIGTERM);
        StopRequest::endBy(stopSignal());
    });
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST(StopRequestTest, AnIgnoredSignalStaysIgnored)
{
    const int status = statusOf([] {
        std::signal(SIGINT, SIG_IGN);
        StopRequest::install();
        std::raise(SIGINT);
        return stopSignal() == 0 ? s_Caught : s_Missed;
    });
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), s_Caught);
}

TEST(StopRequestTest, TheFailureOfAFileDoesNotHideIt)
{
    const int status = statusOf([] {
        StopRequest::install();
        std::raise(SIGINT);
        try {
            (void)ToolError::of([] { StopRequest::check(); });
        } catch (const StopRequest::Stopped&) {
            return s_Caught;
        }
        return s_Missed;
    });
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), s_Caught);
}
