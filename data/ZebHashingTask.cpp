#include "data/ZebHashingTask.h"

#include "data/ZebDataBlock.h"
#include "data/ZebHashingJob.h"
#include "hash/SkeinBatch.h"
#include "support/ZebMutexLocker.h"

#include <QScopedValueRollback>
#include <QThread>
#include <QThreadPool>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>
#include <vector>

namespace {

constexpr unsigned long s_FinishPollMs = 1;

// How many tasks have been started and have not reported their ends. Lowered with release and read
// with acquire order, so a thread that finds 0 sees what the tasks have done.
std::atomic<int> s_Unfinished{0};

// How many of them this thread works on.
thread_local int s_InHand = 0;

} // namespace

ZebHashingTask::ZebHashingTask(const QByteArray& bytes)
    : m_Bytes(bytes), m_Size(bytes.size()), m_HasContent(true), m_Promise(std::in_place)
{
    setAutoDelete(false);
}

ZebHashingTask::ZebHashingTask(std::unique_ptr<ZebDataBlock> block)
    : m_Block(std::move(block)), m_HasContent(m_Block != nullptr), m_Promise(std::in_place)
{
    setAutoDelete(false);
}

ZebHashingTask::~ZebHashingTask() = default;

ZebHashingTask::Started ZebHashingTask::start(QThreadPool* pool, const QByteArray& bytes)
{
    return startShared(pool, TaskPointer(new ZebHashingTask(bytes)));
}

ZebHashingTask::Started ZebHashingTask::start(QThreadPool* pool,
                                              std::unique_ptr<ZebDataBlock> block)
{
    return startShared(pool, TaskPointer(new ZebHashingTask(std::move(block))));
}

ZebHashingTask::Started ZebHashingTask::startShared(QThreadPool* pool, const TaskPointer& task)
{
    QFuture<ZebDataReference> future = ZebStoredCall::begin(task->m_Promise, pool, task.get());
    task->m_Pool = pool;
    task->m_HeldByPool = task;
    s_Unfinished.fetch_add(1, std::memory_order_relaxed);
    try {
        // A task that gets a thread at once is not listed for others to claim, and neither is a
        // null block, which has no digest.
        if (pool->tryStart(task.get()))
            return {task, future};
        if (task->m_HasContent)
            ZebHashingQueue::instance().add(task);
        pool->start(task.get(), 0);
    } catch (...) {
        // No memory: the pool does not have the task. Another thread may have claimed it from the
        // list, though, and then does its work.
        task->m_HeldByPool.reset();
        if (ZebHashingQueue::instance().take(task.get())) {
            s_Unfinished.fetch_sub(1, std::memory_order_release);
            throw;
        }
    }
    return {task, future};
}

void ZebHashingTask::wait(const TaskPointer& task, QFuture<ZebDataReference>& future)
{
    if (!ZebHashingQueue::instance().take(task.get())) {
        future.waitForFinished();
        return;
    }
    if (task->m_Pool->tryTake(task.get()))
        task->m_HeldByPool.reset();
    task->runAlone();
}

void ZebHashingTask::finishAll()
{
    for (;;) {
        TaskPointer task;
        if (ZebHashingQueue::instance().takeWaiting(1, 1, 1, &task) == 1)
            task->runAlone();
        else if (s_Unfinished.load(std::memory_order_acquire) <= s_InHand)
            return;
        else
            QThread::msleep(s_FinishPollMs);
    }
}

void ZebHashingTask::run()
{
    const TaskPointer self = std::move(m_HeldByPool);
    if (!ZebHashingQueue::instance().take(this))
        return;
    const ZebSkein::SkeinLaneForm& form = ZebSkein::SkeinLaneForm::best();
    TaskPointer tasks[ZebSkein::SkeinLaneSet::s_MostLanes];
    std::size_t others = 0;
    if (form.absorb != nullptr && m_HasContent) {
        const auto threads = static_cast<std::size_t>(std::max(1, m_Pool->maxThreadCount()));
        others = ZebHashingQueue::instance().takeWaiting(form.fewest - 1, form.lanes - 1, threads,
                                                         std::begin(tasks) + 1);
    }
    if (others == 0) {
        runAlone();
        return;
    }
    tasks[0] = self;
    runTogether(tasks, others + 1);
}

