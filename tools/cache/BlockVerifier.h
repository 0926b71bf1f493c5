#pragma once

#include "tools/cache/BlockBuffer.h"
#include "tools/cache/BlockFinding.h"
#include "tools/cache/BlockInflater.h"
#include "tools/cache/BlockName.h"
#include "tools/files/FileReader.h"

#include <QByteArray>
#include <QtGlobal>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class MemoryBudget;
struct BlockHeader;

/// Checks block files: the header, whether the payload decompresses to as many bytes as it says,
/// and whether these are the bytes of the name. Reads each file once, in pieces, and writes
/// nothing. Whatever a file claims, no more memory is taken than the limit of a block.
///
/// Small blocks are kept until as many have come together as the processor digests side by side.
///
/// Thread safety: an object belongs to one thread at a time.
class BlockVerifier
{
public:
    struct Limits
    {
        /// Whether to look at the header only.
        bool m_Fast = false;
        /// The largest block that is decompressed.
        qint64 m_LargestBlock = 0;
        /// Memory that is kept between blocks, for all that are digested together. A block that is
        /// larger than its part takes a share of the budget, and is digested alone; so are all
        /// where the parts would be too small.
        qint64 m_KeptBytes = 0;
    };

    /// Is told what was found of the file that was begun with this tag. `stamp` is the state of the
    /// file when it was opened, null if it could not be.
    using Receiver =
        std::function<void(std::size_t tag, const BlockVerdict& verdict, const FileStamp* stamp)>;

    /// No block of a store is larger.
    static constexpr qint64 s_MostBlockBytes = 0x7FFFFFFF;

    /// @param budget shared by all that check at the same time; at least as large as the largest
    /// block
    BlockVerifier(const Limits& limits, MemoryBudget& budget);

    /// Checks the file at `path`, and follows no link there. Not while another one is begun.
    BlockVerdict check(const std::string& path, const BlockName& name);

    /// The same, but that the verdict may be given out by a later call only, for the digest to be
    /// computed together with others. Each call may give out the verdicts of several files.
    void begin(const std::string& path, const BlockName& name, std::size_t tag,
               const Receiver& receive);

    /// Gives out the verdicts that are still to come.
    void finish(const Receiver& receive);

private:
    // A file that is being checked. It stays open until its verdict, to tell whether it changed.
    struct Slot
    {
        explicit Slot(qint64 keptBytes) : m_Buffer(keptBytes) {}

        FileReader m_Reader;
        BlockBuffer m_Buffer;
        BlockName m_Name;
        std::size_t m_Tag = 0;
        bool m_IsOpen = false;
        // The bytes of the block while they wait for their digest; null when they do not.
        const unsigned char* m_Bytes = nullptr;
        qint64 m_Size = 0;
    };

    /// The verdict, unless the slot comes to wait for its digest.
    BlockVerdict examine(Slot& slot, const std::string& path);
    BlockVerdict checkOpen(Slot& slot);
    BlockVerdict checkHeader(const Slot& slot, const BlockHeader& header) const;
    BlockVerdict checkPayload(Slot& slot, const BlockHeader& header);

    /// Decompresses the payload of the open file, whose first piece has been read, to `out`, which
    /// has room for one byte more than the block has.
    BlockVerdict inflate(Slot& slot, const BlockHeader& header, unsigned char* out);

    static void conclude(Slot& slot, BlockVerdict verdict, const Receiver& receive);

    const Limits m_Limits;
    const qint64 m_KeptBySlot;
    MemoryBudget& m_Budget;
    // As many as are digested together; the first m_Waiting wait for their digests.
    std::vector<std::unique_ptr<Slot>> m_Slots;
    std::size_t m_Waiting;
    BlockInflater m_Inflater;
    // The piece of the file that was read last.
    QByteArray m_Piece;
};
