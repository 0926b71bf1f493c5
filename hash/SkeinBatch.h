#pragma once

#include "hash/SkeinLaneForm.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace ZebSkein {

/// Digests several contents together, each to the 64 bytes that Hash gives for 512 bits.
///
/// The contents go through the lanes of the processor's best form, longest first, and a lane takes
/// the next content as soon as it is done with one. When fewer are left than make the lanes pay,
/// they are finished one by one.
///
/// Internal to the library: this header is not installed, and its symbols are hidden. The tool,
/// which digests many contents too, is built with a copy of its own.
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

    /// How many contents go side by side on this processor, 1 where each goes alone.
    static std::size_t lanes();

    /// Is given the index of a content and its digest, which is valid during the call only.
    using Receiver = std::function<void(std::size_t index, const unsigned char* digest)>;

    /// Calls `receive` once for each content, on this thread, as soon as its digest is known. Of
    /// those that become known together the last one of a set comes first, so that who waits for
    /// the first finds all of them done. The contents must stay as they are until their digests
    /// have been given out; a content may go inside its own call. An exception that leaves
    /// `receive` ends the work.
    static void digest(const std::vector<Content>& contents, const Receiver& receive);

    /// The same by a form of the caller's choice, which the processor must be able to run.
    static void digest(const SkeinLaneForm& form, const std::vector<Content>& contents,
                       const Receiver& receive);
};

} // namespace ZebSkein
