#pragma once

#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"
#include "support/ZebTdxExport.h"

#include <QByteArray>
#include <QFile>
#include <QString>

class ZebDataBlock;
class ZebDataBlockWriteThread;

/// One unit of a writer's work: either the write of one block to its file, or a fence. A fence is a
/// numbered marker in the queue; a caller waits until the writer reaches it. docs/FORMAT.md
/// describes the file.
///
/// Ownership: a request holds a reference to its hash. It owns its block if `deleteBlock` was set;
/// otherwise it still deletes a block that was evicted during the write.
///
/// Thread safety: a request belongs to one thread at a time. The block must not change before the
/// request ends.
///
/// Locks: the destructor takes the delete lock.
class ZEBTDX_EXPORT ZebDataBlockWriteRequest
{
public:
    /// A write of `block`, whose hash is `hash`.
    /// @param deleteBlock whether the request owns the block
    ZebDataBlockWriteRequest(const ZebSmartPointer<ZebDataHash>& hash, ZebDataBlock* block,
                             bool deleteBlock);

    /// A fence with this number, which is not negative.
    explicit ZebDataBlockWriteRequest(int fence);

    /// Deletes the block if this request owns it or the block was evicted during the write.
    /// Releases the hash with the delete lock held, since that may end the hash.
    ~ZebDataBlockWriteRequest();

    ZebDataBlockWriteRequest(const ZebDataBlockWriteRequest&) = delete;
    ZebDataBlockWriteRequest& operator=(const ZebDataBlockWriteRequest&) = delete;

    /// The number of the fence; -1 for a write.
    int fence() const;

    bool isFence() const;

    /// The hash to write; null for a fence.
    ZebSmartPointer<ZebDataHash>& hash();

    /// The block to write; null for a fence.
    ZebDataBlock* block() const;

    /// The size of the block in bytes; 0 for a fence.
    qint64 blockSize() const;

    /// Sets the path of the file and creates its directory if missing.
    void setFileName(const QString& root, const QString& subCache, int bucketCount);

    /// Creates the directory of the file again if it has been removed. Keeps the path.
    void makeDirectory();

    /// Whether a complete file, that is one longer than its header, exists at the path; marks the
    /// block as cached then. A truncated file will be overwritten, and so will a file that a failed
    /// write() of this request could not remove. A link is not followed; anything but a regular
    /// file counts as missing.
    /// Kept on purpose: the spelling of the name, which hosts may use.
    bool fileExits();

    /// Makes the payload, unless an earlier attempt did: compresses the block's bytes, or copies
    /// them if they are compressed already. A failure leaves it to write() to try again and to
    /// report it. Throws nothing.
    void compress();

    /// Writes the file, and compresses the block first if needed. Flushes the bytes to the
    /// operating system; does not fsync.
    ///
    /// Returns the length of the payload in bytes and marks the block as cached. On failure it
    /// returns 0, logs the reason, sets `errorString`, which may be null, and removes the file. It
    /// keeps the payload for a retry. A failed allocation is such a failure, and so is anything but
    /// a regular file at the path, which stays as it is. Throws nothing.
    ///
    /// Kept on purpose: the empty payload of a compressed block is written, too, but returns 0
    /// without a message.
    int write(QString* errorString);

private:
    friend class ZebDataBlockWriteThread;

    /// Leaves the block to the caller: the destructor no longer touches it.
    void disownBlock();

    /// Logs that an allocation failed in an attempt to write, and returns the text. Throws nothing.
    static QString reportOutOfMemory();

    /// write() without its failure path; false sets `failure`.
    bool writeFile(QString* failure);

    /// Opens the file, emptied; false sets `failure`.
    bool openFile(QString* failure);

    /// compress() with the reason of a failure.
    bool makePayload(QString* failure);

    /// Writes one piece in full, or sets `failure`.
    bool writePiece(const char* bytes, qint64 length, QString* failure);

    /// Closes the file if it is open. False when the system reports an error.
    bool closeFile();

    /// The message for a short write.
    QString shortWriteText(const QString& error, qint64 written, qint64 expected) const;

    /// Removes what a failed attempt has left. Throws nothing.
    void discardFile();

    int m_Fence;
    ZebSmartPointer<ZebDataHash> m_Hash;
    ZebDataBlock* m_Block;
    QByteArray m_CompressedData;
    bool m_DeleteBlock;

    // Writes to m_Descriptor, which it does not own: an error of closing must be seen.
    QFile m_File;

    // m_File forgets its name when it is opened. m_Path is that name as the system takes it.
    QString m_FileName;
    QByteArray m_Path;
    int m_Descriptor;

    // Whether the file at the path is an incomplete one of this request.
    bool m_IsIncomplete;
};
