#include "io/ZebDataBlockCompressionThread.h"

#include "data/ZebDataBlock.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "support/BlockFiles.h"
#include "support/MessageCapture.h"
#include "support/Pattern2Inside.h"
#include "support/PrivateAccess.h"
#include "support/WaitUntil.h"

#include <QMutexLocker>
#include <QThread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <memory>
#include <string>
#include <vector>

ZEBTDX_ACCESS(RequestPayloadTag, ZebDataBlockWriteRequest, QByteArray ZebDataBlockWriteRequest::*,
              m_CompressedData)
ZEBTDX_ACCESS(PushCompressionTag, ZebDataBlockWriteThread_Pattern2,
              void (ZebDataBlockWriteThread_Pattern2::*)(ZebDataBlockWriteRequest*),
              pushCompression)

using Pattern2Inside::freeWorkers;
using Pattern2Inside::workersAreFree;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// How long something that must not happen is waited for.
constexpr int s_HeldOffMs = 100;

constexpr int s_DeadlineMs = 20000;

// Permits of other writers' workers, which a writer of the test uses up.
void addForeignPermits(int count)
{
    ZebDataBlockCompressionThread::AvailableThreads.release(count);
}

// Takes them back at the end of a test.
void takeForeignPermits(int count)
{
    ASSERT_TRUE(ZebDataBlockCompressionThread::AvailableThreads.tryAcquire(count, s_DeadlineMs));
}

// A queue with its workers, and no writer.
class Workshop
{
public:
    Workshop() { ZebDataBlockManager::instance(); }
    ~Workshop()
    {
        endWorkers();
        qDeleteAll(m_Queue);
        qDeleteAll(m_Done);
    }
    Workshop(const Workshop&) = delete;
    Workshop& operator=(const Workshop&) = delete;

    ZebDataBlockCompressionThread& addWorker()
    {
        m_Workers.push_back(std::make_unique<ZebDataBlockCompressionThread>(&m_Condition, &m_Mutex,
                                                                            &m_Queue, nullptr));
        QObject::connect(
            m_Workers.back().get(), &ZebDataBlockCompressionThread::compressed, &m_Receiver,
            [this](ZebDataBlockWriteRequest* request) {
                m_LastThread = QThread::currentThread();
                m_WasFree = m_Mutex.tryLock();
                if (m_WasFree)
                    m_Mutex.unlock();
                const QMutexLocker locker(&m_DoneMutex);
                m_Done.append(request);
            },
            Qt::DirectConnection);
        return *m_Workers.back();
    }

    void endWorkers() { m_Workers.clear(); }

    // Queues the block of this name as a writer does.
    ZebDataBlockWriteRequest* queue(const std::string& name)
    {
        EXPECT_TRUE(ZebDataBlockCompressionThread::AvailableThreads.tryAcquire(1, s_DeadlineMs));
        ZebDataBlockWriteRequest* const request = enqueue(name);
        wakeOne();
        return request;
    }

    // The same with the permit in hand, and without a wake.
    ZebDataBlockWriteRequest* enqueue(const std::string& name)
    {
        const QByteArray content = QByteArray::fromStdString(name);
        auto* const request = new ZebDataBlockWriteRequest(
            ZebHashManager::instance().getHash(content), new ZebDataBlock(content), true);
        const QMutexLocker locker(&m_Mutex);
        m_Queue.enqueue(request);
        return request;
    }

    void wakeOne() { m_Condition.wakeOne(); }

    bool doneIs(int count)
    {
        return waitUntil([this, count] { return done().size() == size_t(count); });
    }

    std::vector<std::string> done()
    {
        const QMutexLocker locker(&m_DoneMutex);
        std::vector<std::string> names;
        for (ZebDataBlockWriteRequest* const request : qAsConst(m_Done)) {
            const ZebDataBlock* const block = request->block();
            names.emplace_back(reinterpret_cast<const char*>(block->constData()),
                               size_t(block->size()));
        }
        return names;
    }

    MessageCapture m_Messages;
    std::atomic<QThread*> m_LastThread{nullptr};
    std::atomic<bool> m_WasFree{false};
    QMutex m_Mutex;

private:
    QWaitCondition m_Condition;
    RequestQueue m_Queue;
    QObject m_Receiver;
    QMutex m_DoneMutex;
    RequestQueue m_Done;
    std::deque<std::unique_ptr<ZebDataBlockCompressionThread>> m_Workers;
};

} // namespace

// The work

TEST(ZebDataBlockCompressionThread, MakesThePayloadOnItsOwnThreadAndHandsTheRequestBack)
{
    Workshop workshop;
    ZebDataBlockCompressionThread& worker = workshop.addWorker();
    EXPECT_EQ(worker.objectName(), "TDX Compression");
    worker.start();
    ASSERT_TRUE(workersAreFree(1));
    ZebDataBlockWriteRequest* const request = workshop.queue("some text, some text, some text");
    ASSERT_TRUE(workshop.doneIs(1));
    EXPECT_EQ(request->*privateMember(RequestPayloadTag()),
              qCompress("some text, some text, some text", 2));
    EXPECT_EQ(workshop.m_LastThread, &worker);
    EXPECT_TRUE(workshop.m_WasFree) << "the queue's mutex is not held meanwhile";
}

TEST(ZebDataBlockCompressionThread, TakesRequestsInTheOrderOfTheirArrival)
{
    Workshop workshop;
    addForeignPermits(3);
    for (const char* const name : {"a", "b", "c"})
        workshop.queue(name);
    workshop.addWorker().start();
    EXPECT_TRUE(waitUntil([&] {
        workshop.wakeOne();
        return workshop.done().size() == 3;
    }));
    EXPECT_THAT(workshop.done(), ElementsAre("a", "b", "c"));
    takeForeignPermits(3);
}

