#include "tools/cache/VerdictText.h"

namespace {

struct Words
{
    const char* m_Key;
    const char* m_What;
    const char* m_Advice;
};

const char* const s_Repair = "move it out with zebtdx repair, then add its bytes again";

Words wordsOf(ZebBlockFinding finding)
{
    switch (finding) {
    case ZebBlockFinding::Sound:
        return {"sound", "is sound", "no action needed"};
    case ZebBlockFinding::NoPlace:
        return {"no_place", "has a name that no store with this many roots can use",
                "pass all roots in their order, or move it out with zebtdx repair "
                "--move-misplaced"};
    case ZebBlockFinding::Misplaced:
        return {"misplaced", "is in a place where the store does not look for it",
                "pass all roots in their order and the right --buckets, or move it out with zebtdx "
                "repair --move-misplaced"};
    case ZebBlockFinding::BadBlockSize:
        return {"bad_block_size", "has an invalid block size in its header", s_Repair};
    case ZebBlockFinding::BadPayloadSize:
        return {"bad_payload_size", "has an invalid payload size in its header", s_Repair};
    case ZebBlockFinding::TooShort:
        return {"too_short", "is shorter than its header says", s_Repair};
    case ZebBlockFinding::TrailingBytes:
        return {"trailing_bytes", "has bytes after its payload", s_Repair};
    case ZebBlockFinding::SizesDiffer:
        return {"sizes_differ", "names two different block sizes", s_Repair};
    case ZebBlockFinding::TooLarge:
        return {"too_large", "names a block size above the limit",
                "check it again with a higher --largest; repair leaves it in place"};
    case ZebBlockFinding::BrokenPayload:
        return {"broken_payload", "has a payload that does not decompress", s_Repair};
    case ZebBlockFinding::LengthDiffers:
        return {"length_differs", "has a payload that decompresses to another size", s_Repair};
    case ZebBlockFinding::DigestDiffers:
        return {"digest_differs", "contains bytes that do not match its name", s_Repair};
    case ZebBlockFinding::Unreadable:
        return {"unreadable", "cannot be read",
                "check the disk, move the file out with zebtdx repair, then add its bytes again"};
    case ZebBlockFinding::Truncated:
        return {"truncated", "is the beginning of an interrupted write",
                "no action needed: the store treats it as missing and replaces it"};
    case ZebBlockFinding::Removed:
        return {"removed", "was removed during the check", "no action needed"};
    case ZebBlockFinding::Changed:
        return {"changed", "changed while it was being read",
                "check again while no process writes"};
    case ZebBlockFinding::NotChecked:
        break;
    }
    return {"not_checked", "could not be checked", "fix the cause and check again"};
}

} // namespace

std::string VerdictText::what(const ZebBlockVerdict& verdict)
{
    const std::string text = wordsOf(verdict.m_Finding).m_What;
    return verdict.m_Detail.empty() ? text : text + " (" + verdict.m_Detail + ")";
}

std::string VerdictText::line(const ZebBlockVerdict& verdict)
{
    return what(verdict) + "; " + wordsOf(verdict.m_Finding).m_Advice;
}

const char* VerdictText::key(ZebBlockFinding finding)
{
    return wordsOf(finding).m_Key;
}
