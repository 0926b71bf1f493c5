#pragma once

#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"
#include "support/ZebTdxExport.h"

#include <QAtomicInt>
#include <QByteArray>

#include <atomic>
#include <memory>
#include <type_traits>

/// The bytes of one block in memory.
///
/// Ownership: the manager owns the blocks that were passed to it; any other block belongs to its
/// creator. The payload never shares storage with a caller's array.
///
/// Thread safety: while a ZebConstAccessor pins the block, its payload does not change, and any
/// number of threads may read it. Operations that change the payload need exclusive use of the
/// block.
class ZEBTDX_EXPORT ZebDataBlock
{
public:
    /// Copies the payload and whether it is compressed. The copy has no accessors and is not
    /// cached().
    ZebDataBlock(const ZebDataBlock& other);

    /// Copies the bytes.
    ZebDataBlock(const QByteArray& bytes);

    /// Copies `size` bytes at `data`. With a null `data` the block has no bytes, but size() is
    /// `size`. Do not exceed maxBlockSize(): only the low 32 bits of a larger `size` count as the
    /// number of bytes, while size() returns all of it.
    ZebDataBlock(const unsigned char* data, qint64 size);

    /// A block of `size` bytes of the value `fill`. The limit above applies.
    ZebDataBlock(qint64 size, unsigned char fill);

    /// The same for any two integers, so that a literal 0 as the size is not a null pointer.
    template <typename Size, typename Fill,
              typename = std::enable_if_t<std::is_integral_v<Size> && std::is_integral_v<Fill>>>
    ZebDataBlock(Size size, Fill fill)
        : ZebDataBlock(static_cast<qint64>(size), static_cast<unsigned char>(fill))
    {}

    virtual ~ZebDataBlock();

    /// Copies the payload. The accessors of this block and its cached() stay.
    ZebDataBlock& operator=(const ZebDataBlock& other);

    /// Compares the stored bytes, so a compressed block differs from an uncompressed one.
    bool operator==(const ZebDataBlock& other) const;
    bool operator!=(const ZebDataBlock& other) const;

    /// The stored bytes; those of a compressed block are compressed.
    const unsigned char* constData() const;

    /// The uncompressed bytes, for writing. Decompresses the block first if necessary; null if that
    /// fails.
    unsigned char* data();

    /// The length of the uncompressed payload in bytes.
    qint64 size() const;

    /// A new hash of the stored bytes, of size Hash512, not interned.
    ZebSmartPointer<ZebDataHash> hash() const;

    /// Whether a block file of this block is known to exist.
    bool cached() const;

    /// Whether the stored bytes are compressed.
    bool isCompressed() const;

    /// Compresses the payload with zlib at `level`, 0 to 9, or -1 for zlib's default. Returns true
    /// also if it was compressed already. Failure is reported by a debug line.
    /// Kept on purpose: after a failure the block has lost its bytes.
    bool compress(int level = -1);

    /// Decompresses the payload. Returns true also if it was not compressed. On failure the stored
    /// bytes stay, and a debug line reports it.
    bool uncompress();

    /// The largest block that the manager accepts, in bytes: its memory limit, at most 2 GiB - 1.
    static qint64 maxBlockSize();

    /// Kept on purpose: always -1; blocks are not counted.
    static int blockCount();

private:
    friend class ZebConstAccessor;
    friend class ZebDataReference;
    friend class ZebModifyAccessor;
    friend class ZebHashingJob;
    friend class ZebDataBlockManager;
    friend class ZebDataBlockReadThread;
    friend class ZebDataBlockWriteRequest;

    /// A block of the same size() that is not compressed, with the stored bytes, and zeros for
    /// those that are missing.
    static std::unique_ptr<ZebDataBlock> privateCopy(const ZebDataBlock& block);

    // How many accessors share or pin this block while it is not resident: those of a new block,
    // and copies of them that outlive its release. The pins of a resident block are counted by its
    // hash.
    QAtomicInt m_AccessCount;

    // Whether the manager owns the block, so that no accessor deletes it.
    std::atomic<bool> m_IsAdmitted{false};

    QByteArray m_Data;
    qint64 m_Size;
    bool m_Compressed;

    // Whether the block has a file. Set by the thread that wrote or read it, read by eviction.
    std::atomic<bool> m_Cached;
};