TEST(ZebDataBlockCompressionThread, LooksAtTheQueueOnlyAfterAWake)
{
    Workshop workshop;
    workshop.addWorker().start();
    ASSERT_TRUE(workersAreFree(1));
    addForeignPermits(1);
    takeForeignPermits(2);
    workshop.enqueue("first");
    workshop.enqueue("second");
    EXPECT_FALSE(waitUntil([&] { return !workshop.done().empty(); }, s_HeldOffMs));
    workshop.wakeOne();
    EXPECT_TRUE(workshop.doneIs(1));
    EXPECT_FALSE(waitUntil([&] { return workshop.done().size() > 1; }, s_HeldOffMs))
        << "one wake, one request";
    workshop.wakeOne();
    EXPECT_TRUE(workshop.doneIs(2));
    takeForeignPermits(1);
}

TEST(ZebDataBlockCompressionThread, AWakeWithNothingQueuedChangesNothing)
{
    Workshop workshop;
    workshop.addWorker().start();
    ASSERT_TRUE(workersAreFree(1));
    for (int i = 0; i < 100; ++i)
        workshop.wakeOne();
    workshop.queue("work");
    EXPECT_TRUE(workshop.doneIs(1));
    EXPECT_TRUE(workersAreFree(1));
}

// The permits

TEST(ZebDataBlockCompressionThread, PermitsAreThereOnceTheWorkersWaitAndGoWithThem)
{
    EXPECT_EQ(freeWorkers(), 0);
    Workshop workshop;
    ZebDataBlockCompressionThread& first = workshop.addWorker();
    ZebDataBlockCompressionThread& second = workshop.addWorker();
    EXPECT_EQ(freeWorkers(), 0) << "none has started";
    first.start();
    second.start();
    EXPECT_TRUE(workersAreFree(2));
    workshop.endWorkers();
    EXPECT_EQ(freeWorkers(), 0);
}

TEST(ZebDataBlockCompressionThread, AWorkerThatNeverStartedEndsWithoutAPermit)
{
    Workshop workshop;
    workshop.addWorker();
    workshop.endWorkers();
    EXPECT_EQ(freeWorkers(), 0);
}

TEST(ZebDataBlockCompressionThread, ThePermitIsGivenWithTheQueueHeld)
{
    Workshop workshop;
    ZebDataBlockCompressionThread& worker = workshop.addWorker();
    {
        const QMutexLocker locker(&workshop.m_Mutex);
        worker.start();
        EXPECT_FALSE(waitUntil([] { return freeWorkers() > 0; }, s_HeldOffMs));
    }
    EXPECT_TRUE(workersAreFree(1));
}

TEST(ZebDataBlockCompressionThread, APermitThatIsTakenWhenItsWorkerEndsIsOwed)
{
    Workshop ending;
    Workshop staying;
    ending.addWorker().start();
    ASSERT_TRUE(workersAreFree(1));
    // A writer has it, and is about to queue a request.
    takeForeignPermits(1);
    ending.endWorkers();
    EXPECT_EQ(freeWorkers(), 0);
    // The next one to be given settles that.
    staying.addWorker().start();
    EXPECT_FALSE(waitUntil([] { return freeWorkers() > 0; }, s_HeldOffMs));
    staying.enqueue("the request of that writer");
    EXPECT_TRUE(waitUntil([&] {
        staying.wakeOne();
        return staying.done().size() == 1;
    }));
    EXPECT_TRUE(workersAreFree(1));
    staying.endWorkers();
    EXPECT_EQ(freeWorkers(), 0);
}

// The end

TEST(ZebDataBlockCompressionThread, EndsWhileItWaitsAndLeavesItsSiblings)
{
    Workshop workshop;
    auto ending = std::make_unique<Workshop>();
    ending->addWorker().start();
    workshop.addWorker().start();
    ASSERT_TRUE(workersAreFree(2));
    ending.reset();
    EXPECT_EQ(freeWorkers(), 1);
    workshop.queue("still at work");
    EXPECT_TRUE(workshop.doneIs(1));
    EXPECT_TRUE(workersAreFree(1));
}

TEST(ZebDataBlockCompressionThread, AWriterThatEndsGivesThePermitsOfItsLeftoversBack)
{
    const MessageCapture messages;
    ZebDataBlockManager::instance();
    Workshop workshop;
    workshop.addWorker().start();
    ASSERT_TRUE(workersAreFree(1));
    ZebDataBlockWriteRequest fence(0);
    {
        // It has no worker of its own, so what it queues stays.
        ZebDataBlockWriteThread_Pattern2 writer("/nowhere", 10, 0, nullptr);
        (writer.*privateMember(PushCompressionTag()))(&fence);
        EXPECT_EQ(freeWorkers(), 0);
        EXPECT_EQ(Pattern2Inside::queued(writer), 1);
    }
    EXPECT_EQ(freeWorkers(), 1);
}

TEST(ZebDataBlockCompressionThread, IsAKindOfItsOwnForQt)
{
    EXPECT_STREQ(ZebDataBlockCompressionThread::staticMetaObject.className(),
                 "ZebDataBlockCompressionThread");
    EXPECT_EQ(ZebDataBlockCompressionThread::staticMetaObject.superClass(),
              &QThread::staticMetaObject);
}
