#pragma once

#include <cstddef>
#include <cstdint>

/// The digest that names a block: Skein as first submitted to the NIST SHA-3 competition, paper
/// version 1.1.
///
/// Later revisions of Skein changed the rotation constants and then the key schedule, and so yield
/// other digests. Digests name files on disk that outlive the process: the constants here may not
/// be updated, and a current Skein library cannot take the place of this code.
///
/// Internal to the library: this header is not installed, and its symbols are hidden.
///
/// Thread safety: no function here has state of its own. Any number of threads may call them at
/// once, as long as no two of them write to one output.
///
/// Requires a little-endian machine.
namespace ZebSkein {

/// What Hash tells. The values are part of the NIST style of the call.
enum HashReturn
{
    /// The digest was written.
    Success = 0,
    /// An argument other than the digest length is not usable; nothing was written.
    Fail = 1,
    /// The digest length is not positive; nothing was written.
    BadHashLength = 2
};

/// One word of the state. In bytes it is little-endian.
using Word = std::uint64_t;

/// Writes the digest of `databitlen` bits at `data` to `hashval`.
///
/// `hashbitlen`: length of the digest in bits; any positive number. It selects the state: up to 256
/// bits Skein-256, up to 512 bits Skein-512, beyond that Skein-1024. It is also an input of the
/// digest, so a short digest is no prefix of a longer one.
/// `data`: any alignment; null only together with a length of 0.
/// `databitlen`: length of the input in bits, whole bytes only; 0 is legal.
/// `hashval`: room for `hashbitlen` bits, rounded up to whole bytes; may not overlap the input. The
/// bits that the rounding adds are not cleared.
///
/// Returns BadHashLength for a `hashbitlen` below 1, which is tested first; Fail for a null
/// `hashval`, for null data of positive length, and for a `databitlen` that is no multiple of 8.
HashReturn Hash(int hashbitlen, const unsigned char* data, std::uint64_t databitlen,
                unsigned char* hashval);

/// The number of state words for a digest of `hashbitlen` bits: 4, 8 or 16.
std::size_t stateWordCount(int hashbitlen);

/// Writes the chaining value from which the message of a digest of `hashbitlen` bits starts:
/// `stateWordCount(hashbitlen)` words. `hashbitlen` must be positive.
///
/// A look-up for 256, 512 and 1024 bits, one block of work for any other length.
void initialChainingValue(int hashbitlen, Word* chain);

/// @name Flags in the high word of the tweak
/// @{

/// The block is the first of its input. processBlocks* clears it after the first block.
constexpr Word s_FlagFirst = 0x4000000000000000;
/// The block is the last of its input.
constexpr Word s_FlagFinal = 0x8000000000000000;
/// The input is the configuration.
constexpr Word s_TypeConfiguration = 0x0400000000000000;
/// The input is the message.
constexpr Word s_TypeMessage = 0x3000000000000000;
/// The input is the counter of an output block.
constexpr Word s_TypeOutput = 0x3F00000000000000;

/// @}

/// Where in its input a block stands. It goes into the encryption of each block, so that equal
/// blocks in different places act differently.
struct Tweak
{
    /// Bytes of this input up to and including the latest block, padding not counted. A byte count
    /// of 2^64 and more is out of reach, as Hash takes its length in bits.
    Word position;
    /// One type and any of the two flags.
    Word flags;
};

/// Absorbs `blockCount` blocks of 32 bytes (Skein-256) that follow each other at `data`.
///
/// `chain`: 4 words, updated.
/// `tweak`: before each block `position` grows by `bytesPerBlock`, after each `s_FlagFirst` is
/// cleared; the other flags go into every block as they stand.
/// `data`: any alignment; always whole blocks, so the caller pads the last one with zeros.
/// `bytesPerBlock`: how many bytes of each block count. Less than the block size only for a padded
/// block, which is then processed in a call of its own.
///
/// Many blocks in one call keep the chaining value and the loop in one place; a call per block
/// would be correct as well.
void processBlocks256(Word* chain, Tweak& tweak, const unsigned char* data, std::size_t blockCount,
                      std::size_t bytesPerBlock);

/// As processBlocks256, with blocks of 64 bytes and a chain of 8 words (Skein-512).
void processBlocks512(Word* chain, Tweak& tweak, const unsigned char* data, std::size_t blockCount,
                      std::size_t bytesPerBlock);

/// As processBlocks256, with blocks of 128 bytes and a chain of 16 words (Skein-1024).
void processBlocks1024(Word* chain, Tweak& tweak, const unsigned char* data, std::size_t blockCount,
                       std::size_t bytesPerBlock);

} // namespace ZebSkein
