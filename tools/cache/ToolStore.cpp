#include "tools/cache/ToolStore.h"

#include "data/ZebDataReference.h"
#include "manager/ZebDataBlockManager.h"
#include "tools/cache/BlockHeader.h"
#include "tools/files/FileKind.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ExitCode.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/Workers.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include <unistd.h>

namespace {

// A disk that has not failed for that long works again.
constexpr qint64 s_PauseMs = 3000;

// Why a store can't keep its files in that folder; empty when it can.
std::string whyNoRoot(const std::string& root, ToolStore::Roots roots)
{
    std::error_code error;
    if (roots == ToolStore::Roots::Make)
        std::filesystem::create_directories(root, error);
    if (error)
        return error.message();
    if (!std::filesystem::is_directory(root, error))
        return error ? error.message() : FileKind::errorText(ENOTDIR);
    // Readers make missing folders, too.
    if (::access(root.c_str(), R_OK | W_OK | X_OK) != 0)
        return FileKind::errorText(errno);
    return {};
}

} // namespace

ToolStore::ToolStore(RootLock&& lock) : m_Lock(std::move(lock)), m_Failures(0), m_Told(0)
{
    QObject::connect(&ZebDataBlockManager::instance(), &ZebDataBlockManager::writeError,
                     &m_Receiver, [this](const QString& message) {
                         if (!m_SinceLast.isValid() || m_SinceLast.hasExpired(s_PauseMs)) {
                             m_Failures = 0;
                             m_Told = 0;
                             m_SinceFirst.start();
                         }
                         m_SinceLast.start();
                         ++m_Failures;
                         m_LastError = message;
                     });
}

std::unique_ptr<ToolStore> ToolStore::open(const StorePlace& place, const Options& options,
                                           std::string& reason)
{
    QStringList paths;
    for (const std::string& root : place.m_Roots) {
        const std::string why = whyNoRoot(root, options.m_Roots);
        if (!why.empty()) {
            reason = "cache root " + PathText::printable(root) + ": " + why;
            return nullptr;
        }
        paths.append(QFile::decodeName(QByteArray::fromStdString(root)));
    }
    RootLock lock;
    if (!lock.take(place.m_Roots, options.m_Use, reason))
        return nullptr;
    std::unique_ptr<ToolStore> store(new ToolStore(std::move(lock)));
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    manager.setup(paths, options.m_Memory, place.m_Buckets, options.m_CompressionThreads);
    store->m_SubCache = QFile::decodeName(QByteArray::fromStdString(place.m_SubCache));
    if (!store->m_SubCache.isEmpty())
        manager.setSubCache(store->m_SubCache);
    return store;
}

bool ToolStore::has(const ZebDataReference& reference) const
{
    const QFileInfo file(
        ZebDataBlockManager::instance().getBlockDestination(m_SubCache, reference.hash()));
    return file.size() > BlockHeader::s_Bytes;
}

ToolStore::~ToolStore()
{
    ZebDataBlockManager::instance().cleanUp();
}

void ToolStore::flush(ErrorReport& errors)
{
    Workers::run(
        1, [] { ZebDataBlockManager::instance().flush(); },
        [this, &errors] { watchWrites(errors); });
}

void ToolStore::watchWrites(ErrorReport& errors, qint64 patienceMs)
{
    // The signal is queued for the thread of the store.
    QCoreApplication::processEvents();
    if (m_Failures == 0)
        return;
    if (m_Told == 0) {
        m_Told = 1;
        errors.note(PathText::printable(m_LastError.toStdString()) + "; trying again");
    }
    if (m_SinceLast.hasExpired(s_PauseMs) || !m_SinceFirst.hasExpired(patienceMs))
        return;
    errors.add("the disk cache does not take what it is given; giving up");
    // Nothing less ends the writers: they do not stop before all is written.
    std::_Exit(ExitCode::Failed);
}
