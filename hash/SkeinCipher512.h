#pragma once

// Internal: the block cipher of Skein-512, for one message or several in parallel. Not installed.

#include "hash/Skein.h"

#include <cstddef>
#include <type_traits>
#include <utility>

// The state of a cipher stays in registers only if all steps are inlined into one function. By
// default the compiler considers the steps too large for that.
#define ZEB_SKEIN_INLINE __attribute__((always_inline)) inline

namespace ZebSkein {

/// Words or vectors of words, which stay in registers as long as their indices are constant.
template <typename Value, std::size_t Count>
struct Values
{
    Value at[Count];
};

constexpr Word s_KeyParity = 0x5555555555555555;

template <unsigned Left, typename Value>
ZEB_SKEIN_INLINE void mixPair(Value& a, Value& b)
{
    a += b;
    b = ((b << Left) | (b >> (64 - Left))) ^ a;
}

template <unsigned Left0, unsigned Left1, typename Value>
ZEB_SKEIN_INLINE void mix(Value& a0, Value& b0, Value& a1, Value& b1)
{
    mixPair<Left0>(a0, b0);
    mixPair<Left1>(a1, b1);
}

template <unsigned Left0, unsigned Left1, unsigned Left2, unsigned Left3, typename Value>
ZEB_SKEIN_INLINE void mix(Value& a0, Value& b0, Value& a1, Value& b1, Value& a2, Value& b2,
                          Value& a3, Value& b3)
{
    mix<Left0, Left1>(a0, b0, a1, b1);
    mix<Left2, Left3>(a2, b2, a3, b3);
}

template <unsigned Left0, unsigned Left1, unsigned Left2, unsigned Left3, unsigned Left4,
          unsigned Left5, unsigned Left6, unsigned Left7, typename Value>
ZEB_SKEIN_INLINE void mix(Value& a0, Value& b0, Value& a1, Value& b1, Value& a2, Value& b2,
                          Value& a3, Value& b3, Value& a4, Value& b4, Value& a5, Value& b5,
                          Value& a6, Value& b6, Value& a7, Value& b7)
{
    mix<Left0, Left1, Left2, Left3>(a0, b0, a1, b1, a2, b2, a3, b3);
    mix<Left4, Left5, Left6, Left7>(a4, b4, a5, b5, a6, b6, a7, b7);
}

// Makes the compiler assume that these values have changed, without an instruction. Otherwise
// compilers regroup the additions of several rounds or pair words in vector registers, and either
// is much slower. Vectors do not need it.
template <typename Value>
ZEB_SKEIN_INLINE void pin([[maybe_unused]] Value& a, [[maybe_unused]] Value& b,
                          [[maybe_unused]] Value& c, [[maybe_unused]] Value& d)
{
#if defined(__x86_64__) || defined(__aarch64__)
    if constexpr (std::is_same_v<Value, Word>)
        __asm__("" : "+r"(a), "+r"(b), "+r"(c), "+r"(d));
#endif
}

/// The cipher of Skein-512. A Value is a Word, or a vector of Words: one of each message in the
/// lanes of the vector.
template <typename Value>
struct SkeinCipher512
{
    static constexpr std::size_t s_Words = 8;
    static constexpr Word s_Octets = 9;

    Values<Value, 9> key;
    Values<Value, 3> tweak;
    Value x0;
    Value x1;
    Value x2;
    Value x3;
    Value x4;
    Value x5;
    Value x6;
    Value x7;

    ZEB_SKEIN_INLINE void load(const Values<Value, s_Words>& block)
    {
        x0 = block.at[0];
        x1 = block.at[1];
        x2 = block.at[2];
        x3 = block.at[3];
        x4 = block.at[4];
        x5 = block.at[5];
        x6 = block.at[6];
        x7 = block.at[7];
    }

    ZEB_SKEIN_INLINE void feedForward(const Values<Value, s_Words>& block)
    {
        key.at[0] = x0 ^ block.at[0];
        key.at[1] = x1 ^ block.at[1];
        key.at[2] = x2 ^ block.at[2];
        key.at[3] = x3 ^ block.at[3];
        key.at[4] = x4 ^ block.at[4];
        key.at[5] = x5 ^ block.at[5];
        key.at[6] = x6 ^ block.at[6];
        key.at[7] = x7 ^ block.at[7];
    }

    template <Word Subkey>
    ZEB_SKEIN_INLINE void addSubkey()
    {
        x0 += key.at[Subkey % 9];
        x1 += key.at[(Subkey + 1) % 9];
        x2 += key.at[(Subkey + 2) % 9];
        x3 += key.at[(Subkey + 3) % 9];
        x4 += key.at[(Subkey + 4) % 9];
        x5 += key.at[(Subkey + 5) % 9] + tweak.at[Subkey % 3];
        x6 += key.at[(Subkey + 6) % 9] + tweak.at[(Subkey + 1) % 3];
        x7 += key.at[(Subkey + 7) % 9] + Subkey;
        pin(x0, x1, x2, x3);
        pin(x4, x5, x6, x7);
    }

    template <Word Octet>
    ZEB_SKEIN_INLINE void eightRounds()
    {
        addSubkey<2 * Octet>();
        mix<38, 30, 50, 53>(x0, x1, x2, x3, x4, x5, x6, x7);
        mix<48, 20, 43, 31>(x2, x1, x4, x7, x6, x5, x0, x3);
        mix<34, 14, 15, 27>(x4, x1, x6, x3, x0, x5, x2, x7);
        mix<26, 12, 58, 7>(x6, x1, x0, x7, x2, x5, x4, x3);
        addSubkey<2 * Octet + 1>();
        mix<33, 49, 8, 42>(x0, x1, x2, x3, x4, x5, x6, x7);
        mix<39, 27, 41, 14>(x2, x1, x4, x7, x6, x5, x0, x3);
        mix<29, 26, 11, 9>(x4, x1, x6, x3, x0, x5, x2, x7);
        mix<33, 51, 39, 35>(x6, x1, x0, x7, x2, x5, x4, x3);
    }
};

// All rounds of a cipher, unrolled, with the closing subkey.
template <typename Cipher, Word... Octet>
ZEB_SKEIN_INLINE void encrypt(Cipher& cipher, std::integer_sequence<Word, Octet...>)
{
    (cipher.template eightRounds<Octet>(), ...);
    cipher.template addSubkey<2 * Cipher::s_Octets>();
}

// Accesses the words by constant indices. With a loop the compiler keeps the words in memory, and
// each block waits for the stores of the previous one.
template <typename Value, std::size_t... Index>
ZEB_SKEIN_INLINE void writeParity(Value& parity, const Value* words, std::index_sequence<Index...>)
{
    parity = s_KeyParity ^ (words[Index] ^ ...);
}

// Absorbs a block: encrypts it with the chaining value as the key. The result, combined with the
// plain block by exclusive or, is the next chaining value.
template <typename Cipher, typename Value>
ZEB_SKEIN_INLINE void absorb(Cipher& cipher, const Value& position, const Value& flags,
                             const Values<Value, Cipher::s_Words>& block)
{
    writeParity(cipher.key.at[Cipher::s_Words], cipher.key.at,
                std::make_index_sequence<Cipher::s_Words>());
    cipher.tweak.at[0] = position;
    cipher.tweak.at[1] = flags;
    cipher.tweak.at[2] = position ^ flags;
    cipher.load(block);
    encrypt(cipher, std::make_integer_sequence<Word, Cipher::s_Octets>());
    cipher.feedForward(block);
}

} // namespace ZebSkein
