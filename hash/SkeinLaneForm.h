#pragma once

#include "hash/Skein.h"

#include <cstddef>
#include <vector>

namespace ZebSkein {

/// The state of up to eight messages of Skein-512 whose blocks are taken in side by side, one
/// message in each lane. A form with fewer lanes uses the first columns.
///
/// Each lane stands at a place of its own in a message of its own: chaining value, tweak and data
/// belong to it alone.
struct SkeinLaneSet
{
    static constexpr std::size_t s_MostLanes = 8;
    static constexpr std::size_t s_Words = 8;

    /// The chaining values; a row holds one word of every lane.
    alignas(64) Word chain[s_Words][s_MostLanes];

    /// The tweak of each lane, as in Tweak: what has been taken in before, and the flags of the
    /// next block.
    alignas(64) Word position[s_MostLanes];
    alignas(64) Word flags[s_MostLanes];

    /// How many bytes of each block count.
    alignas(64) Word bytesPerBlock[s_MostLanes];

    /// The next block of each lane, at any alignment. Never null in a lane that the form has.
    const unsigned char* data[s_MostLanes];
};

/// A way to take in the blocks of several messages at once, made for one kind of processor.
///
/// Internal to the library: this header is not installed, and its symbols are hidden.
///
/// Thread safety: a form is a constant, and its function has no state of its own.
struct SkeinLaneForm
{
    const char* name;

    /// How many messages go side by side; 1 is the form that digests one by one.
    std::size_t lanes;

    /// From how many messages on the lanes are quicker than one by one.
    std::size_t fewest;

    /// Takes in `blockCount` blocks of 64 bytes in each lane and updates the chaining values, and
    /// nothing else of the set. As processBlocks512 does for each, but that tweaks and data are not
    /// moved on. Null in a form of one lane.
    void (*absorb)(SkeinLaneSet& set, std::size_t blockCount);

    /// The form for a processor that has nothing to offer. Always there.
    static const SkeinLaneForm& scalar();

    /// Every form that this processor can run, slowest first. The first is scalar().
    static const std::vector<SkeinLaneForm>& available();

    /// The last of available().
    static const SkeinLaneForm& best();
};

} // namespace ZebSkein
