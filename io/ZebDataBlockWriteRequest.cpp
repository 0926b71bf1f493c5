#include "io/ZebDataBlockWriteRequest.h"

#include "data/ZebDataBlock.h"
#include "io/ZebBlockFile.h"
#include "io/ZebBlockFilePath.h"
#include "manager/ZebDataBlockManager.h"
#include "support/ZebDeleteMutexLocker.h"
#include "support/ZebRegularFile.h"
#include "support/ZebTdxMessage.h"

#include <QDir>
#include <QFileInfo>

#include <cerrno>
#include <new>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int s_NoFence = -1;
constexpr int s_Closed = -1;

// Throws nothing. Without memory the line is lost; the caller reports the failure in other ways,
// too.
void logFailure(const QString& text)
{
    try {
        ZebTdxMessage::debug(text);
    } catch (const std::bad_alloc&) {
    }
}

// A file that is empty already is not truncated: ext4 takes a truncation for the start of a
// replacement, so that close() allocates and writes the new bytes at once.
bool makeEmpty(int descriptor)
{
    struct stat status = {};
    return ::fstat(descriptor, &status) == 0 &&
           (status.st_size == 0 || ::ftruncate(descriptor, 0) == 0);
}

} // namespace

ZebDataBlockWriteRequest::ZebDataBlockWriteRequest(const ZebSmartPointer<ZebDataHash>& hash,
                                                   ZebDataBlock* block, bool deleteBlock)
    : m_Fence(s_NoFence),
      m_Hash(hash),
      m_Block(block),
      m_DeleteBlock(deleteBlock),
      m_Descriptor(s_Closed),
      m_IsIncomplete(false)
{}

ZebDataBlockWriteRequest::ZebDataBlockWriteRequest(int fence)
    : m_Fence(fence),
      m_Block(nullptr),
      m_DeleteBlock(false),
      m_Descriptor(s_Closed),
      m_IsIncomplete(false)
{}

ZebDataBlockWriteRequest::~ZebDataBlockWriteRequest()
{
    if (m_DeleteBlock) {
        delete m_Block;
    } else if (ZebDataBlockManager::instance().needsFreeingAfterWriting(m_Block)) {
        ZebDataBlockManager::instance().flagFreeingBlockFinishedAfterWriting(m_Block);
        delete m_Block;
    }
    const ZebDeleteMutexLocker locker;
    m_Hash = ZebSmartPointer<ZebDataHash>();
}

void ZebDataBlockWriteRequest::disownBlock()
{
    m_Block = nullptr;
    m_DeleteBlock = false;
}

QString ZebDataBlockWriteRequest::reportOutOfMemory()
{
    // A text that takes no memory of its own.
    QString text = QStringLiteral("Cannot Write Block File : 'Cannot allocate memory'");
    logFailure(text);
    return text;
}

int ZebDataBlockWriteRequest::fence() const
{
    return m_Fence;
}

bool ZebDataBlockWriteRequest::isFence() const
{
    return m_Fence >= 0;
}

ZebSmartPointer<ZebDataHash>& ZebDataBlockWriteRequest::hash()
{
    return m_Hash;
}

ZebDataBlock* ZebDataBlockWriteRequest::block() const
{
    return m_Block;
}

qint64 ZebDataBlockWriteRequest::blockSize() const
{
    return m_Block == nullptr ? 0 : m_Block->size();
}

void ZebDataBlockWriteRequest::setFileName(const QString& root, const QString& subCache,
                                           int bucketCount)
{
    closeFile();
    const QString name = ZebBlockFilePath(m_Hash.data(), root, subCache, bucketCount);
    const QByteArray path = QFile::encodeName(name);
    m_File.setFileName(name);
    // What was left at another path no longer matters here.
    m_IsIncomplete = m_IsIncomplete && path == m_Path;
    m_FileName = name;
    m_Path = path;
}

void ZebDataBlockWriteRequest::makeDirectory()
{
    const QString directory = QFileInfo(m_FileName).path();
    if (!QDir(directory).exists())
        QDir().mkpath(directory);
}

bool ZebDataBlockWriteRequest::fileExits()
{
    if (m_IsIncomplete || !ZebBlockFile::isComplete(ZebRegularFile::size(m_Path)))
        return false;
    m_Block->m_Cached.store(true, std::memory_order_relaxed);
    return true;
}

void ZebDataBlockWriteRequest::compress()
{
    try {
        QString failure;
        makePayload(&failure);
    } catch (const std::bad_alloc&) {
        // write() tries again and reports it.
    }
}

