#include "io/ZebBlockFileChecker.h"

#include "hash/SkeinBatch.h"
#include "io/ZebMemoryBudget.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <new>
#include <system_error>

#include <sys/mman.h>

namespace {

constexpr qint64 s_PieceBytes = 65536;
constexpr qint64 s_FixedBytes = ZebBlockFile::s_HeaderBytes + ZebBlockFile::s_PlainSizeBytes;

// With less for each, keeping blocks back does not pay. Also bounds the number of open files.
constexpr qint64 s_LeastKept = 64LL * 1024;

const char* const s_NoMemory = "out of memory";

// How many blocks to keep for a common digest in this much memory.
std::size_t slotsFor(qint64 keptBytes)
{
    const std::size_t lanes = ZebSkein::SkeinBatch::lanes();
    return keptBytes / static_cast<qint64>(lanes) >= s_LeastKept ? lanes : 1;
}

std::string bytes(qint64 count)
{
    return std::to_string(count) + " bytes";
}

} // namespace

void ZebBlockFileChecker::Unmap::operator()(unsigned char* memory) const
{
    ::munmap(memory, m_Size);
}

ZebBlockFileChecker::Memory ZebBlockFileChecker::allocate(qint64 bytes)
{
    const auto size = static_cast<std::size_t>(bytes);
    void* const memory =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    return Memory(static_cast<unsigned char*>(memory), Unmap{size});
}

ZebBlockFileChecker::ZebBlockFileChecker(const Limits& limits, ZebMemoryBudget& budget)
    : m_Limits(limits),
      m_Slots(slotsFor(limits.m_KeptBytes)),
      m_KeptBySlot(limits.m_KeptBytes / static_cast<qint64>(m_Slots.size())),
      m_Budget(budget),
      m_Waiting(0)
{
    // Keeps its room whatever is read into it.
    m_Piece.reserve(s_PieceBytes);
}

ZebBlockVerdict ZebBlockFileChecker::check(const std::string& path, const ZebBlockName& name)
{
    ZebBlockVerdict found;
    const Receiver receive = [&found](std::size_t, const ZebBlockVerdict& verdict,
                                      const ZebFileStamp*) {
        found = verdict;
    };
    begin(path, name, 0, receive);
    finish(receive);
    return found;
}

void ZebBlockFileChecker::begin(const std::string& path, const ZebBlockName& name, std::size_t tag,
                                const Receiver& receive)
{
    Slot& slot = m_Slots[m_Waiting];
    slot.m_Name = name;
    slot.m_Tag = tag;
    slot.m_IsWaiting = false;
    slot.m_IsOpen = false;
    ZebBlockVerdict verdict;
    try {
        verdict = examine(slot, path);
    } catch (const std::bad_alloc&) {
        verdict = {ZebBlockFinding::NotChecked, s_NoMemory};
    }
    if (!slot.m_IsWaiting) {
        conclude(slot, verdict, receive);
        return;
    }
    ++m_Waiting;
    if (m_Waiting == m_Slots.size())
        finish(receive);
}

void ZebBlockFileChecker::finish(const Receiver& receive)
{
    const std::size_t count = m_Waiting;
    m_Waiting = 0;
    try {
        std::vector<ZebSkein::SkeinBatch::Content> blocks;
        blocks.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            const Slot& slot = m_Slots[i];
            blocks.push_back({slot.m_Memory.get(), static_cast<std::uint64_t>(slot.m_Size)});
        }
        bool isRight[ZebSkein::SkeinLaneSet::s_MostLanes] = {};
        ZebSkein::SkeinBatch::digest(
            blocks, [this, &isRight](std::size_t index, const unsigned char* digest) {
                isRight[index] = m_Slots[index].m_Name.isOf(digest);
            });
        for (std::size_t i = 0; i < count; ++i) {
            conclude(m_Slots[i],
                     {isRight[i] ? ZebBlockFinding::Sound : ZebBlockFinding::DigestDiffers},
                     receive);
        }
    } catch (const std::bad_alloc&) {
        for (std::size_t i = 0; i < count; ++i) {
            if (m_Slots[i].m_IsWaiting)
                conclude(m_Slots[i], {ZebBlockFinding::NotChecked, s_NoMemory}, receive);
        }
    }
}

