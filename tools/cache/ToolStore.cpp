#include "tools/cache/ToolStore.h"

#include "data/ZebDataReference.h"
#include "data/ZebGroupHeader.h"
#include "hash/ZebBlockName.h"
#include "hash/ZebDataHash.h"
#include "io/ZebBlockFile.h"
#include "io/ZebBlockPlace.h"
#include "manager/ZebDataBlockManager.h"
#include "support/ZebTdxLog.h"
#include "tools/files/FileReader.h"
#include "tools/files/FileSystem.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/StopRequest.h"
#include "tools/terminal/ToolError.h"
#include "tools/terminal/Workers.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QFile>
#include <QStringList>
#include <QThread>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace {

// A disk whose last failure is this long ago works again.
constexpr qint64 s_PauseMs = 3000;

// How often waitForWriters() looks at the queues.
constexpr unsigned long s_PollMs = 2;

// What require() reads of a block's file: both sizes of the block.
constexpr int s_StartBytes = ZebBlockFile::s_HeaderBytes + ZebBlockFile::s_PlainSizeBytes;

const char* const s_Damaged = "is damaged in the cache; run zebtdx verify";

void requireRoot(const std::string& root, ToolStore::Roots roots)
{
    std::error_code error;
    if (roots == ToolStore::Roots::Make)
        std::filesystem::create_directories(root, error);
    if (error)
        throw ToolError(error.message(), error.value());
    FileSystem::requireDirectory(root);
    const int write = roots == ToolStore::Roots::Read ? 0 : W_OK;
    if (::access(root.c_str(), R_OK | X_OK | write) != 0)
        throw ToolError::ofSystem(errno);
}

// The store would create the directory.
void requireSubCache(const StorePlace& place)
{
    for (const std::string& root : place.m_Roots) {
        struct stat status = {};
        if (::stat(FileSystem::joined(root, place.m_SubCache).c_str(), &status) == 0)
            return;
    }
    throw ToolError("the cache has no sub-cache " + PathText::printable(place.m_SubCache) +
                    "; check --root and --sub-cache");
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
    if (options.m_Roots == Roots::Read)
        requireSubCache(place);
    std::unique_ptr<ToolStore> store(new ToolStore(std::move(lock), giveUp));
    store->m_Roots = paths.size();
    store->m_Memory = options.m_Memory;
    // The log lies in the cache.
    ZebTdxLog::instance().setEnabled(options.m_Roots != Roots::Read);
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    manager.setup(paths, options.m_Memory, place.m_Buckets, options.m_CompressionThreads);
    store->m_SubCache = QFile::decodeName(QByteArray::fromStdString(place.m_SubCache));
    if (!store->m_SubCache.isEmpty())
        manager.setSubCache(store->m_SubCache);
    return store;
}

void ToolStore::require(const ZebDataReference& reference, const std::string& what) const
{
    FileReader file;
    QByteArray start;
    const auto error = ToolError::of([&] {
        file.open(pathOf(reference), ZebFileReader::Links::Refuse);
        start = file.read(0, s_StartBytes);
    });
    if (error && error->code() != ENOENT)
        throw ToolError(what + "cannot be read: " + error->what(), error->code());
    if (error || !ZebBlockFile::isComplete(file.stamp().m_Size))
        throw ToolError(what + "is not in the cache", ENOENT);
    if (start.size() < s_StartBytes)
        throw ToolError(what + s_Damaged);
    const qint64 size = ZebBlockFile::Header::decode(start.constData()).m_BlockBytes;
    // The store reserves the first size, and decompresses as much as the second one says.
    if (size < 0 ||
        size != ZebBlockFile::plainSizeOf(start.constData() + ZebBlockFile::s_HeaderBytes))
        throw ToolError(what + s_Damaged);
    if (size > m_Memory) {
        throw ToolError(what + "has " + SizeText::print(size) + ", more than --memory (" +
                        SizeText::print(m_Memory) + "); raise --memory");
    }
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
        throw ToolError(what + s_Damaged);
    return block;
}

QVector<ZebDataReference> ToolStore::members(const ZebDataReference& list,
                                             const std::string& what) const
{
    // Pinned meanwhile, so that the extraction reads the bytes that have been checked.
    const ZebConstAccessor block = read(list, what);
    const std::optional<ZebGroupHeader> header = ZebGroupHeader::decode(block.data(), block.size());
    // The store ends the process when it looks for a block with a shorter digest.
    const bool isOfBlocks = header && (header->m_Digests < 1 || header->m_DigestBytes < 1 ||
                                       header->m_DigestBytes == ZebBlockName::s_Bytes);
    if (!isOfBlocks)
        throw ToolError(what + "is not a list of blocks");
    return ZebDataBlockManager::instance().extractGroupBlock(list);
}

ToolStore::~ToolStore()
{
    ZebDataBlockManager::instance().cleanUp();
}

std::string ToolStore::pathOf(const ZebDataReference& reference) const
{
    const QString text = reference.hash();
    const std::optional<ZebBlockName> name = ZebBlockName::parse(text.toStdString());
    if (!name || ZebBlockPlace::of(*name, m_Roots, 1).m_Root < 0)
        throw ToolError("no store with this many roots can have a block with this name");
    return QFile::encodeName(ZebDataBlockManager::instance().getBlockDestination(m_SubCache, text))
        .toStdString();
}

void ToolStore::flush(ErrorReport& errors, qint64 patienceMs)
{
    Workers::run(
        1, [] { ZebDataBlockManager::instance().flush(); },
        [this, &errors, patienceMs] { watchWrites(errors, patienceMs); });
}

void ToolStore::finish(ErrorReport& errors, qint64 patienceMs) noexcept
try {
    const std::string line = StopRequest::takeLine();
    if (!line.empty()) {
        errors.endBar();
        errors.note(line);
    }
    flush(errors, patienceMs);
} catch (...) {
    // Without memory, for example. The destructor waits then.
}

void ToolStore::evict(ErrorReport& errors)
{
    Workers::run(
        1, [] { ZebDataBlockManager::instance().freeAllBlocks(); },
        [this, &errors] { watchWrites(errors); });
}

void ToolStore::waitForWriters()
{
    while (ZebDataBlockManager::instance().isWriteThreadsFull()) {
        QThread::msleep(s_PollMs);
        StopRequest::check();
    }
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
    errors.endBar();
    errors.add("writes to the disk cache keep failing; giving up, blocks not written yet are lost; "
               "make room on the disk and start again");
    m_GiveUp();
}
