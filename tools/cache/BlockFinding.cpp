#include "tools/cache/BlockFinding.h"

namespace {

struct Words
{
    const char* m_Key;
    const char* m_What;
    const char* m_Advice;
};

const char* const s_MoveAndAdd = "move it away by repair, and add its bytes again";

Words wordsOf(BlockFinding finding)
{
    switch (finding) {
    case BlockFinding::Sound:
        return {"sound", "is sound", "nothing is to be done"};
    case BlockFinding::NoPlace:
        return {"no_place", "has a name that no store can use with so many roots",
                "give all roots in their order, or move it away by repair"};
    case BlockFinding::Misplaced:
        return {"misplaced", "lies where nobody looks for it",
                "give the roots in their order and the right --buckets, or move it away by repair"};
    case BlockFinding::BadSize:
        return {"bad_size", "says a size that no block has", s_MoveAndAdd};
    case BlockFinding::BadLength:
        return {"bad_length", "says a length that no payload has", s_MoveAndAdd};
    case BlockFinding::CutShort:
        return {"cut_short", "is cut short", s_MoveAndAdd};
    case BlockFinding::BytesBehind:
        return {"bytes_behind", "goes on behind its payload", s_MoveAndAdd};
    case BlockFinding::SizesDiffer:
        return {"sizes_differ", "says two different sizes", s_MoveAndAdd};
    case BlockFinding::TooLarge:
        return {"too_large", "says a size above the limit",
                "check it again with a higher --largest; repair leaves it"};
    case BlockFinding::BrokenPayload:
        return {"broken_payload", "has a payload that cannot be decompressed", s_MoveAndAdd};
    case BlockFinding::LengthDiffers:
        return {"length_differs", "has a payload of another size than it says", s_MoveAndAdd};
    case BlockFinding::DigestDiffers:
        return {"digest_differs", "holds other bytes than its name says", s_MoveAndAdd};
    case BlockFinding::Unreadable:
        return {"unreadable", "cannot be read",
                "look after the disk, then move it away by repair, and add its bytes again"};
    case BlockFinding::Stump:
        return {"stump", "is the stump of a write that was broken off",
                "nothing is to be done: the store takes it for missing, and replaces it"};
    case BlockFinding::Gone:
        return {"gone", "has gone since it was found", "nothing is to be done"};
    case BlockFinding::Changed:
        return {"changed", "changed while it was read", "check again when no process writes"};
    case BlockFinding::NotChecked:
        break;
    }
    return {"not_checked", "could not be checked", "see to that, and check again"};
}

} // namespace

bool BlockVerdict::isDamage() const
{
    return m_Finding >= BlockFinding::NoPlace && m_Finding <= BlockFinding::Unreadable;
}

bool BlockVerdict::isToBeMoved() const
{
    return isDamage() && m_Finding != BlockFinding::TooLarge;
}

std::string BlockVerdict::line() const
{
    const Words words = wordsOf(m_Finding);
    std::string text = words.m_What;
    if (!m_Detail.empty())
        text += " (" + m_Detail + ")";
    return text + "; " + words.m_Advice;
}

const char* BlockVerdict::key(BlockFinding finding)
{
    return wordsOf(finding).m_Key;
}
