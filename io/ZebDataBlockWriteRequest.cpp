#include "io/ZebDataBlockWriteRequest.h"

#include "data/ZebDataBlock.h"
#include "io/ZebBlockFile.h"
#include "io/ZebBlockFilePath.h"
#include "manager/ZebDataBlockManager.h"
#include "support/ZebDataDeleteLocker.h"
#include "support/ZebTdxMessage.h"

#include <QDir>
#include <QFileInfo>

namespace {

constexpr int s_NoFence = -1;

} // namespace

ZebDataBlockWriteRequest::ZebDataBlockWriteRequest(const ZebSmartPointer<ZebDataHash>& hash,
                                                   ZebDataBlock* block, bool deleteBlock)
    : m_Fence(s_NoFence), m_Hash(hash), m_Block(block), m_DeleteBlock(deleteBlock)
{}

ZebDataBlockWriteRequest::ZebDataBlockWriteRequest(int fence)
    : m_Fence(fence), m_Block(nullptr), m_DeleteBlock(false)
{}

ZebDataBlockWriteRequest::~ZebDataBlockWriteRequest()
{
    if (m_DeleteBlock) {
        delete m_Block;
    } else if (ZebDataBlockManager::instance().needsFreeingAfterWriting(m_Block)) {
        ZebDataBlockManager::instance().flagFreeingBlockFinishedAfterWriting(m_Block);
        delete m_Block;
    }
    const ZebDataDeleteLocker locker;
    m_Hash = ZebSmartPointer<ZebDataHash>();
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
    m_File.setFileName(ZebBlockFilePath(m_Hash.data(), root, subCache, bucketCount));
}

void ZebDataBlockWriteRequest::makeDirectory()
{
    const QString directory = QFileInfo(m_File.fileName()).path();
    if (!QDir(directory).exists())
        QDir().mkpath(directory);
}

bool ZebDataBlockWriteRequest::fileExits()
{
    if (!QFile::exists(m_File.fileName()) || !ZebBlockFile::isComplete(m_File.size()))
        return false;
    m_Block->m_Cached.store(true, std::memory_order_relaxed);
    return true;
}

void ZebDataBlockWriteRequest::compress()
{
    if (!m_CompressedData.isNull())
        return;
    if (m_Block->m_Compressed) {
        m_CompressedData = m_Block->m_Data;
        // Kept on purpose: only this branch logs an empty payload.
        if (m_CompressedData.isEmpty())
            ZebTdxMessage::debug(QStringLiteral("Failed to compress data block."));
        return;
    }
    m_CompressedData = ZebBlockFile::encodePayload(m_Block->m_Data);
}

int ZebDataBlockWriteRequest::write(QString* errorString)
{
    if (!m_File.open(QIODevice::WriteOnly)) {
        return fail(QStringLiteral("Cannot Open File %1 : '%2'")
                        .arg(m_File.fileName(), m_File.errorString()),
                    errorString);
    }
    QString failure;
    ZebBlockFile::Header header;
    header.m_BlockBytes = m_Block->size();
    if (!writePiece(header.encode().data(), ZebBlockFile::s_BlockSizeBytes, &failure))
        return fail(failure, errorString);
    // Kept on purpose: compresses with the file open, so an empty file is visible meanwhile.
    compress();
    const qint32 length = m_CompressedData.size();
    header.m_PayloadBytes = length;
    if (!writePiece(header.encode().data() + ZebBlockFile::s_BlockSizeBytes,
                    ZebBlockFile::s_PayloadSizeBytes, &failure) ||
        !writePiece(m_CompressedData.constData(), length, &failure))
        return fail(failure, errorString);
    // close() would lose buffered bytes without an error.
    if (!m_File.flush())
        return fail(shortWriteText(-1, length), errorString);
    m_File.close();
    m_Block->m_Cached.store(true, std::memory_order_relaxed);
    return length;
}

bool ZebDataBlockWriteRequest::writePiece(const char* bytes, qint64 length, QString* failure)
{
    const qint64 written = m_File.write(bytes, length);
    if (written == length)
        return true;
    *failure = shortWriteText(written, length);
    return false;
}

QString ZebDataBlockWriteRequest::shortWriteText(qint64 written, qint64 expected) const
{
    return QStringLiteral("Cannot Write to File %1 : '%2' - wrote %3 bytes (expecting %4 bytes)")
        .arg(m_File.fileName(), m_File.errorString(), QString::number(written),
             QString::number(expected));
}

int ZebDataBlockWriteRequest::fail(const QString& text, QString* errorString)
{
    ZebTdxMessage::debug(text);
    if (errorString != nullptr)
        *errorString = text;
    // Closes first and removes by name: an open QFile that cannot flush refuses to be removed.
    m_File.close();
    QFile::remove(m_File.fileName());
    return 0;
}