bool ZebBlockFileChecker::isNamedByPayload(Slot& slot)
{
    // The header has been checked: all that follows it is payload.
    const qint64 size = slot.m_Reader.stamp().m_Size - ZebBlockFile::s_HeaderBytes;
    if (size > m_Limits.m_LargestBlock)
        return false;
    const ZebMemoryBudget::Share share(m_Budget, size);
    QByteArray payload;
    return slot.m_Reader.readBlock(ZebBlockFile::s_HeaderBytes, size, payload) == 0 &&
           slot.m_Name.isDigestOf(reinterpret_cast<const unsigned char*>(payload.constData()),
                                  payload.size());
}

void ZebBlockFileChecker::conclude(Slot& slot, ZebBlockVerdict verdict, const Receiver& receive)
{
    slot.m_IsWaiting = false;
    try {
        if (verdict.m_Finding == ZebBlockFinding::DigestDiffers && isNamedByPayload(slot))
            verdict = {};
    } catch (const std::bad_alloc&) {
        verdict = {ZebBlockFinding::NotChecked, s_NoMemory};
    }
    // A process that is writing the file is no damage.
    const bool isSettled = verdict.m_Finding == ZebBlockFinding::Sound ||
                           verdict.m_Finding == ZebBlockFinding::NotChecked;
    if (slot.m_IsOpen && !isSettled && slot.m_Reader.hasChanged())
        verdict = {ZebBlockFinding::Changed};
    receive(slot.m_Tag, verdict, slot.m_IsOpen ? &slot.m_Reader.stamp() : nullptr);
}

ZebBlockVerdict ZebBlockFileChecker::examine(Slot& slot, const std::string& path)
{
    int error = slot.m_Reader.open(path, ZebFileReader::Links::Refuse);
    if (error == ENOENT)
        return {ZebBlockFinding::Removed};
    if (error == ZebFileReader::s_NotRegular)
        return {ZebBlockFinding::NotChecked, "not a regular file"};
    if (error != 0)
        return {ZebBlockFinding::NotChecked, std::generic_category().message(error)};
    slot.m_IsOpen = true;
    const qint64 wanted =
        std::min(m_Limits.m_Fast ? s_FixedBytes : s_PieceBytes, slot.m_Reader.stamp().m_Size);
    error = slot.m_Reader.readBlock(0, wanted, m_Piece);
    if (error != 0)
        return {ZebBlockFinding::Unreadable, std::generic_category().message(error)};
    if (m_Piece.size() < ZebBlockFile::s_HeaderBytes)
        return {ZebBlockFinding::Truncated, bytes(m_Piece.size())};
    const Header header = Header::decode(m_Piece.constData());
    ZebBlockVerdict verdict = checkHeader(slot, header);
    if (verdict.m_Finding == ZebBlockFinding::Sound && !m_Limits.m_Fast)
        verdict = checkPayload(slot, header);
    return verdict;
}

ZebBlockVerdict ZebBlockFileChecker::checkHeader(const Slot& slot, const Header& header) const
{
    const qint64 following = slot.m_Reader.stamp().m_Size - ZebBlockFile::s_HeaderBytes;
    // The store reads a bare header that says that nothing follows as an empty block.
    if (following <= 0 && header.m_PayloadBytes != 0)
        return {ZebBlockFinding::Truncated, bytes(ZebBlockFile::s_HeaderBytes)};
    if (header.m_BlockBytes < 0 || header.m_BlockBytes > ZebBlockFile::s_MaxBlockBytes)
        return {ZebBlockFinding::BadBlockSize, bytes(header.m_BlockBytes)};
    if (header.m_PayloadBytes < ZebBlockFile::s_PlainSizeBytes)
        return {ZebBlockFinding::BadPayloadSize, bytes(header.m_PayloadBytes)};
    const bool isShort = !header.isPayloadWithin(following) || m_Piece.size() < s_FixedBytes;
    if (isShort || header.m_PayloadBytes < following) {
        return {isShort ? ZebBlockFinding::TooShort : ZebBlockFinding::TrailingBytes,
                bytes(following) + " after the header instead of " +
                    std::to_string(header.m_PayloadBytes)};
    }
    const qint64 plainSize =
        ZebBlockFile::plainSizeOf(m_Piece.constData() + ZebBlockFile::s_HeaderBytes);
    if (plainSize != header.m_BlockBytes)
        return {ZebBlockFinding::SizesDiffer,
                std::to_string(header.m_BlockBytes) + " and " + bytes(plainSize)};
    if (header.m_BlockBytes > m_Limits.m_LargestBlock)
        return {ZebBlockFinding::TooLarge, bytes(header.m_BlockBytes)};
    return {};
}

