#include "tools/cache/ToolStore.h"

#include "data/ZebDataReference.h"
#include "data/ZebGroupHeader.h"
#include "hash/ZebDataHash.h"
#include "io/ZebBlockFile.h"
#include "manager/ZebDataBlockManager.h"
#include "tools/files/FileSystem.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ToolError.h"
#include "tools/terminal/Workers.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include <unistd.h>

namespace {

// A disk whose last failure is this long ago works again.
constexpr qint64 s_PauseMs = 3000;

void requireRoot(const std::string& root, ToolStore::Roots roots)
{
    std::error_code error;
    if (roots == ToolStore::Roots::Make)
        std::filesystem::create_directories(root, error);
    if (error)
        throw ToolError(error.message(), error.value());
    FileSystem::requireDirectory(root);
    // Readers create missing directories too.
    if (::access(root.c_str(), R_OK | W_OK | X_OK) != 0)
        throw ToolError::ofSystem(errno);
}

} // namespace

ToolStore::ToolStore(RootLock&& lock, const GiveUp& giveUp)
    : m_Lock(std::move(lock)), m_GiveUp(giveUp)
{
    QObject::connect(&ZebDataBlockManager::instance(), &ZebDataBlockManager::writeError,
                     &m_Receiver, [this](const QString& message) {
                         if (!m_SinceLast.isValid() || m_SinceLast.hasExpired(s_PauseMs)) {
                             m_Failures = 0;
                             m_IsReported = false;
                             m_SinceFirst.start();
                         }
                         m_SinceLast.start();
                         ++m_Failures;
                         m_LastError = message;
                     });
}

std::unique_ptr<ToolStore> ToolStore::open(const StorePlace& place, const Options& options,
                                           const GiveUp& giveUp)
{
    QStringList paths;
    for (const std::string& root : place.m_Roots) {
        ToolError::locate("cache root " + root, [&] { requireRoot(root, options.m_Roots); });
        paths.append(QFile::decodeName(QByteArray::fromStdString(root)));
    }
    RootLock lock;
    lock.take(place.m_Roots, options.m_Use);
    std::unique_ptr<ToolStore> store(new ToolStore(std::move(lock), giveUp));
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    manager.setup(paths, options.m_Memory, place.m_Buckets, options.m_CompressionThreads);
    store->m_SubCache = QFile::decodeName(QByteArray::fromStdString(place.m_SubCache));
    if (!store->m_SubCache.isEmpty())
        manager.setSubCache(store->m_SubCache);
    return store;
}

void ToolStore::require(const ZebDataReference& reference, const std::string& what) const
{
    const QFileInfo file(fileOf(reference));
    if (!ZebBlockFile::isComplete(file.size()))
        throw ToolError(what + "is not in the cache", ENOENT);
}

ZebConstAccessor ToolStore::read(const ZebDataReference& reference, const std::string& what) const
{
    require(reference, what);
    return load(reference, what);
}

ZebConstAccessor ToolStore::load(const ZebDataReference& reference, const std::string& what) const
{
    ZebConstAccessor block = reference.constAccessor();
    if (block.isNull())
        throw ToolError(what + "is not in the cache", ENOENT);
    const ZebSmartPointer<ZebDataHash> hash = reference.hashPtr();
    if (ZebDataHash(block.data(), block.size(), hash->size()) != *hash)
        throw ToolError(what + "is damaged in the cache; run zebtdx verify");
    return block;
}

QVector<ZebDataReference> ToolStore::members(const ZebDataReference& list,
                                             const std::string& what) const
{
    // Pinned meanwhile, so that the extraction reads the bytes that have been checked.
    const ZebConstAccessor block = read(list, what);
    if (!ZebGroupHeader::decode(block.data(), block.size()))
        throw ToolError(what + "is not a list of blocks");
    return ZebDataBlockManager::instance().extractGroupBlock(list);
}

ToolStore::~ToolStore()
{
    ZebDataBlockManager::instance().cleanUp();
}

QString ToolStore::fileOf(const ZebDataReference& reference) const
{
    return ZebDataBlockManager::instance().getBlockDestination(m_SubCache, reference.hash());
}

std::string ToolStore::pathOf(const ZebDataReference& reference) const
{
    return QFile::encodeName(fileOf(reference)).toStdString();
}

void ToolStore::flush(ErrorReport& errors)
{
    Workers::run(
        1, [] { ZebDataBlockManager::instance().flush(); },
        [this, &errors] { watchWrites(errors); });
}

void ToolStore::evict(ErrorReport& errors)
{
    Workers::run(
        1, [] { ZebDataBlockManager::instance().freeAllBlocks(); },
        [this, &errors] { watchWrites(errors); });
}

void ToolStore::watchWrites(ErrorReport& errors, qint64 patienceMs)
{
    // The signal is queued for the thread of the store.
    QCoreApplication::processEvents();
    if (m_Failures == 0)
        return;
    if (!std::exchange(m_IsReported, true))
        errors.note(PathText::printable(m_LastError.toStdString()) + "; retrying");
    if (m_SinceLast.hasExpired(s_PauseMs) || !m_SinceFirst.hasExpired(patienceMs))
        return;
    errors.add("writes to the disk cache keep failing; giving up, blocks not written yet are lost; "
               "make room on the disk and start again");
    m_GiveUp();
}
