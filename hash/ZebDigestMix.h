#pragma once

// Internal: where the registry looks for a digest. Not installed.

#include "hash/ZebDigestView.h"

#include <QtGlobal>

#include <array>

/// Maps digests to the numbers by which the registry's tables place them.
///
/// A digest is uniform, so its own bits would do, but a text form can stand for any digest. So the
/// words of the digest are multiplied with random numbers that no caller knows: whatever two
/// digests a caller chooses, their numbers are equal with a chance below 2^-32.
///
/// Thread safety: constant after construction.
class ZebDigestMix
{
public:
    /// Chooses the random numbers.
    ZebDigestMix();

    /// Equal digests have equal numbers. All 64 bits depend on all words of the digest, up to byte
    /// s_MaxBytes; longer digests are none that a text form has.
    quint64 operator()(const ZebDigestView& digest) const;

private:
    static constexpr int s_WordBytes = 4;
    static constexpr int s_MaxBytes = 128;

    // One for each word, and one for the length.
    std::array<quint64, s_MaxBytes / s_WordBytes + 1> m_Factors;

    // Odd, so that the last step, which spreads the sum over all bits, loses none of them.
    quint64 m_Spread;
};
