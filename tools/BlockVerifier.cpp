#include "tools/BlockVerifier.h"

#include "tools/BlockHeader.h"
#include "tools/BlockName.h"
#include "tools/FileKind.h"
#include "tools/MemoryBudget.h"

#include <algorithm>
#include <cerrno>
#include <memory>

namespace {

constexpr qint64 s_PieceBytes = 65536;

// The size that the payload begins with.
constexpr qint64 s_PayloadSizeBytes = 4;
constexpr qint64 s_FixedBytes = BlockHeader::s_Bytes + s_PayloadSizeBytes;

// No zlib stream decompresses to more than this many times its bytes.
constexpr qint64 s_MostRatio = 1040;

std::string number(qint64 value)
{
    return std::to_string(value);
}

} // namespace

BlockVerifier::BlockVerifier(const Limits& limits, MemoryBudget& budget)
    : m_Limits(limits), m_Budget(budget), m_Buffer(limits.m_KeptBytes)
{
    // Keeps its room whatever is read into it.
    m_Piece.reserve(s_PieceBytes);
}

BlockVerdict BlockVerifier::check(const std::string& path, const BlockName& name)
{
    const std::string reason = m_Reader.open(path, FileReader::Links::Refuse);
    if (!reason.empty()) {
        return reason == FileKind::errorText(ENOENT)
                   ? BlockVerdict{BlockFinding::Gone}
                   : BlockVerdict{BlockFinding::NotChecked, reason};
    }
    BlockVerdict verdict = checkOpen(name);
    // A process that writes it right now is no damage.
    if (verdict.m_Finding != BlockFinding::Sound && m_Reader.hasChanged())
        return {BlockFinding::Changed};
    return verdict;
}

BlockVerdict BlockVerifier::checkOpen(const BlockName& name)
{
    const qint64 wanted =
        std::min(m_Limits.m_Fast ? s_FixedBytes : s_PieceBytes, m_Reader.stamp().m_Size);
    const std::string reason = m_Reader.readBlock(0, wanted, m_Piece);
    if (!reason.empty())
        return {BlockFinding::Unreadable, reason};
    if (m_Piece.size() < BlockHeader::s_Bytes)
        return {BlockFinding::Stump, number(m_Piece.size()) + " bytes"};
    BlockHeader header;
    header.take(m_Piece.constData());
    BlockVerdict verdict = checkHeader(header);
    if (verdict.m_Finding != BlockFinding::Sound || m_Limits.m_Fast)
        return verdict;
    return checkPayload(header, name);
}

BlockVerdict BlockVerifier::checkHeader(const BlockHeader& header) const
{
    const qint64 behind = m_Reader.stamp().m_Size - BlockHeader::s_Bytes;
    // A stump of this length is read all the same when it says that nothing follows.
    if (behind <= 0 && header.m_PayloadSize != 0)
        return {BlockFinding::Stump, number(BlockHeader::s_Bytes) + " bytes"};
    if (header.m_BlockSize < 0 || header.m_BlockSize > s_MostBlockBytes)
        return {BlockFinding::BadSize, number(header.m_BlockSize) + " bytes"};
    if (header.m_PayloadSize < s_PayloadSizeBytes)
        return {BlockFinding::BadLength, number(header.m_PayloadSize) + " bytes"};
    const bool isShort = header.m_PayloadSize > behind || m_Piece.size() < s_FixedBytes;
    if (isShort || header.m_PayloadSize < behind) {
        return {isShort ? BlockFinding::CutShort : BlockFinding::BytesBehind,
                number(header.m_PayloadSize) + " bytes should follow the header, " +
                    number(behind) + " do"};
    }
    const qint64 plainSize = BlockHeader::plainSizeOf(m_Piece.constData() + BlockHeader::s_Bytes);
    if (plainSize != header.m_BlockSize)
        return {BlockFinding::SizesDiffer,
                number(header.m_BlockSize) + " and " + number(plainSize) + " bytes"};
    if (header.m_BlockSize > m_Limits.m_LargestBlock)
        return {BlockFinding::TooLarge, number(header.m_BlockSize) + " bytes"};
    return {};
}

BlockVerdict BlockVerifier::checkPayload(const BlockHeader& header, const BlockName& name)
{
    const qint64 room = header.m_BlockSize + 1;
    if (header.m_BlockSize > qint64(header.m_PayloadSize) * s_MostRatio)
        return {BlockFinding::LengthDiffers, number(header.m_BlockSize) +
                                                 " bytes do not come from " +
                                                 number(header.m_PayloadSize)};
    std::unique_ptr<MemoryBudget::Share> share;
    if (room > m_Limits.m_KeptBytes)
        share = std::make_unique<MemoryBudget::Share>(m_Budget, header.m_BlockSize);
    unsigned char* const out = m_Buffer.take(room);
    BlockVerdict verdict = inflate(header, out);
    if (verdict.m_Finding == BlockFinding::Sound && !name.isDigestOf(out, header.m_BlockSize))
        verdict.m_Finding = BlockFinding::DigestDiffers;
    m_Buffer.leave();
    return verdict;
}

BlockVerdict BlockVerifier::inflate(const BlockHeader& header, unsigned char* out)
{
    // An empty block has no stream at all.
    if (header.m_PayloadSize == s_PayloadSizeBytes && header.m_BlockSize == 0)
        return {};
    m_Inflater.begin(out, header.m_BlockSize + 1);
    const qint64 end = BlockHeader::s_Bytes + header.m_PayloadSize;
    qint64 done = s_FixedBytes;
    const char* bytes = m_Piece.constData() + s_FixedBytes;
    qint64 size = m_Piece.size() - s_FixedBytes;
    BlockInflater::State state = BlockInflater::State::Hungry;
    for (;;) {
        state = m_Inflater.feed(bytes, size);
        done += size;
        if (state != BlockInflater::State::Hungry || done >= end)
            break;
        const std::string reason =
            m_Reader.readBlock(done, std::min(s_PieceBytes, end - done), m_Piece);
        if (!reason.empty())
            return {BlockFinding::Unreadable, reason};
        bytes = m_Piece.constData();
        size = m_Piece.size();
        if (size == 0)
            return {BlockFinding::CutShort, "at byte " + number(done)};
    }
    const std::string produced = number(m_Inflater.produced());
    if (state == BlockInflater::State::Broken)
        return {BlockFinding::BrokenPayload, m_Inflater.reason()};
    if (state == BlockInflater::State::Full || m_Inflater.produced() > header.m_BlockSize)
        return {BlockFinding::LengthDiffers, "more than " + number(header.m_BlockSize) + " bytes"};
    if (state == BlockInflater::State::Hungry)
        return {BlockFinding::BrokenPayload, "its end is missing"};
    if (m_Inflater.unused() > 0 || done < end)
        return {BlockFinding::BrokenPayload, "it ends before its last byte"};
    if (m_Inflater.produced() != header.m_BlockSize)
        return {BlockFinding::LengthDiffers,
                produced + " bytes in place of " + number(header.m_BlockSize)};
    return {};
}
