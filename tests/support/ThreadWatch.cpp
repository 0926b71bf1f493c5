#include "support/ThreadWatch.h"

#include "support/WaitUntil.h"

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr const char* s_Threads = "/proc/self/task/";

std::string firstLine(const std::string& path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

} // namespace

pid_t ThreadWatch::currentThread()
{
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

std::vector<pid_t> ThreadWatch::threadsNamed(const std::string& name)
{
    std::vector<pid_t> threads;
    DIR* const directory = ::opendir(s_Threads);
    if (directory == nullptr)
        return threads;
    while (const dirent* const entry = ::readdir(directory)) {
        const std::string number = entry->d_name;
        if (number.find_first_not_of("0123456789") != std::string::npos)
            continue;
        if (firstLine(s_Threads + number + "/comm") == name.substr(0, 15))
            threads.push_back(static_cast<pid_t>(std::stol(number)));
    }
    ::closedir(directory);
    return threads;
}

bool ThreadWatch::waitsFor(const WaitPlace& place, int deadlineMs) const
{
    return pollUntil([&] { return isWaitingFor(place); }, deadlineMs);
}

bool ThreadWatch::standsStill(int deadlineMs) const
{
    return pollUntil(
        [this] {
            const quintptr address = futexAddress();
            const std::string times = timesRun();
            if (address == 0)
                return false;
            for (int look = 0; look < 20; ++look) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                if (futexAddress() != address || timesRun() != times)
                    return false;
            }
            return true;
        },
        deadlineMs);
}

bool ThreadWatch::isInCall(long call) const
{
    long seen = -1;
    return isAsleep() && (std::istringstream(read("syscall")) >> seen) && seen == call;
}

quintptr ThreadWatch::futexAddress() const
{
    if (!isAsleep())
        return 0;
    const std::string line = read("syscall");
    // An ended thread has no line, one that could run has the word "running".
    std::istringstream words(line);
    long call = -1;
    quintptr address = 0;
    if (!(words >> call) || call != SYS_futex || !(words >> std::hex >> address))
        return 0;
    return address;
}

bool ThreadWatch::isAsleep() const
{
    // The state follows the name, which is in parentheses and may contain any character.
    const std::string line = read("stat");
    const size_t end = line.rfind(')');
    return end != std::string::npos && line.compare(end, 4, ") S ") == 0;
}

std::string ThreadWatch::timesRun() const
{
    std::ifstream file(s_Threads + std::to_string(m_Thread) + "/status");
    std::string counts;
    for (std::string line; std::getline(file, line);) {
        if (line.find("ctxt_switches") != std::string::npos)
            counts += line;
    }
    return counts;
}

std::string ThreadWatch::read(const char* file) const
{
    return firstLine(s_Threads + std::to_string(m_Thread) + "/" + file);
}