bool ZebDataBlockWriteRequest::makePayload(QString* failure)
{
    if (!m_CompressedData.isNull())
        return true;
    if (m_Block->m_Compressed) {
        m_CompressedData = m_Block->m_Data;
        // Kept on purpose: only this branch logs an empty payload.
        if (m_CompressedData.isEmpty())
            ZebTdxMessage::debug(QStringLiteral("Failed to compress data block."));
        return true;
    }
    QByteArray payload;
    const ZebCompression::Result result = ZebBlockFile::encodePayload(m_Block->m_Data, &payload);
    if (result == ZebCompression::Result::Made) {
        m_CompressedData = payload;
        return true;
    }
    *failure = QStringLiteral("Cannot Compress Data for File %1 : '%2'")
                   .arg(m_FileName, result == ZebCompression::Result::TooLarge
                                        ? QStringLiteral("Larger than 2 GiB")
                                        : qt_error_string(ENOMEM));
    return false;
}

int ZebDataBlockWriteRequest::write(QString* errorString)
{
    QString failure;
    try {
        if (writeFile(&failure)) {
            m_IsIncomplete = false;
            m_Block->m_Cached.store(true, std::memory_order_relaxed);
            return m_CompressedData.size();
        }
        logFailure(failure);
    } catch (const std::bad_alloc&) {
        failure = reportOutOfMemory();
    }
    if (errorString != nullptr)
        *errorString = failure;
    discardFile();
    return 0;
}

bool ZebDataBlockWriteRequest::writeFile(QString* failure)
{
    if (!openFile(failure))
        return false;
    ZebBlockFile::Header header;
    header.m_BlockBytes = m_Block->size();
    // Kept on purpose: compresses with the file open, so an empty file is visible meanwhile.
    if (!writePiece(header.encode().data(), ZebBlockFile::s_BlockSizeBytes, failure) ||
        !makePayload(failure))
        return false;
    const qint32 length = m_CompressedData.size();
    header.m_PayloadBytes = length;
    if (!writePiece(header.encode().data() + ZebBlockFile::s_BlockSizeBytes,
                    ZebBlockFile::s_PayloadSizeBytes, failure) ||
        !writePiece(m_CompressedData.constData(), length, failure))
        return false;
    // close() would lose buffered bytes without an error.
    if (!m_File.flush()) {
        *failure = shortWriteText(m_File.errorString(), -1, length);
        return false;
    }
    if (!closeFile()) {
        *failure = shortWriteText(qt_error_string(errno), -1, length);
        return false;
    }
    return true;
}

bool ZebDataBlockWriteRequest::openFile(QString* failure)
{
    // An earlier attempt may have failed to close it.
    closeFile();
    QString error;
    m_Descriptor = ZebRegularFile::open(m_FileName, O_WRONLY | O_CREAT, &error);
    bool isOpen = m_Descriptor != s_Closed;
    if (isOpen) {
        // Before the first change: only a removal or a success ends it.
        m_IsIncomplete = true;
        if (!makeEmpty(m_Descriptor)) {
            error = qt_error_string(errno);
            isOpen = false;
        } else if (!m_File.open(m_Descriptor, QIODevice::WriteOnly, QFileDevice::DontCloseHandle)) {
            error = m_File.errorString();
            isOpen = false;
        }
    }
    if (!isOpen)
        *failure = QStringLiteral("Cannot Open File %1 : '%2'").arg(m_FileName, error);
    return isOpen;
}

bool ZebDataBlockWriteRequest::writePiece(const char* bytes, qint64 length, QString* failure)
{
    const qint64 written = m_File.write(bytes, length);
    if (written == length)
        return true;
    *failure = shortWriteText(m_File.errorString(), written, length);
    return false;
}

bool ZebDataBlockWriteRequest::closeFile()
{
    // Flushes, and may throw; the descriptor is then still open, as the buffered bytes must not
    // reach a file that gets its number later.
    m_File.close();
    const int descriptor = std::exchange(m_Descriptor, s_Closed);
    return descriptor == s_Closed || ::close(descriptor) == 0;
}

QString ZebDataBlockWriteRequest::shortWriteText(const QString& error, qint64 written,
                                                 qint64 expected) const
{
    return QStringLiteral("Cannot Write to File %1 : '%2' - wrote %3 bytes (expecting %4 bytes)")
        .arg(m_FileName, error, QString::number(written), QString::number(expected));
}

void ZebDataBlockWriteRequest::discardFile()
{
    try {
        // Before the removal: an open QFile that cannot flush refuses to be removed.
        closeFile();
    } catch (const std::bad_alloc&) {
        // The next attempt closes it.
    }
    // After a failed open, the file may be a complete one of another process.
    if (!m_IsIncomplete && ZebBlockFile::isComplete(ZebRegularFile::size(m_Path)))
        return;
    if (ZebRegularFile::remove(m_Path))
        m_IsIncomplete = false;
}
