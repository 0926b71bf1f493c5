#pragma once

#include <cstddef>
#include <cstdint>

/// The digest that names a block: Skein as first submitted to the NIST SHA-3 competition, paper
/// version 1.1.
///
/// Later revisions of Skein changed the rotation constants and then the key schedule, and so
/// compute other digests. Digests name files on disk that outlive the process: the constants here
/// must not change, and a current Skein library cannot replace this code.
///
/// Internal to the library: this header is not installed, and its symbols are hidden.
///
/// Thread safety: the functions have no state. Any number of threads may call them at once if each
/// has its own output.
///
/// Requires a little-endian machine.
namespace ZebSkein {

/// What Hash returns, with the values of the NIST interface.
enum HashReturn
{
    /// The digest was written.
    Success = 0,
    /// An argument other than the digest length is not valid; nothing was written.
    Fail = 1,
    /// The digest length is not positive; nothing was written.
    BadHashLength = 2
};

/// One word of the state. In bytes it is little-endian.
using Word = std::uint64_t;

/// Writes the digest of `databitlen` bits at `data` to `hashval`.
///
/// `hashbitlen`: length of the digest in bits; any positive number. It selects the state: up to 256
/// bits Skein-256, up to 512 bits Skein-512, above that Skein-1024. It is also an input of the
/// digest, so a short digest is not a prefix of a longer one.
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

/// Writes the initial chaining value of a message with a digest of `hashbitlen` bits:
/// `stateWordCount(hashbitlen)` words. `hashbitlen` must be positive.
///
/// A look-up for 256, 512 and 1024 bits; any other length costs the encryption of a block.
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

/// The position of a block in its input. It is part of the encryption of each block, so that equal
/// blocks at different positions have different effects.
struct Tweak
{
    /// Bytes of this input up to and including the latest block, without padding. Always below
    /// 2^64, since Hash takes the length in bits.
    Word position;
    /// One type and any of the two flags.
    Word flags;
};

/// Absorbs `blockCount` consecutive blocks of 32 bytes (Skein-256) at `data`.
///
/// `chain`: 4 words, updated.
/// `tweak`: `bytesPerBlock` is added to `position` before each block, and `s_FlagFirst` is cleared
/// after each. The other flags apply to every block unchanged.
/// `data`: any alignment; always whole blocks, so the caller pads the last one with zeros.
/// `bytesPerBlock`: the bytes of each block without padding. Less than the block size only for a
/// padded block, which is then processed in a separate call.
///
/// One call for many blocks is faster than a call for each, and has the same result.
void processBlocks256(Word* chain, Tweak& tweak, const unsigned char* data, std::size_t blockCount,
                      std::size_t bytesPerBlock);

/// As processBlocks256, with blocks of 64 bytes and a chain of 8 words (Skein-512).
void processBlocks512(Word* chain, Tweak& tweak, const unsigned char* data, std::size_t blockCount,
                      std::size_t bytesPerBlock);

/// As processBlocks256, with blocks of 128 bytes and a chain of 16 words (Skein-1024).
void processBlocks1024(Word* chain, Tweak& tweak, const unsigned char* data, std::size_t blockCount,
                       std::size_t bytesPerBlock);

} // namespace ZebSkein