void ZebHashingTask::runAlone() noexcept
{
    const QScopedValueRollback<int> inHand(s_InHand, s_InHand + 1);
    work(nullptr);
    reportEnd();
}

void ZebHashingTask::runTogether(TaskPointer* tasks, std::size_t count) noexcept
{
    // In the order in which they were queued, which is that of the admissions, too.
    std::sort(tasks, tasks + count,
              [](const TaskPointer& a, const TaskPointer& b) { return a->m_Number < b->m_Number; });
    const QScopedValueRollback<int> inHand(s_InHand, s_InHand + static_cast<int>(count));
    unsigned char digests[ZebSkein::SkeinLaneSet::s_MostLanes][ZebSkein::SkeinBatch::s_DigestBytes];
    bool areDigested = false;
    try {
        std::vector<ZebSkein::SkeinBatch::Content> contents;
        contents.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            const QByteArray& bytes = tasks[i]->content();
            contents.push_back({reinterpret_cast<const unsigned char*>(bytes.constData()),
                                static_cast<std::uint64_t>(bytes.size())});
        }
        ZebSkein::SkeinBatch::digest(
            contents, [&digests](std::size_t index, const unsigned char* digest) {
                std::memcpy(digests[index], digest, ZebSkein::SkeinBatch::s_DigestBytes);
            });
        areDigested = true;
    } catch (const std::bad_alloc&) {
        // Each is digested alone below.
        Q_UNUSED(count)
    }
    for (std::size_t i = 0; i < count; ++i)
        tasks[i]->work(areDigested ? digests[i] : nullptr);
    // The last first: a thread that waits for the first then finds all of them done.
    for (std::size_t i = count; i-- > 0;)
        tasks[i]->reportEnd();
}

void ZebHashingTask::work(const unsigned char* digest) noexcept
{
    try {
        m_Result = admit(digest);
    } catch (...) {
        m_HasFailed = true;
    }
}

void ZebHashingTask::reportEnd() noexcept
{
    QFutureInterfaceBase state(*m_Promise);
    try {
        if (!m_HasFailed)
            m_Promise->reportResult(*m_Result);
    } catch (...) {
        // The result stays in m_Result.
        m_HasFailed = true;
    }
    if (!m_HasFailed) {
        dropContent();
        m_Result.reset();
    }
    m_Promise.reset();
    state.reportFinished();
    s_Unfinished.fetch_sub(1, std::memory_order_release);
}

bool ZebHashingTask::hasFailed() const
{
    return m_HasFailed;
}

bool ZebHashingTask::isUndone() const
{
    const ZebMutexLocker locker(&m_RetryMutex);
    return m_HasFailed && !m_Result;
}

ZebDataReference ZebHashingTask::retry()
{
    const ZebMutexLocker locker(&m_RetryMutex);
    if (!m_Result) {
        m_Result = admit(nullptr);
        dropContent();
    }
    return *m_Result;
}

ZebDataReference ZebHashingTask::admit(const unsigned char* digest)
{
    if (!m_HasContent)
        return {};
    const ZebSmartPointer<ZebDataHash> hash = ZebHashingJob::intern(digest, content());
    std::unique_ptr<ZebDataBlock> block = std::move(m_Block);
    if (block == nullptr) {
        block = ZebHashingJob::makeBlock(m_Bytes, m_Size, m_IsCompressed);
    } else {
        // Shares the bytes for another attempt: the store deletes the block if it cannot admit it.
        m_Bytes = ZebHashingJob::contentOf(*block);
        m_Size = block->size();
        m_IsCompressed = block->isCompressed();
    }
    return ZebHashingJob::admit(hash, std::move(block));
}

const QByteArray& ZebHashingTask::content() const
{
    return m_Block == nullptr ? m_Bytes : ZebHashingJob::contentOf(*m_Block);
}

void ZebHashingTask::dropContent()
{
    m_Bytes = QByteArray();
    m_Block.reset();
}
