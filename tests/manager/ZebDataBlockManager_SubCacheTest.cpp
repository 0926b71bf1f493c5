// How the whole store moves to another sub-cache while it runs.

#include "manager/ZebDataBlockManager.h"

#include "support/BlockFiles.h"
#include "support/BlockedThread.h"
#include "support/FakeMemory.h"
#include "support/Fatal.h"
#include "support/HeldWriter.h"
#include "support/Manager.h"
#include "support/RecordedSleeps.h"
#include "support/SequencePoints.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"
#include "support/WaitUntil.h"
#include "support/ZebDataDeleteLocker.h"
#include "support/ZebTdxLog.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

namespace {

constexpr int s_Block = 1000;
constexpr int s_Roots = 3;

const char* const s_NotInitialized = "Data Block Manager Not Initialized. Aborting";

TemporaryStore::Options withRoots(int roots)
{
    TemporaryStore::Options options;
    options.m_Roots = roots;
    options.m_Buckets = 1;
    return options;
}

class ZebDataBlockManagerSubCache : public testing::Test
{
protected:
    ZebDataBlockManagerSubCache() : m_Store(withRoots(s_Roots)) {}
    // The log would keep a file of the store open.
    ~ZebDataBlockManagerSubCache() override { ZebTdxLog::instance().setSubCache(QString()); }

    QString below(int root, const QString& name) const
    {
        return m_Store.roots().at(root) + '/' + name;
    }

