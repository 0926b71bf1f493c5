#include "io/ZebDataBlockCompressionThread.h"

#include "data/ZebDataBlock.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "support/BlockFiles.h"
#include "support/MessageCapture.h"
#include "support/Pattern2Inside.h"
#include "support/RequestInside.h"
#include "support/StartedThread.h"
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

using Pattern2Inside::freeWorkers;
using Pattern2Inside::workersAreFree;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int s_DeadlineMs = 20000;

// Adds permits as the workers of other writers do.
void addPermits(int count)
{
    ZebDataBlockCompressionThread::AvailableThreads.release(count);
}

void takePermits(int count)
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
        m_Thread = std::make_unique<StartedThread>("TDX Compression");
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

    // Queues the block without taking a permit and without waking a worker.
    ZebDataBlockWriteRequest* enqueue(const std::string& name)
    {
        const QByteArray bytes = QByteArray::fromStdString(name);
        auto* const request = new ZebDataBlockWriteRequest(
            ZebHashManager::instance().getHash(bytes), new ZebDataBlock(bytes), true);
        const QMutexLocker locker(&m_Mutex);
        m_Queue.enqueue(request);
        return request;
    }

    void wakeOne() { m_Condition.wakeOne(); }

    // The thread of the started worker.
    ThreadWatch thread() const { return m_Thread->watch(); }

    // Waits until the worker waits for its wake-up.
    bool workerSleeps() const { return thread().waitsFor(m_Condition); }

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
    std::unique_ptr<StartedThread> m_Thread;
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
    EXPECT_EQ(RequestInside::payload(*request), qCompress("some text, some text, some text", 2));
    EXPECT_EQ(workshop.m_LastThread, &worker);
    EXPECT_TRUE(workshop.m_WasFree) << "the worker does not hold the queue's mutex";
}

TEST(ZebDataBlockCompressionThread, TakesRequestsInTheOrderOfTheirArrival)
{
    Workshop workshop;
    addPermits(3);
    for (const char* const name : {"a", "b", "c"})
        workshop.queue(name);
    workshop.addWorker().start();
    EXPECT_TRUE(waitUntil([&] {
        workshop.wakeOne();
        return workshop.done().size() == 3;
    }));
    EXPECT_THAT(workshop.done(), ElementsAre("a", "b", "c"));
    takePermits(3);
}

TEST(ZebDataBlockCompressionThread, TakesOneRequestForEachWakeUp)
{
    Workshop workshop;
    workshop.addWorker().start();
    ASSERT_TRUE(workersAreFree(1));
    addPermits(1);
    takePermits(2);
    workshop.enqueue("first");
    workshop.enqueue("second");
    EXPECT_TRUE(workshop.workerSleeps());
    EXPECT_TRUE(workshop.thread().standsStill()) << "it does not poll";
    EXPECT_THAT(workshop.done(), IsEmpty());
    workshop.wakeOne();
    EXPECT_TRUE(workshop.doneIs(1));
    EXPECT_TRUE(workshop.workerSleeps());
    EXPECT_THAT(workshop.done(), ElementsAre("first"));
    workshop.wakeOne();
    EXPECT_TRUE(workshop.doneIs(2));
    takePermits(1);
}

TEST(ZebDataBlockCompressionThread, WakingAWorkerWithNothingQueuedHasNoEffect)
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

TEST(ZebDataBlockCompressionThread, WorkersGiveAPermitEachWhileTheyWait)
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

TEST(ZebDataBlockCompressionThread, AWorkerGivesItsPermitWithTheQueueLocked)
{
    Workshop workshop;
    ZebDataBlockCompressionThread& worker = workshop.addWorker();
    {
        const QMutexLocker locker(&workshop.m_Mutex);
        worker.start();
        EXPECT_TRUE(workshop.thread().waitsFor(workshop.m_Mutex));
        EXPECT_EQ(freeWorkers(), 0);
    }
    EXPECT_TRUE(workersAreFree(1));
}

TEST(ZebDataBlockCompressionThread, APermitInUseWhenItsWorkerEndsIsReplacedByTheNext)
{
    Workshop ending;
    Workshop staying;
    ending.addWorker().start();
    ASSERT_TRUE(workersAreFree(1));
    // As a writer does that is about to queue a request.
    takePermits(1);
    ending.endWorkers();
    EXPECT_EQ(freeWorkers(), 0);
    // The next worker's first permit replaces the one in use.
    staying.addWorker().start();
    EXPECT_TRUE(staying.workerSleeps());
    EXPECT_EQ(freeWorkers(), 0);
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

TEST(ZebDataBlockCompressionThread, EndsWhileItWaitsAndDoesNotAffectOtherWorkers)
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

TEST(ZebDataBlockCompressionThread, AWriterThatEndsReturnsThePermitsOfItsQueuedRequests)
{
    const MessageCapture messages;
    ZebDataBlockManager::instance();
    Workshop workshop;
    workshop.addWorker().start();
    ASSERT_TRUE(workersAreFree(1));
    ZebDataBlockWriteRequest fence(0);
    {
        // It has no worker, so its request stays queued.
        ZebDataBlockWriteThread_Pattern2 writer("/nowhere", 10, 0, nullptr);
        Pattern2Inside::pushCompression(writer, &fence);
        EXPECT_EQ(freeWorkers(), 0);
        EXPECT_EQ(Pattern2Inside::queued(writer), 1);
    }
    EXPECT_EQ(freeWorkers(), 1);
}

TEST(ZebDataBlockCompressionThread, HasAQtClassOfItsOwn)
{
    EXPECT_STREQ(ZebDataBlockCompressionThread::staticMetaObject.className(),
                 "ZebDataBlockCompressionThread");
    EXPECT_EQ(ZebDataBlockCompressionThread::staticMetaObject.superClass(),
              &QThread::staticMetaObject);
}
