#pragma once

// Internal: what the check of a block file can find. Not installed.

#include <string>

/// What the check of one block file found.
enum class ZebBlockFinding
{
    Sound,

    // Damage, in the order in which the check looks for it.
    NoPlace,
    Misplaced,
    BadBlockSize,
    BadPayloadSize,
    TooShort,
    TrailingBytes,
    SizesDiffer,
    TooLarge,
    BrokenPayload,
    LengthDiffers,
    DigestDiffers,
    Unreadable,

    // No damage, but no sound block either.
    Truncated,
    Removed,
    Changed,
    NotChecked
};

/// A finding with its figures.
struct ZebBlockVerdict
{
    ZebBlockFinding m_Finding = ZebBlockFinding::Sound;
    /// For people; may be empty.
    std::string m_Detail = {};

    /// Whether a reader could get wrong bytes or none because of the file itself.
    bool isDamage() const
    {
        return m_Finding >= ZebBlockFinding::NoPlace && m_Finding <= ZebBlockFinding::Unreadable;
    }
};
