#pragma once

#include "hash/SkeinLaneForm.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace ZebSkein {

/// Digests several inputs together, each to the 64 bytes that Hash computes for 512 bits.
///
/// The inputs are assigned to the lanes of the processor's best form, longest first; a lane that
/// has finished an input takes the next one. When too few are left for the lanes to be faster, they
/// are finished one after another.
///
/// Internal: this header is not installed, and its symbols are hidden.
///
/// Thread safety: any number of threads may digest at once. Takes no lock.
class SkeinBatch
{
public:
    struct Content
    {
        /// At any alignment. Null only with a count of 0.
        const unsigned char* bytes;
        std::uint64_t byteCount;
    };

    static constexpr std::size_t s_DigestBytes = 64;

    /// How many inputs this processor digests in parallel; 1 if it has no lanes.
    static std::size_t lanes();

    /// Called with the index of an input and its digest, which is valid during the call only.
    using Receiver = std::function<void(std::size_t index, const unsigned char* digest)>;

    /// Calls `receive` once for each input, on this thread, as soon as its digest is known. Several
    /// that become known together come in the order of the lanes. An input must not change until
    /// its digest has been passed to `receive`, which may free it. An exception from `receive` ends
    /// the work.
    static void digest(const std::vector<Content>& contents, const Receiver& receive);

    /// The same by a form of the caller's choice, which the processor must be able to run.
    static void digest(const SkeinLaneForm& form, const std::vector<Content>& contents,
                       const Receiver& receive);
};

} // namespace ZebSkein
