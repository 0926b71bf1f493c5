#include "support/ZebForkWatch.h"

#include <QtGlobal>

#include <atomic>

#ifdef Q_OS_UNIX
#include <pthread.h>
#endif

namespace {

// Relaxed: the values of a process are written before it has threads, or by the controlling thread.
std::atomic<int> s_Generation{0};
std::atomic<bool> s_IsSetUp{false};
std::atomic<bool> s_IsOfParent{false};
// Constant once set.
std::atomic<void (*)()> s_CallInChild{nullptr};

#ifdef Q_OS_UNIX

void enterChild()
{
    s_Generation.fetch_add(1, std::memory_order_relaxed);
    if (s_IsSetUp.load(std::memory_order_relaxed))
        s_IsOfParent.store(true, std::memory_order_relaxed);
    if (void (*const function)() = s_CallInChild.load(std::memory_order_relaxed))
        function();
}

#endif

// Once in a process. A child inherits the handler.
void watchForks()
{
#ifdef Q_OS_UNIX
    static const int result = ::pthread_atfork(nullptr, nullptr, &enterChild);
    Q_UNUSED(result)
#endif
}

} // namespace

int ZebForkWatch::generation()
{
    watchForks();
    return s_Generation.load(std::memory_order_relaxed);
}

void ZebForkWatch::setStoreIsSetUp(bool isSetUp)
{
    watchForks();
    s_IsSetUp.store(isSetUp, std::memory_order_relaxed);
}

bool ZebForkWatch::isStoreOfParent()
{
    return s_IsOfParent.load(std::memory_order_relaxed);
}

void ZebForkWatch::callInChild(void (*function)())
{
    watchForks();
    s_CallInChild.store(function, std::memory_order_relaxed);
}
