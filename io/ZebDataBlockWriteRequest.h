#pragma once

#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"
#include "support/ZebTdxExport.h"

#include <QByteArray>
#include <QFile>
#include <QString>

class ZebDataBlock;

/// One unit of a writer's work: the order to write one block to its file, or a fence, a numbered
/// marker by which a caller waits until the writer has come so far.
///
/// The block file, in host byte order: the block's size (8 bytes, signed), the length N of the
/// payload (4 bytes, signed), and N bytes as qCompress() makes them. docs/FORMAT.md shows one.
///
/// Ownership: a request holds a reference on its hash. It owns its block only when told so; without
/// that it still deletes a block whose end was put off until this write was over.
///
/// Thread safety: a request belongs to one thread at a time. The block must not change before the
/// request has ended.
///
/// Locks: the destructor takes the delete lock.
class ZEBTDX_EXPORT ZebDataBlockWriteRequest
{
public:
    /// The order to write `block`, whose hash is `hash`.
    /// @param deleteBlock whether the request owns the block
    ZebDataBlockWriteRequest(const ZebSmartPointer<ZebDataHash>& hash, ZebDataBlock* block,
                             bool deleteBlock);

    /// A fence of that number, which is 0 or more.
    explicit ZebDataBlockWriteRequest(int fence);

    /// Deletes the block when this request owns it, or when its end was put off. Releases the hash
    /// with the delete lock held, since that release may end the hash.
    ~ZebDataBlockWriteRequest();

    ZebDataBlockWriteRequest(const ZebDataBlockWriteRequest&) = delete;
    ZebDataBlockWriteRequest& operator=(const ZebDataBlockWriteRequest&) = delete;

    /// The number of the fence, -1 for a write.
    int fence() const;

    bool isFence() const;

    /// The hash to write; null for a fence.
    ZebSmartPointer<ZebDataHash>& hash();

    /// The block to write; null for a fence.
    ZebDataBlock* block() const;

    /// The size of the block in bytes, 0 without one.
    qint64 blockSize() const;

    /// Decides the place of the file and makes its directory when that is missing.
    void setFileName(const QString& root, const QString& subCache, int bucketCount);

    /// Makes the directory of the file again when it has gone; the name stays as it was decided.
    void makeDirectory();

    /// Whether a block file of more than its header lies at that place, whatever it holds; the
    /// block counts as cached then. A shorter file is a stump and will be overwritten.
    bool fileExits();

    /// Makes the payload, unless an earlier attempt did: the block's bytes at level 2, or as they
    /// are when the block is compressed already.
    void compress();

    /// Writes the file, compressing first when that has not been done. The bytes have left the
    /// process when it returns, but are not synced to the disk.
    ///
    /// Returns the length of the payload in bytes; the block then counts as cached. On a failure it
    /// returns 0, says why by a debug line and in `errorString`, which may be null, and leaves no
    /// file; the payload is kept for the next attempt.
    ///
    /// Kept on purpose: an empty payload is written, and returns 0 as well, with no message.
    int write(QString* errorString);

private:
    /// Writes one piece, or says why it could not be written in full.
    bool writePiece(const char* bytes, qint64 length, QString* failure);

    /// The text of a short write.
    QString shortWriteText(qint64 written, qint64 expected) const;

    /// Reports a failure, and removes what is there of the file.
    int fail(const QString& text, QString* errorString);

    int m_Fence;
    ZebSmartPointer<ZebDataHash> m_Hash;
    ZebDataBlock* m_Block;
    QByteArray m_CompressedData;
    bool m_DeleteBlock;
    QFile m_File;
};
