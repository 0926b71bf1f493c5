#pragma once

#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"
#include "support/ZebTdxExport.h"

#include <QAtomicInt>
#include <QByteArray>
#include <QMutex>

#include <atomic>
#include <type_traits>

/// The bytes of one block in memory.
///
/// Ownership: a block that the manager has received belongs to it. A block that nobody has handed
/// over is a plain value of its maker's. The payload is never shared with a caller's array.
///
/// Thread safety: the payload of a block under a ZebConstAccessor is immutable, and any number of
/// threads may read it. Every operation that changes the payload needs the block for itself.
///
/// Locks: m_Mutex stands at level 2 of the lock order, inside the delete lock.
class ZEBTDX_EXPORT ZebDataBlock
{
public:
    /// Copies the payload and whether it is compressed. Nobody accesses the copy, and no file of
    /// it is known.
    ZebDataBlock(const ZebDataBlock& other);

    /// Copies the bytes.
    ZebDataBlock(const QByteArray& bytes);

    /// Copies `size` bytes at `data`. With a null `data` the block holds no bytes, and its size is
    /// `size` all the same. An array holds at most a 32-bit length: of a larger size only the low
    /// 32 bits count for the bytes, while size() keeps all of it; maxBlockSize() is the bound to
    /// respect.
    ZebDataBlock(const unsigned char* data, qint64 size);

    /// A block of `size` bytes of the value `fill`. A larger size than 32 bits hold is cut as told
    /// above.
    ZebDataBlock(qint64 size, unsigned char fill);

    /// The same for any two integers, so that a size of plain 0 is not taken for a null pointer.
    template <typename Size, typename Fill,
              typename = std::enable_if_t<std::is_integral_v<Size> && std::is_integral_v<Fill>>>
    ZebDataBlock(Size size, Fill fill)
        : ZebDataBlock(static_cast<qint64>(size), static_cast<unsigned char>(fill))
    {}

    virtual ~ZebDataBlock();

    /// Takes a copy of the payload. Accessors of this block and what is known of its file stay.
    ZebDataBlock& operator=(const ZebDataBlock& other);

    /// Compares the stored bytes, so a compressed block differs from its plain twin.
    bool operator==(const ZebDataBlock& other) const;
    bool operator!=(const ZebDataBlock& other) const;

    /// The stored bytes, as they are: a compressed block is not decompressed.
    const unsigned char* constData() const;

    /// The plain bytes, for writing. Decompresses the block first when needed; null when that
    /// fails.
    unsigned char* data();

    /// The length of the plain payload in bytes, also while the block is compressed.
    qint64 size() const;

    /// A new hash of the stored bytes, of size Hash512, not interned.
    ZebSmartPointer<ZebDataHash> hash() const;

    /// Whether a block file of this block is known to exist.
    bool cached() const;

    /// Whether the stored bytes are compressed.
    bool isCompressed() const;

    /// Compresses the payload in place by zlib at `level`, 0 to 9, or -1 for zlib's default. True
    /// also when it was compressed already. On failure the plain bytes are gone, and a debug line
    /// says so.
    bool compress(int level = -1);

    /// Decompresses the payload in place. True also when it was plain already. On failure the
    /// stored bytes stay, and a debug line says so.
    bool uncompress();

    /// The largest block that the manager takes: its memory limit, or 2 GiB less one byte.
    static qint64 maxBlockSize();

    /// Kept on purpose: always -1. Blocks are not counted.
    static int blockCount();

private:
    friend class ZebConstAccessor;
    friend class ZebModifyAccessor;
    friend class ZebHashingJob;
    friend class ZebDataBlockManager;
    friend class ZebDataBlockReadThread;
    friend class ZebDataBlockWriteRequest;

    // Makes changes of m_AccessCount between 0 and 1 one step with the manager's note of them.
    // Recursive. Taken inside the delete lock; the manager's own locks come inside it.
    QMutex m_Mutex;

    // How many accessors hold this block; changed under m_Mutex.
    QAtomicInt m_AccessCount;

    QByteArray m_Data;
    qint64 m_Size;
    bool m_Compressed;

    // Set by the thread that wrote or read the file, read by whoever evicts.
    std::atomic<bool> m_Cached;
};
