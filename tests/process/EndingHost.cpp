// A host that sets up a store in the directory of its second argument and then ends its process in
// the way that the first argument names. It exits with 0 if all is well; a crash, a fatal message
// or a hang shows in its parent.

#include "EndingHost.h"

#include "data/ZebHashingJob.h"
#include "data/ZebThreadPoolManager.h"
#include "hash/ZebHashManager.h"

#include <QCoreApplication>
#include <QSemaphore>
#include <QThread>
#include <QThreadPool>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>

namespace {

constexpr int s_JobCount = 20;

// Constructed before the store, and so destroyed after it.
KeptByHost s_BeforeStore;

// A host's singleton. It is constructed before the store, too.
class HostSingleton
{
public:
    static HostSingleton& instance()
    {
        static HostSingleton singleton;
        return singleton;
    }
    KeptByHost m_Kept;
};

// Constructed at first use, after the store.
KeptByHost& afterStore()
{
    static KeptByHost kept;
    return kept;
}

KeptByHost& leaked()
{
    static KeptByHost* const kept = new KeptByHost;
    return *kept;
}

KeptByHost* placeNamed(const std::string& place)
{
    const std::map<std::string, std::function<KeptByHost*()>> places = {
        {"before",
         [] {
             return &s_BeforeStore;
         }},
        {"after",
         [] {
             return &afterStore();
         }},
        {"singleton",
         [] {
             return &HostSingleton::instance().m_Kept;
         }},
        {"leaked",
         [] {
             return &leaked();
         }},
    };
    const auto found = places.find(place);
    return found == places.end() ? nullptr : found->second();
}

ZebDataReference added(int number)
{
    return store().addBlock(blob(number), ZebModifyAccessor::Cached, true);
}

QThreadPool& pool(ZebThreadPoolManager::ZebThreadPoolType type)
{
    return *ZebThreadPoolManager::instance().threadPool(type);
}

// Occupies every thread of the hashing pool until the process exits. So what is queued from here on
// is pending then.
void holdHashingPool()
{
    static auto* const gate = new QSemaphore;
    QThreadPool& hashing = pool(ZebThreadPoolManager::HashingThreadPool);
    const int count = hashing.maxThreadCount();
    for (int i = 0; i < count; ++i)
        hashing.start([] { gate->acquire(); });
    static const int held = count;
    std::atexit([] { gate->release(held); });
}

void keepReference(KeptByHost& kept)
{
    kept.m_Reference = added(0);
    for (int i = 0; i < s_JobCount; ++i)
        kept.m_References.push_back(added(i));
}

void keepResults(KeptByHost& kept)
{
    for (int i = 0; i < s_JobCount; ++i) {
        ZebDataReference reference = added(i);
        kept.m_Results.addResult(QString::number(i), reference);
    }
}

void keepAccessor(KeptByHost& kept)
{
    kept.m_Accessor.emplace(added(0).constAccessor());
}

void keepPending(KeptByHost& kept)
{
    holdHashingPool();
    for (int i = 0; i < s_JobCount; ++i)
        kept.m_References.push_back(store().addBlock(blob(i)));
    ZebDataReference pending = store().addBlock(blob(s_JobCount));
    kept.m_Results.addResult(QStringLiteral("pending"), pending);
}

void keepJob(KeptByHost& kept)
{
    holdHashingPool();
    kept.m_Job = ZebSmartPointer<ZebBlockFuture>(new ZebHashingJob(blob(0)));
}

// Hashes alone, without a store: the manager is constructed while the process exits.
void keepHashOnly(KeptByHost& kept)
{
    kept.m_Reference = ZebDataReference(ZebHashManager::instance().getHash(blob(0)));
}

// Tasks of all three pools that add blocks while the process exits.
int addInTasks()
{
    static auto* const gate = new QSemaphore;
    int number = 0;
    for (const auto type :
         {ZebThreadPoolManager::GlobalThreadPool, ZebThreadPoolManager::PrivateThreadPool}) {
        pool(type).start([number] {
            gate->acquire();
            QThread::msleep(20);
            const ZebDataReference immediate = added(number);
            const ZebDataReference pending = store().addBlock(blob(number + 1));
            pending.resolveWork();
        });
        number += 2;
    }
    std::atexit([] { gate->release(2); });
    return 0;
}

// Calls exit() in a task of a pool, while another task still uses the store.
int exitInTask(ZebThreadPoolManager::ZebThreadPoolType type)
{
    QThreadPool& own = pool(type);
    own.setMaxThreadCount(2);
    static auto* const exiting = new QSemaphore;
    own.start([] {
        exiting->acquire();
        QThread::msleep(50);
        added(1);
    });
    own.start([] {
        added(0);
        std::atexit([] { exiting->release(); });
        std::exit(0);
    });
    for (;;)
        QThread::msleep(1000);
}

// Calls exit() in a task of another pool, with additions pending for the only hashing thread.
int exitWithPendingJobs()
{
    pool(ZebThreadPoolManager::HashingThreadPool).setMaxThreadCount(1);
    pool(ZebThreadPoolManager::GlobalThreadPool).start([] {
        static std::vector<ZebDataReference> pending;
        for (int i = 0; i < s_JobCount; ++i)
            pending.push_back(store().addBlock(blob(i).repeated(20)));
        std::exit(0);
    });
    for (;;)
        QThread::msleep(1000);
}

// Threads of the host go on copying and dropping references until the process is gone.
int releaseInThreads()
{
    static auto* const shared = new ZebDataReference(added(0));
    static auto* const running = new QSemaphore;
    constexpr int threadCount = 2;
    for (int i = 0; i < threadCount; ++i) {
        std::thread([i] {
            running->release();
            for (;;) {
                const ZebDataReference copy(*shared);
                const ZebDataReference own(ZebHashManager::instance().getHash(blob(i + 10)));
            }
        }).detach();
    }
    running->acquire(threadCount);
    return 0;
}

// The host has cleaned up itself, and still holds what it may hold then.
int cleanUpFirst()
{
    keepReference(s_BeforeStore);
    keepResults(afterStore());
    store().cleanUp();
    return 0;
}

int run(const std::string& mode)
{
    const std::map<std::string, std::function<int()>> modes = {
        {"addInTasks", &addInTasks},
        {"exitInTask",
         [] {
             return exitInTask(ZebThreadPoolManager::PrivateThreadPool);
         }},
        {"exitInGlobalTask",
         [] {
             return exitInTask(ZebThreadPoolManager::GlobalThreadPool);
         }},
        {"exitInHashingTask",
         [] {
             return exitInTask(ZebThreadPoolManager::HashingThreadPool);
         }},
        {"exitWithPendingJobs", &exitWithPendingJobs},
        {"releaseInThreads", &releaseInThreads},
        {"cleanUpFirst", &cleanUpFirst},
        {"closeInThreads", &closeInThreads},
        {"closeInLateDestructors", &closeInLateDestructors},
        {"forkWhileLockingAnd_exit",
         [] {
             return forkWhileLocking(false);
         }},
        {"forkWhileLockingAndExit",
         [] {
             return forkWhileLocking(true);
         }},
        {"forkAnd_exit",
         [] {
             return forkAndEnd(false);
         }},
        {"forkAndExit",
         [] {
             return forkAndEnd(true);
         }},
        {"forkAndCleanUp",
         [] {
             std::atexit([] { store().cleanUp(); });
             return forkAndEnd(true);
         }},
        {"forkAfterCleanUp", &forkAfterCleanUp},
        {"forkManyTimesAnd_exit",
         [] {
             return forkManyTimes(false);
         }},
        {"forkManyTimesAndExit",
         [] {
             return forkManyTimes(true);
         }},
    };
    const auto found = modes.find(mode);
    if (found != modes.end())
        return found->second();
    const std::map<std::string, void (*)(KeptByHost&)> kinds = {
        {"reference", &keepReference}, {"results", &keepResults}, {"accessor", &keepAccessor},
        {"pending", &keepPending},     {"job", &keepJob},         {"hash", &keepHashOnly},
    };
    const std::size_t slash = mode.find('/');
    const auto kind = kinds.find(mode.substr(0, slash));
    KeptByHost* const kept =
        slash == std::string::npos ? nullptr : placeNamed(mode.substr(slash + 1));
    if (kind == kinds.end() || kept == nullptr) {
        std::fprintf(stderr, "unknown mode %s\n", mode.c_str());
        return 2;
    }
    kind->second(*kept);
    return 0;
}

void printFatalMessagesOnly(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    Q_UNUSED(context)
    if (type != QtDebugMsg)
        std::fprintf(stderr, "%s\n", text.toLocal8Bit().constData());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "two arguments: mode, directory\n");
        return 2;
    }
    qInstallMessageHandler(&printFatalMessagesOnly);
    const QCoreApplication application(argc, argv);
    const std::string mode = argv[1];
    HostSingleton::instance();
    if (mode.rfind("hash/", 0) != 0)
        store().setup({QString::fromLocal8Bit(argv[2])}, 100000000);
    // Not a return: the end of the application would wait for the global pool.
    std::exit(run(mode));
}