ZebBlockVerdict ZebBlockFileChecker::checkPayload(Slot& slot, const Header& header)
{
    const qint64 size = header.m_BlockBytes;
    const qint64 room = size + 1;
    if (size > qint64(header.m_PayloadBytes) * ZebBlockFile::s_MaxExpansion)
        return {ZebBlockFinding::LengthDiffers,
                bytes(header.m_PayloadBytes) + " cannot decompress to " + std::to_string(size)};
    if (room <= m_KeptBySlot) {
        if (slot.m_Memory == nullptr)
            slot.m_Memory = allocate(m_KeptBySlot);
        slot.m_Size = size;
        ZebBlockVerdict verdict = inflate(slot, header, slot.m_Memory.get());
        slot.m_IsWaiting = verdict.m_Finding == ZebBlockFinding::Sound;
        return verdict;
    }
    // Digested at once, so that this thread holds its share for no longer than one block.
    const ZebMemoryBudget::Share share(m_Budget, size);
    const Memory memory = allocate(room);
    ZebBlockVerdict verdict = inflate(slot, header, memory.get());
    if (verdict.m_Finding == ZebBlockFinding::Sound && !slot.m_Name.isDigestOf(memory.get(), size))
        verdict.m_Finding = ZebBlockFinding::DigestDiffers;
    return verdict;
}

ZebBlockVerdict ZebBlockFileChecker::inflate(Slot& slot, const Header& header, unsigned char* out)
{
    // An empty block has no stream at all.
    if (header.m_PayloadBytes == ZebBlockFile::s_PlainSizeBytes && header.m_BlockBytes == 0)
        return {};
    m_Inflater.begin(out, header.m_BlockBytes + 1);
    const qint64 end = ZebBlockFile::s_HeaderBytes + header.m_PayloadBytes;
    qint64 done = s_FixedBytes;
    const char* next = m_Piece.constData() + s_FixedBytes;
    qint64 size = m_Piece.size() - s_FixedBytes;
    ZebBlockInflater::State state = ZebBlockInflater::State::Hungry;
    for (;;) {
        state = m_Inflater.feed(next, size);
        done += size;
        if (state != ZebBlockInflater::State::Hungry || done >= end)
            break;
        const int error =
            slot.m_Reader.readBlock(done, std::min(s_PieceBytes, end - done), m_Piece);
        if (error != 0)
            return {ZebBlockFinding::Unreadable, std::generic_category().message(error)};
        next = m_Piece.constData();
        size = m_Piece.size();
        if (size == 0)
            return {ZebBlockFinding::TooShort, "at byte " + std::to_string(done)};
    }
    const qint64 produced = m_Inflater.produced();
    if (state == ZebBlockInflater::State::Broken)
        return {ZebBlockFinding::BrokenPayload, m_Inflater.reason()};
    if (state == ZebBlockInflater::State::Full || produced > header.m_BlockBytes)
        return {ZebBlockFinding::LengthDiffers, "more than " + bytes(header.m_BlockBytes)};
    if (state == ZebBlockInflater::State::Hungry)
        return {ZebBlockFinding::BrokenPayload, "its end is missing"};
    if (m_Inflater.unused() > 0 || done < end)
        return {ZebBlockFinding::BrokenPayload, "it ends before its last byte"};
    if (produced != header.m_BlockBytes)
        return {ZebBlockFinding::LengthDiffers,
                bytes(produced) + " instead of " + std::to_string(header.m_BlockBytes)};
    return {};
}
