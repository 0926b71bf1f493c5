#pragma once

#include "tools/BlockBuffer.h"
#include "tools/BlockFinding.h"
#include "tools/BlockInflater.h"
#include "tools/FileReader.h"

#include <QByteArray>
#include <QtGlobal>

#include <string>

class BlockName;
class MemoryBudget;
struct BlockHeader;

/// Checks block files, one after another: the header, whether the payload decompresses to as many
/// bytes as it says, and whether these are the bytes of the name. Reads each file once, in pieces,
/// and writes nothing. Whatever a file claims, no more memory is taken than the limit of a block.
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
        /// Memory that is kept between blocks. A larger block takes a share of the budget.
        qint64 m_KeptBytes = 0;
    };

    /// No block of a store is larger.
    static constexpr qint64 s_MostBlockBytes = 0x7FFFFFFF;

    /// @param budget shared by all that check at the same time; at least as large as the largest
    /// block
    BlockVerifier(const Limits& limits, MemoryBudget& budget);

    /// Checks the file at `path`, and follows no link there.
    BlockVerdict check(const std::string& path, const BlockName& name);

private:
    BlockVerdict checkOpen(const BlockName& name);
    BlockVerdict checkHeader(const BlockHeader& header) const;
    BlockVerdict checkPayload(const BlockHeader& header, const BlockName& name);

    /// Decompresses the payload of the open file, whose first piece has been read, to `out`, which
    /// has room for one byte more than the block has.
    BlockVerdict inflate(const BlockHeader& header, unsigned char* out);

    const Limits m_Limits;
    MemoryBudget& m_Budget;
    FileReader m_Reader;
    BlockInflater m_Inflater;
    BlockBuffer m_Buffer;
    // The piece of the file that was read last.
    QByteArray m_Piece;
};