    FakeMemory m_Memory;
    TemporaryStore m_Store;
};

ZebDataReference add(quint32 seed)
{
    return manager().addBlock(testBytes(s_Block, seed), ZebModifyAccessor::Cached, true);
}

// The names that the manager and all its threads have, each once.
QStringList namesInUse()
{
    QStringList names(manager().subCache());
    for (const ZebDataBlockReadThread* const reader : StoreInside::readers())
        names.append(reader->subCache());
    for (const ZebDataBlockWriteThread* const writer : StoreInside::writers())
        names.append(writer->subCache());
    for (const ZebGarbageCollectorThread* const collector : StoreInside::collectors())
        names.append(collector->subCache());
    names.removeDuplicates();
    return names;
}

// What the action prints to standard output.
template <typename Action>
std::string printedBy(Action action)
{
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

// Switches the garbage collection on for the length of a scope, as the store sees it.
class Collecting
{
public:
    Collecting() { StoreInside::collecting() = true; }
    ~Collecting() { StoreInside::collecting() = false; }
    Collecting(const Collecting&) = delete;
    Collecting& operator=(const Collecting&) = delete;
};

QByteArray logBelow(const QString& directory)
{
    return BlockFiles::read(directory + "/TdxLog.txt");
}

void writeLog(const char* text)
{
    ZebTdxLog::instance().log(ZebTdxLog::Info, "file", 1, QString::fromLatin1(text));
}

} // namespace

// setSubCache

TEST_F(ZebDataBlockManagerSubCache, IsEmptyAfterSetupAndThenWhatWasSet)
{
    EXPECT_EQ(manager().subCache(), "");
    manager().setSubCache("Test1");
    EXPECT_EQ(manager().subCache(), "Test1");
    manager().setSubCache(QString());
    EXPECT_EQ(manager().subCache(), "");
}

TEST_F(ZebDataBlockManagerSubCache, EveryThreadOfEveryRootFollows)
{
    EXPECT_EQ(namesInUse(), QStringList(""));
    manager().setSubCache("Test1");
    EXPECT_EQ(StoreInside::readers().size(), s_Roots);
    EXPECT_EQ(StoreInside::writers().size(), s_Roots);
    EXPECT_EQ(namesInUse(), QStringList("Test1"));
    manager().setSubCache("Test2");
    EXPECT_EQ(namesInUse(), QStringList("Test2"));
}

TEST_F(ZebDataBlockManagerSubCache, EachRepeatIsPrintedOnStandardOutputAndChangesNothing)
{
    EXPECT_EQ(printedBy([] { manager().setSubCache("Test1"); }), "");
    const QList<MessageCapture::Message> before = m_Store.messages().messages();
    EXPECT_EQ(printedBy([] {
                  manager().setSubCache("Test1");
                  manager().setSubCache("Test1");
              }),
              "Subcache Set to Test1 twice\nSubcache Set to Test1 twice\n");
    EXPECT_EQ(namesInUse(), QStringList("Test1"));
    EXPECT_EQ(m_Store.messages().messages().size(), before.size()) << "no debug line";
}

TEST_F(ZebDataBlockManagerSubCache, TheEmptyNameRightAfterSetupCountsAsARepeat)
{
    EXPECT_EQ(printedBy([] { manager().setSubCache(""); }), "Subcache Set to  twice\n");
    EXPECT_EQ(printedBy([] { manager().setSubCache(QString()); }), "Subcache Set to  twice\n");
    EXPECT_EQ(namesInUse(), QStringList(""));
}

TEST_F(ZebDataBlockManagerSubCache, ARepeatWaitsForNoThread)
{
    const HeldWriter held;
    // With the writer held, a flush would never return.
    EXPECT_EQ(printedBy([] { manager().setSubCache(""); }), "Subcache Set to  twice\n");
}

TEST(ZebDataBlockManagerSubCacheOfNoStore, ARepeatNeedsNoStore)
{
    const MessageCapture messages;
    EXPECT_EQ(printedBy([] { manager().setSubCache(""); }), "Subcache Set to  twice\n");
}

TEST(ZebDataBlockManagerSubCacheOfNoStore, ANewNameNeedsTheStore)
{
    EXPECT_FATAL(manager().setSubCache("Test1"), s_NotInitialized);
}

TEST_F(ZebDataBlockManagerSubCache, NothingHappensDuringCollection)
{
    manager().setSubCache("Test1");
    const Collecting collecting;
    const int before = m_Store.messages().messages().size();
    // The repeat is silent as well: the collection is checked first.
    EXPECT_EQ(printedBy([] {
                  manager().setSubCache("Test2");
                  manager().setSubCache("Test1");
              }),
              "");
    EXPECT_EQ(namesInUse(), QStringList("Test1"));
    EXPECT_FALSE(manager().subCacheExists("Test2"));
    EXPECT_EQ(m_Store.messages().messages().size(), before);
}

TEST_F(ZebDataBlockManagerSubCache, ACollectionThatBeginsDuringTheFlushKeepsTheName)
{
    manager().setSubCache("Test1");
    {
        // It sleeps between two looks at the queues.
        const RecordedSleeps sleeps([] { manager().startGarbageCollection(); });
        manager().setSubCache("Test2");
    }
    EXPECT_TRUE(manager().garbageCollecting());
    EXPECT_EQ(namesInUse(), QStringList("Test1"));
    EXPECT_FALSE(manager().subCacheExists("Test2")) << "the log stays, too";
    manager().stopGarbageCollection();
}

TEST(ZebDataBlockManagerSubCacheOfNoStore, TheCollectionIsCheckedBeforeTheStore)
{
    const MessageCapture messages;
    const Collecting collecting;
    manager().setSubCache("Test1");
    EXPECT_EQ(manager().subCache(), "");
}

TEST_F(ZebDataBlockManagerSubCache, CleanUpEmptiesTheName)
{
    manager().setSubCache("Test1");
    m_Store.cleanUp();
    EXPECT_EQ(manager().subCache(), "");
    m_Store.setupAgain();
    EXPECT_EQ(namesInUse(), QStringList("")) << "new threads start with no name";
}

// Queued work

TEST_F(ZebDataBlockManagerSubCache, QueuedWritesEndUnderTheOldName)
{
    manager().setSubCache("Test1");
    const ZebDataReference reference = add(1);
    manager().setSubCache("Test2");
    EXPECT_TRUE(QFile::exists(manager().getBlockDestination("Test1", reference.hash())));
    EXPECT_FALSE(QFile::exists(manager().getBlockDestination("Test2", reference.hash())));
}

TEST_F(ZebDataBlockManagerSubCache, WaitsForTheThreadsWithoutTheDeleteLock)
{
    HeldWriter held;
    SequencePoints points;
    BlockedThread call([&points] {
        // It sleeps between two looks at the queue.
        const RecordedSleeps sleeps([&points] {
            points.reached("waiting");
            QThread::usleep(100);
        });
        manager().setSubCache("Test1");
    });
    EXPECT_TRUE(points.wait("waiting", 2));
    StoreInside::deleteLock().lock();
    EXPECT_EQ(namesInUse(), QStringList(""));
    StoreInside::deleteLock().unlock();
    EXPECT_FALSE(call.hasEnded());
    held.release();
    EXPECT_TRUE(call.ends());
    EXPECT_EQ(namesInUse(), QStringList("Test1"));
}

TEST_F(ZebDataBlockManagerSubCache, UnderTheDeleteLockAllThreadsHaveOneName)
{
    std::atomic<bool> end{false};
    std::atomic<int> looks{0};
    std::atomic<int> mixed{0};
    std::thread looker([&] {
        while (!end) {
            const ZebDataDeleteLocker locker;
            mixed += namesInUse().size() == 1 ? 0 : 1;
            ++looks;
        }
    });
    for (int round = 0; round < 200; ++round)
        manager().setSubCache(QString::number(round));
    EXPECT_TRUE(waitUntil([&] { return looks > 100; }));
    end = true;
    looker.join();
    EXPECT_EQ(mixed, 0);
}

// Where blocks are found

TEST_F(ZebDataBlockManagerSubCache, BlocksOfAnotherSubCacheCannotBeLoadedUntilItIsSetBack)
{
    manager().setSubCache("Test1");
    const ZebDataReference reference = add(1);
    manager().flush(true, ZebDataBlockManager::AllThreads);
    manager().freeAllBlocks();
    manager().setSubCache("Test2");
    EXPECT_TRUE(reference.constAccessor().isNull());
    EXPECT_TRUE(QFile::exists(manager().getBlockDestination("Test1", reference.hash())))
        << "no file moves";
    manager().setSubCache("Test1");
    EXPECT_TRUE(holdsTestBytes(reference, s_Block, 1));
}

TEST_F(ZebDataBlockManagerSubCache, ExistsOnlyWithRootsAndUnderTheFirstOne)
{
    EXPECT_FALSE(manager().subCacheExists("Test1"));
    ASSERT_TRUE(QDir().mkpath(below(1, "Test1")));
    EXPECT_FALSE(manager().subCacheExists("Test1")) << "another root does not count";
    ASSERT_TRUE(QDir().mkpath(below(0, "Test1")));
    EXPECT_TRUE(manager().subCacheExists("Test1"));
    EXPECT_TRUE(manager().subCacheExists(QString())) << "the root itself";
    EXPECT_FALSE(manager().subCacheExists("Test2"));
    m_Store.cleanUp();
    EXPECT_FALSE(manager().subCacheExists("Test1"));
    EXPECT_FALSE(manager().subCacheExists(QString()));
}

TEST_F(ZebDataBlockManagerSubCache, TheQueryWhetherOneExistsTakesNoLock)
{
    EXPECT_FALSE(waitsForLock(StoreInside::deleteLock(),
                              [] { EXPECT_FALSE(manager().subCacheExists("Test1")); }));
}

// The log

TEST_F(ZebDataBlockManagerSubCache, TheLogFollowsUnderTheFirstRootOnly)
{
    manager().setSubCache("Test1");
    writeLog("first");
    manager().setSubCache("Test2");
    writeLog("second");
    manager().setSubCache(QString());
    writeLog("third");
    EXPECT_TRUE(logBelow(below(0, "Test1")).contains("first"));
    EXPECT_FALSE(logBelow(below(0, "Test1")).contains("second"));
    EXPECT_TRUE(logBelow(below(0, "Test2")).contains("second"));
    EXPECT_TRUE(logBelow(m_Store.roots().first()).contains("third"));
    EXPECT_FALSE(QFile::exists(below(1, "Test1")));
    EXPECT_TRUE(manager().subCacheExists("Test1")) << "the log has made it";
}

TEST_F(ZebDataBlockManagerSubCache, ALogThatCannotFollowDoesNotStopTheStore)
{
    BlockFiles::write(below(0, "Test1"), "in the way");
    manager().setSubCache("Test1");
    EXPECT_TRUE(m_Store.messages().contains(
        "[ !! ] Subcache Directory does not exist and cannot be created for logging"));
    EXPECT_EQ(namesInUse(), QStringList("Test1"));
    // The writer of the first root could not write there.
    ASSERT_TRUE(QFile::remove(below(0, "Test1")));
}

TEST(ZebDataBlockManagerSubCacheOfNoStore, WithoutRootsTheLogGoesBelowTheEmptyRoot)
{
    const QTemporaryDir directory;
    const TemporaryStore store(withRoots(0));
    // Below the empty root a name is an absolute path.
    manager().setSubCache(directory.path().mid(1));
    EXPECT_EQ(manager().subCache(), directory.path().mid(1));
    EXPECT_TRUE(QFile::exists(directory.path() + "/TdxLog.txt"));
    EXPECT_FALSE(manager().subCacheExists(directory.path().mid(1)))
        << "there is no root to look at";
    ZebTdxLog::instance().setSubCache(QString());
}
