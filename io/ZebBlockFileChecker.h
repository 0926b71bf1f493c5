#pragma once

// Internal: checks block files against their names. Not installed.

#include "hash/ZebBlockName.h"
#include "io/ZebBlockFile.h"
#include "io/ZebBlockFinding.h"
#include "io/ZebFileReader.h"
#include "support/ZebBlockInflater.h"

#include <QByteArray>
#include <QtGlobal>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class ZebMemoryBudget;

/// Checks block files: the header, whether the payload decompresses to the size that the header
/// names, and whether the bytes, or the payload itself, match the name. Reads each file once, in
/// pieces, and writes nothing. Whatever a file claims, no block takes more memory than the limit.
///
/// Small blocks wait until there are as many as the processor digests in parallel.
///
/// Thread safety: an object belongs to one thread at a time.
class ZebBlockFileChecker
{
public:
    struct Limits
    {
        /// Whether to check the header only.
        bool m_Fast = false;
        /// The largest block to decompress, in bytes.
        qint64 m_LargestBlock = 0;
        /// Memory to keep between blocks, in bytes, for all blocks that are digested together. A
        /// block larger than its share takes memory from the budget and is digested alone; so is
        /// every block when the shares would be too small.
        qint64 m_KeptBytes = 0;
    };

    /// Receives the verdict on the file that begin() got with this tag. `stamp` is the state of the
    /// file when it was opened, null if it was not.
    using Receiver = std::function<void(std::size_t tag, const ZebBlockVerdict& verdict,
                                        const ZebFileStamp* stamp)>;

    /// @param budget shared by all checkers that run at the same time; at least m_LargestBlock
    ZebBlockFileChecker(const Limits& limits, ZebMemoryBudget& budget);

    /// Checks the file at `path`, and does not follow a link there. Must not be called while files
    /// from begin() wait.
    ZebBlockVerdict check(const std::string& path, const ZebBlockName& name);

    /// Like check(), but a later call may deliver the verdict, so that several digests are computed
    /// together. Each call may deliver the verdicts of several files.
    void begin(const std::string& path, const ZebBlockName& name, std::size_t tag,
               const Receiver& receive);

    /// Delivers all verdicts that are still due.
    void finish(const Receiver& receive);

private:
    using Header = ZebBlockFile::Header;

    // Goes back to the system at once when freed: an allocator would keep it for the thread's next
    // block, outside of any limit.
    struct Unmap
    {
        std::size_t m_Size;
        void operator()(unsigned char* memory) const;
    };
    using Memory = std::unique_ptr<unsigned char, Unmap>;

    // A file under check. It stays open until its verdict, to see whether it changed.
    struct Slot
    {
        ZebFileReader m_Reader;
        // Of m_KeptBySlot bytes, once needed.
        Memory m_Memory;
        ZebBlockName m_Name;
        std::size_t m_Tag = 0;
        bool m_IsOpen = false;
        // Whether m_Memory holds a block of m_Size bytes that waits for its digest.
        bool m_IsWaiting = false;
        qint64 m_Size = 0;
    };

    static Memory allocate(qint64 bytes);

    /// The verdict, unless the slot now waits for its digest.
    ZebBlockVerdict examine(Slot& slot, const std::string& path);
    ZebBlockVerdict checkHeader(const Slot& slot, const Header& header) const;
    ZebBlockVerdict checkPayload(Slot& slot, const Header& header);

    /// Decompresses the payload of the open file, whose first piece has been read, to `out`, which
    /// has room for one byte more than the block.
    ZebBlockVerdict inflate(Slot& slot, const Header& header, unsigned char* out);

    /// Whether the name is the digest of the payload: that of a block which the host compressed
    /// before it added it.
    bool isNamedByPayload(Slot& slot);

    void conclude(Slot& slot, ZebBlockVerdict verdict, const Receiver& receive);

    const Limits m_Limits;
    // As many as are digested together; the first m_Waiting wait for their digests.
    std::vector<Slot> m_Slots;
    const qint64 m_KeptBySlot;
    ZebMemoryBudget& m_Budget;
    std::size_t m_Waiting;
    ZebBlockInflater m_Inflater;
    // The piece of the file that was read last.
    QByteArray m_Piece;
};
