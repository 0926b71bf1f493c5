#include "hash/ZebUseClock.h"

#include <QtGlobal>

#include <cstring>

#ifdef ZEBTDX_HAS_CYCLES
#include <cpuid.h>
#endif
#ifdef Q_OS_LINUX
#include <fcntl.h>
#include <unistd.h>
#endif

std::atomic<ZebUseClock::Form> ZebUseClock::s_Form{Form::Undecided};

// Not 0, so that no stamp is.
std::atomic<quint64> ZebUseClock::s_Base{1};

namespace {

// In a cache line of its own: it changes with every use.
struct alignas(64) Counter
{
    std::atomic<quint64> m_Uses{0};
};
Counter s_Counter;

#if defined(ZEBTDX_HAS_CYCLES) && defined(Q_OS_LINUX)

// Whether the processor has the instruction, and its counter keeps its rate in all states of power.
bool hasSteadyCounter()
{
    constexpr unsigned features = 0x80000001;
    constexpr unsigned rdtscp = 1U << 27;
    constexpr unsigned power = 0x80000007;
    constexpr unsigned invariant = 1U << 8;
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    if (__get_cpuid(features, &a, &b, &c, &d) == 0 || (d & rdtscp) == 0)
        return false;
    return __get_cpuid(power, &a, &b, &c, &d) != 0 && (d & invariant) != 0;
}

// Whether a load fence waits for every earlier instruction: on processors of Intel always, on those
// of AMD that say so.
bool hasWaitingFence()
{
    constexpr unsigned lfenceAlwaysSerializes = 1U << 2;
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    if (__get_cpuid(0, &a, &b, &c, &d) == 0)
        return false;
    if (b == signature_INTEL_ebx && c == signature_INTEL_ecx && d == signature_INTEL_edx)
        return true;
    constexpr unsigned features = 0x80000021;
    return b == signature_AMD_ebx && c == signature_AMD_ecx && d == signature_AMD_edx &&
           __get_cpuid(features, &a, &b, &c, &d) != 0 && (a & lfenceAlwaysSerializes) != 0;
}

// The kernel compares the counters of all cores, and leaves this clock when they differ.
bool isKernelsClock()
{
    const int file = ::open("/sys/devices/system/clocksource/clocksource0/current_clocksource",
                            O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    char name[8] = {};
    const ssize_t length = ::read(file, name, sizeof name);
    ::close(file);
    return length >= 3 && std::strncmp(name, "tsc\n", static_cast<std::size_t>(length)) == 0;
}

ZebUseClock::Form decide()
{
    if (!hasSteadyCounter() || !isKernelsClock())
        return ZebUseClock::Form::Counter;
    return hasWaitingFence() ? ZebUseClock::Form::Cycles : ZebUseClock::Form::WaitingCycles;
}

quint64 waitingCycles()
{
    unsigned processor = 0;
    return __rdtscp(&processor) + ZebUseClock::s_Base.load(std::memory_order_relaxed);
}

#else

ZebUseClock::Form decide()
{
    return ZebUseClock::Form::Counter;
}

quint64 waitingCycles()
{
    return 0;
}

#endif

// In the order of acquire and release: a use that has seen an earlier one gets a larger stamp
// anyway, since both change one word; but it must not be taken before earlier loads.
quint64 count()
{
    return s_Counter.m_Uses.fetch_add(1, std::memory_order_acq_rel) + 1;
}

} // namespace

quint64 ZebUseClock::nowSlowly()
{
    if (s_Form.load(std::memory_order_relaxed) == Form::Undecided)
        s_Form.store(decide(), std::memory_order_relaxed);
    switch (s_Form.load(std::memory_order_relaxed)) {
    case Form::Cycles:
        return now();
    case Form::WaitingCycles:
        return waitingCycles();
    default:
        return count();
    }
}

void ZebUseClock::keepAfter(quint64 stamp)
{
    if (s_Form.load(std::memory_order_relaxed) == Form::Counter) {
        quint64 uses = s_Counter.m_Uses.load(std::memory_order_relaxed);
        while (uses < stamp && !s_Counter.m_Uses.compare_exchange_weak(uses, stamp)) {
        }
        return;
    }
    const quint64 current = now();
    if (current <= stamp)
        s_Base.fetch_add(stamp - current + 1, std::memory_order_relaxed);
}

void ZebUseClock::setUsesCounter(bool usesCounter)
{
    const quint64 current = now();
    s_Form.store(usesCounter ? Form::Counter : decide(), std::memory_order_relaxed);
    keepAfter(current);
}
