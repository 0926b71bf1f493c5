#pragma once

#include <string>

/// What became of the check of one block file.
enum class BlockFinding
{
    Sound,

    // Damage, in the order in which it is looked for.
    NoPlace,
    Misplaced,
    BadSize,
    BadLength,
    CutShort,
    BytesBehind,
    SizesDiffer,
    TooLarge,
    BrokenPayload,
    LengthDiffers,
    DigestDiffers,
    Unreadable,

    // No damage, and no sound block either.
    Stump,
    Gone,
    Changed,
    NotChecked
};

/// A finding, and the figures to it.
struct BlockVerdict
{
    BlockFinding m_Finding = BlockFinding::Sound;
    /// May be empty.
    std::string m_Detail = {};

    /// Whether somebody might read wrong bytes or none, for what is wrong with the file.
    bool isDamage() const;

    /// Whether a repair moves the file away.
    bool isToBeMoved() const;

    /// What is wrong and what to do about it, in one line.
    std::string line() const;

    /// What a finding is called for programs: "cut_short".
    static const char* key(BlockFinding finding);
};
