#include "data/ZebHashingTask.h"

#include "data/ZebDataBlock.h"
#include "data/ZebHashingJob.h"
#include "hash/SkeinBatch.h"

#include <QScopedValueRollback>
#include <QThreadPool>

#include <iterator>
#include <new>
#include <utility>
#include <vector>

namespace {

// Whether this thread waits for a task. If it runs a task then, it is the one it waits for.
thread_local bool s_IsWaiting = false;

} // namespace

ZebHashingTask::ZebHashingTask(const QByteArray& bytes)
    : m_Bytes(bytes), m_IsBlock(false), m_Promise(std::in_place)
{
    setAutoDelete(false);
}

ZebHashingTask::ZebHashingTask(ZebDataBlock* block)
    : m_Block(block), m_IsBlock(true), m_Promise(std::in_place)
{
    setAutoDelete(false);
}

ZebHashingTask::~ZebHashingTask() = default;

QFuture<ZebDataReference> ZebHashingTask::start(QThreadPool* pool, const QByteArray& bytes)
{
    return startShared(pool, TaskPointer(new ZebHashingTask(bytes)));
}

QFuture<ZebDataReference> ZebHashingTask::start(QThreadPool* pool, ZebDataBlock* block)
{
    return startShared(pool, TaskPointer(new ZebHashingTask(block)));
}

QFuture<ZebDataReference> ZebHashingTask::startShared(QThreadPool* pool, const TaskPointer& task)
{
    QFuture<ZebDataReference> future = ZebStoredCall::begin(task->m_Promise, pool, task.get());
    task->m_HeldByPool = task;
    // A task that gets a thread at once is not listed for others to claim, and neither is a null
    // block, which has no digest.
    if (pool->tryStart(task.get()))
        return future;
    if (task->hasContent())
        ZebHashingQueue::instance().add(task);
    pool->start(task.get(), 0);
    return future;
}

void ZebHashingTask::wait(QFuture<ZebDataReference>& future)
{
    const QScopedValueRollback<bool> waiting(s_IsWaiting, true);
    future.waitForFinished();
}

void ZebHashingTask::run()
{
    const TaskPointer self = std::move(m_HeldByPool);
    if (!ZebHashingQueue::instance().take(this))
        return;
    const ZebSkein::SkeinLaneForm& form = ZebSkein::SkeinLaneForm::best();
    TaskPointer tasks[ZebSkein::SkeinLaneSet::s_MostLanes];
    std::size_t others = 0;
    if (!s_IsWaiting && form.absorb != nullptr && hasContent()) {
        others = ZebHashingQueue::instance().takeWaiting(form.fewest - 1, form.lanes - 1,
                                                         std::begin(tasks) + 1);
    }
    if (others == 0) {
        finish(nullptr);
        return;
    }
    tasks[0] = self;
    runTogether(tasks, others + 1);
}

void ZebHashingTask::runTogether(const TaskPointer* tasks, std::size_t count)
{
    try {
        std::vector<ZebSkein::SkeinBatch::Content> contents;
        contents.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            const QByteArray& bytes = tasks[i]->content();
            contents.push_back({reinterpret_cast<const unsigned char*>(bytes.constData()),
                                static_cast<std::uint64_t>(bytes.size())});
        }
        ZebSkein::SkeinBatch::digest(contents,
                                     [tasks](std::size_t index, const unsigned char* digest) {
                                         tasks[index]->finish(digest);
                                     });
    } catch (const std::bad_alloc&) {
        // Each remaining task is tried alone, so that its own future reports the failure.
        for (std::size_t i = 0; i < count; ++i) {
            if (tasks[i]->m_Promise)
                tasks[i]->finish(nullptr);
        }
    }
}

bool ZebHashingTask::hasContent() const
{
    return !m_IsBlock || m_Block != nullptr;
}

void ZebHashingTask::finish(const unsigned char* digest)
{
    ZebStoredCall::finish(
        m_Promise, [this, digest] { return admit(digest); },
        [this] {
            m_Bytes = QByteArray();
            m_Block.reset();
        });
}

ZebDataReference ZebHashingTask::admit(const unsigned char* digest)
{
    if (m_IsBlock)
        return digest == nullptr ? ZebHashingJob::processBlock(m_Block.release())
                                 : ZebHashingJob::admitDigested(digest, std::move(m_Block));
    return digest == nullptr ? ZebHashingJob::processBlockByteArray(m_Bytes)
                             : ZebHashingJob::admitDigested(digest, m_Bytes);
}

const QByteArray& ZebHashingTask::content() const
{
    return m_IsBlock ? ZebHashingJob::contentOf(*m_Block) : m_Bytes;
}
