#include "tools/cache/BlockVerifier.h"

#include "hash/SkeinBatch.h"
#include "tools/cache/BlockHeader.h"
#include "tools/cache/MemoryBudget.h"
#include "tools/files/FileKind.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <new>

namespace {

constexpr qint64 s_PieceBytes = 65536;

// The size that the payload begins with.
constexpr qint64 s_PayloadSizeBytes = 4;
constexpr qint64 s_FixedBytes = BlockHeader::s_Bytes + s_PayloadSizeBytes;

// No zlib stream decompresses to more than this many times its bytes.
constexpr qint64 s_MostRatio = 1040;

// With less for each it does not pay to keep blocks back. It also bounds how many files very many
// threads have open.
constexpr qint64 s_LeastKept = 64LL * 1024;

// How many blocks are kept for a digest together in so much memory.
qint64 slotsFor(qint64 keptBytes)
{
    const auto lanes = static_cast<qint64>(ZebSkein::SkeinBatch::lanes());
    return keptBytes / lanes >= s_LeastKept ? lanes : 1;
}

const char* const s_NoMemory = "out of memory";

std::string number(qint64 value)
{
    return std::to_string(value);
}

} // namespace

BlockVerifier::BlockVerifier(const Limits& limits, MemoryBudget& budget)
    : m_Limits(limits),
      m_KeptBySlot(limits.m_KeptBytes / slotsFor(limits.m_KeptBytes)),
      m_Budget(budget),
      m_Waiting(0)
{
    for (qint64 i = 0; i < slotsFor(limits.m_KeptBytes); ++i)
        m_Slots.push_back(std::make_unique<Slot>(m_KeptBySlot));
    // Keeps its room whatever is read into it.
    m_Piece.reserve(s_PieceBytes);
}

BlockVerdict BlockVerifier::check(const std::string& path, const BlockName& name)
{
    BlockVerdict found;
    const Receiver receive = [&found](std::size_t, const BlockVerdict& verdict, const FileStamp*) {
        found = verdict;
    };
    begin(path, name, 0, receive);
    finish(receive);
    return found;
}

void BlockVerifier::begin(const std::string& path, const BlockName& name, std::size_t tag,
                          const Receiver& receive)
{
    Slot& slot = *m_Slots[m_Waiting];
    slot.m_Name = name;
    slot.m_Tag = tag;
    slot.m_Bytes = nullptr;
    slot.m_IsOpen = false;
    BlockVerdict verdict;
    try {
        verdict = examine(slot, path);
    } catch (const std::bad_alloc&) {
        slot.m_Bytes = nullptr;
        verdict = {BlockFinding::NotChecked, s_NoMemory};
    }
    if (slot.m_Bytes == nullptr) {
        conclude(slot, verdict, receive);
        return;
    }
    ++m_Waiting;
    if (m_Waiting == m_Slots.size())
        finish(receive);
}

void BlockVerifier::finish(const Receiver& receive)
{
    const std::size_t count = m_Waiting;
    m_Waiting = 0;
    try {
        std::vector<ZebSkein::SkeinBatch::Content> contents;
        contents.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            const Slot& slot = *m_Slots[i];
            contents.push_back({slot.m_Bytes, static_cast<std::uint64_t>(slot.m_Size)});
        }
        bool isRight[ZebSkein::SkeinLaneSet::s_MostLanes] = {};
        ZebSkein::SkeinBatch::digest(
            contents, [this, &isRight](std::size_t index, const unsigned char* digest) {
                isRight[index] = m_Slots[index]->m_Name.isOf(digest);
            });
        for (std::size_t i = 0; i < count; ++i) {
            conclude(*m_Slots[i], {isRight[i] ? BlockFinding::Sound : BlockFinding::DigestDiffers},
                     receive);
        }
    } catch (const std::bad_alloc&) {
        for (std::size_t i = 0; i < count; ++i) {
            if (m_Slots[i]->m_Bytes != nullptr)
                conclude(*m_Slots[i], {BlockFinding::NotChecked, s_NoMemory}, receive);
        }
    }
}

