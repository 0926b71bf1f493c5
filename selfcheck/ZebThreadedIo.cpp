#include "selfcheck/ZebThreadedIo.h"

#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "selfcheck/TdxTester.h"
#include "selfcheck/ZebByteChain.h"
#include "selfcheck/ZebSelfCheck.h"
#include "selfcheck/ZebSharedRandom.h"

#include <QElapsedTimer>
#include <QFuture>
#include <QtConcurrent>

#include <algorithm>
#include <array>
#include <numeric>
#include <utility>

using ZebSelfCheck::failure;
using ZebSelfCheck::line;

namespace {

constexpr int s_LineStep = 100;
constexpr int s_BlocksPerNewBlock = 10;

int liveBlocks()
{
    return static_cast<int>(ZebDataBlockManager::instance().liveBlocks());
}

ZebDataBlockManager::PreloadPriority priorityOf(int index)
{
    static constexpr std::array<ZebDataBlockManager::PreloadPriority, 3> priorities = {
        ZebDataBlockManager::PreloadNormal, ZebDataBlockManager::PreloadHigh,
        ZebDataBlockManager::PreloadLow};
    return priorities.at(static_cast<size_t>(index) % priorities.size());
}

} // namespace

ZebThreadedIo::ZebThreadedIo(int blocks, int blockBytes)
    : m_Blocks(blocks), m_BlockBytes(blockBytes), m_BytesCreated(0), m_BytesRead(0), m_Sum(0)
{}

void ZebThreadedIo::create()
{
    QVector<QFuture<ZebDataReference>> futures;
    futures.reserve(m_Blocks);
    for (int index = 0; index < m_Blocks; ++index)
        futures.append(QtConcurrent::run([this, index] { return createBlock(index); }));
    for (const QFuture<ZebDataReference>& future : qAsConst(futures))
        m_References.append(future.result());
}

ZebDataReference ZebThreadedIo::createBlock(int index)
{
    const ZebDataReference reference = ZebDataBlockManager::instance().addBlock(
        ZebByteChain::bytes(static_cast<quint32>(index), m_BlockBytes), ZebModifyAccessor::Cached,
        false);
    // The flush that follows the tasks does not wait for hashing jobs.
    reference.resolveWork();
    const qint64 created =
        m_BytesCreated.fetch_add(m_BlockBytes, std::memory_order_relaxed) + m_BlockBytes;
    if (index % s_LineStep == 0) {
        TdxTester::tdxLog("%d Create %.2fMb Live %d Block", index, ZebSelfCheck::megabytes(created),
                          liveBlocks());
    }
    return reference;
}

bool ZebThreadedIo::restsOnDisk() const
{
    const ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    // Kept on purpose: the count is the constant -1, so the check always ends here.
    if (ZebSelfCheck::blockCount() != 0) {
        return failure("After Initial Block count is not zero it is %d",
                       ZebSelfCheck::blockCount());
    }
    if (manager.liveBlocks() != 0)
        return failure("Num of live Blocks %lld not 0", manager.liveBlocks());
    // Kept on purpose: this counts the hashes, which live as long as the references do, so it is
    // never 0 here. No check gets this far.
    if (manager.managedBlocks() != 0)
        return failure("Num of Managed Blocks %lld", manager.managedBlocks());
    const int registered = ZebHashManager::instance().hashCount();
    if (registered != m_Blocks)
        return failure("Hash count is incorrect %d!=%d", registered, m_Blocks);
    if (registered != ZebDataHash::hashCount()) {
        return failure("Hash counts do not match %d!=%d", registered, ZebDataHash::hashCount());
    }
    return true;
}

QVector<ZebThreadedIo::Task> ZebThreadedIo::shuffledTasks() const
{
    QVector<Task> tasks;
    for (int index = 0; index < m_References.size(); ++index) {
        tasks.append({Task::Preload, index});
        tasks.append({Task::Read, index});
    }
    for (int index = 0; index < m_Blocks / s_BlocksPerNewBlock; ++index)
        tasks.append({Task::Create, m_Blocks + index});
    for (int index = tasks.size() - 1; index > 0; --index)
        std::swap(tasks[index], tasks[ZebSharedRandom::below(index + 1)]);
    return tasks;
}

ZebDataReference ZebThreadedIo::work(Task task, const ZebDataReference& reference)
{
    if (task.m_Kind == Task::Create)
        return createBlock(task.m_Index);
    if (task.m_Kind == Task::Preload)
        reference.preload(priorityOf(task.m_Index));
    else
        readBlock(task.m_Index, reference);
    return ZebDataReference();
}

void ZebThreadedIo::readBlock(int index, const ZebDataReference& reference)
{
    const ZebConstAccessor accessor = reference.constAccessor();
    if (accessor.isNull())
        return;
    const unsigned char* const data = accessor.data();
    const qint64 sum = std::accumulate(data, data + accessor.size(), qint64(0));
    m_Sum.fetch_add(sum, std::memory_order_relaxed);
    const qint64 read =
        m_BytesRead.fetch_add(accessor.size(), std::memory_order_relaxed) + accessor.size();
    if (index % s_LineStep == 0) {
        TdxTester::tdxLog("%d Access %.2fMb Live %d Block", index, ZebSelfCheck::megabytes(read),
                          liveBlocks());
    }
}

void ZebThreadedIo::mix()
{
    line("Preloading %d Items", m_References.size());
    QElapsedTimer timer;
    timer.start();
    QVector<QFuture<ZebDataReference>> futures;
    const QVector<Task> tasks = shuffledTasks();
    for (const Task& task : tasks) {
        const ZebDataReference reference =
            task.m_Kind == Task::Create ? ZebDataReference() : m_References.at(task.m_Index);
        futures.append(
            QtConcurrent::run([this, task, reference] { return work(task, reference); }));
    }
    for (const QFuture<ZebDataReference>& future : qAsConst(futures)) {
        const ZebDataReference created = future.result();
        if (!created.isNull())
            m_References.append(created);
    }
    ZebDataBlockManager::instance().flush(false, ZebDataBlockManager::AllThreads);
    const qint64 elapsed = timer.elapsed();
    line("Accessed %lldMb   in %.2f Seconds  %.2fMbs  Sum %lld",
         bytesRead() / ZebByteUnits::s_BytesPerMiB, ZebSelfCheck::seconds(elapsed),
         ZebSelfCheck::perSecond(ZebSelfCheck::megabytes(bytesRead()), elapsed),
         m_Sum.load(std::memory_order_relaxed));
    ZebDataBlockManager::instance().freeAllBlocks();
}

void ZebThreadedIo::clear()
{
    m_References.clear();
}
