#pragma once

#include "hash/Skein.h"

#include <cstddef>
#include <vector>

namespace ZebSkein {

/// The state of up to eight messages of Skein-512 that are absorbed in parallel, a message in each
/// lane. A form with fewer lanes uses the first columns.
///
/// The lanes are independent: each has its own message, position, chaining value and tweak.
struct SkeinLaneSet
{
    static constexpr std::size_t s_MostLanes = 8;
    static constexpr std::size_t s_Words = 8;

    /// The chaining values; a row contains one word of every lane.
    alignas(64) Word chain[s_Words][s_MostLanes];

    /// The tweak of each lane, as in Tweak: the bytes absorbed so far, and the flags of the next
    /// block.
    alignas(64) Word position[s_MostLanes];
    alignas(64) Word flags[s_MostLanes];

    /// The bytes of each block without padding.
    alignas(64) Word bytesPerBlock[s_MostLanes];

    /// The next block of each lane, at any alignment. Not null in the lanes that the form has.
    const unsigned char* data[s_MostLanes];
};

/// A function that absorbs several messages in parallel, for one kind of processor.
///
/// Internal to the library: this header is not installed, and its symbols are hidden.
///
/// Thread safety: a form is a constant, and its function has no state.
struct SkeinLaneForm
{
    const char* name;

    /// How many messages it absorbs in parallel; 1 for the form without lanes.
    std::size_t lanes;

    /// The number of messages from which the lanes are faster than one message after another.
    std::size_t fewest;

    /// Absorbs `blockCount` blocks of 64 bytes in each lane, as processBlocks512 does, but updates
    /// only the chaining values of the set, not tweaks and data. Null in a form of one lane.
    void (*absorb)(SkeinLaneSet& set, std::size_t blockCount);

    /// The form without lanes, which every processor can run.
    static const SkeinLaneForm& scalar();

    /// Every form that this processor can run, slowest first. The first is scalar().
    static const std::vector<SkeinLaneForm>& available();

    /// The last of available().
    static const SkeinLaneForm& best();
};

} // namespace ZebSkein