void BlockVerifier::conclude(Slot& slot, BlockVerdict verdict, const Receiver& receive)
{
    slot.m_Bytes = nullptr;
    slot.m_Buffer.leave();
    // A process that writes it right now is no damage.
    const bool isSettled =
        verdict.m_Finding == BlockFinding::Sound || verdict.m_Finding == BlockFinding::NotChecked;
    if (slot.m_IsOpen && !isSettled && slot.m_Reader.hasChanged())
        verdict = {BlockFinding::Changed};
    receive(slot.m_Tag, verdict, slot.m_IsOpen ? &slot.m_Reader.stamp() : nullptr);
}

BlockVerdict BlockVerifier::examine(Slot& slot, const std::string& path)
{
    const std::string reason = slot.m_Reader.open(path, FileReader::Links::Refuse);
    if (!reason.empty()) {
        return reason == FileKind::errorText(ENOENT)
                   ? BlockVerdict{BlockFinding::Gone}
                   : BlockVerdict{BlockFinding::NotChecked, reason};
    }
    slot.m_IsOpen = true;
    return checkOpen(slot);
}

BlockVerdict BlockVerifier::checkOpen(Slot& slot)
{
    const qint64 wanted =
        std::min(m_Limits.m_Fast ? s_FixedBytes : s_PieceBytes, slot.m_Reader.stamp().m_Size);
    const std::string reason = slot.m_Reader.readBlock(0, wanted, m_Piece);
    if (!reason.empty())
        return {BlockFinding::Unreadable, reason};
    if (m_Piece.size() < BlockHeader::s_Bytes)
        return {BlockFinding::Stump, number(m_Piece.size()) + " bytes"};
    BlockHeader header;
    header.take(m_Piece.constData());
    BlockVerdict verdict = checkHeader(slot, header);
    if (verdict.m_Finding != BlockFinding::Sound || m_Limits.m_Fast)
        return verdict;
    return checkPayload(slot, header);
}

BlockVerdict BlockVerifier::checkHeader(const Slot& slot, const BlockHeader& header) const
{
    const qint64 behind = slot.m_Reader.stamp().m_Size - BlockHeader::s_Bytes;
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

BlockVerdict BlockVerifier::checkPayload(Slot& slot, const BlockHeader& header)
{
    const qint64 room = header.m_BlockSize + 1;
    if (header.m_BlockSize > qint64(header.m_PayloadSize) * s_MostRatio)
        return {BlockFinding::LengthDiffers, number(header.m_BlockSize) +
                                                 " bytes do not come from " +
                                                 number(header.m_PayloadSize)};
    // A share is held for this one block only: to wait for others meanwhile would keep theirs
    // from them.
    const bool isLarge = room > m_KeptBySlot;
    std::unique_ptr<MemoryBudget::Share> share;
    if (isLarge)
        share = std::make_unique<MemoryBudget::Share>(m_Budget, header.m_BlockSize);
    unsigned char* const out = slot.m_Buffer.take(room);
    BlockVerdict verdict = inflate(slot, header, out);
    if (verdict.m_Finding == BlockFinding::Sound) {
        if (!isLarge) {
            slot.m_Bytes = out;
            slot.m_Size = header.m_BlockSize;
            return verdict;
        }
        if (!slot.m_Name.isDigestOf(out, header.m_BlockSize))
            verdict.m_Finding = BlockFinding::DigestDiffers;
    }
    slot.m_Buffer.leave();
    return verdict;
}

BlockVerdict BlockVerifier::inflate(Slot& slot, const BlockHeader& header, unsigned char* out)
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
            slot.m_Reader.readBlock(done, std::min(s_PieceBytes, end - done), m_Piece);
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
