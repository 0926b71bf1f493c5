#include "hash/Skein.h"

#include "hash/SkeinCipher512.h"

#include <algorithm>
#include <cstring>
#include <utility>

// Words are loaded and stored as they lie in memory.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "Skein words are little-endian");

namespace ZebSkein {

namespace {

template <std::size_t Count>
using Words = Values<Word, Count>;

using Cipher512 = SkeinCipher512<Word>;

// The cipher of Skein-256.
struct Cipher256
{
    static constexpr std::size_t s_Words = 4;
    static constexpr Word s_Octets = 9;

    Words<5> key;
    Words<3> tweak;
    Word x0;
    Word x1;
    Word x2;
    Word x3;

    ZEB_SKEIN_INLINE void load(const Words<s_Words>& block)
    {
        x0 = block.at[0];
        x1 = block.at[1];
        x2 = block.at[2];
        x3 = block.at[3];
    }

    ZEB_SKEIN_INLINE void feedForward(const Words<s_Words>& block)
    {
        key.at[0] = x0 ^ block.at[0];
        key.at[1] = x1 ^ block.at[1];
        key.at[2] = x2 ^ block.at[2];
        key.at[3] = x3 ^ block.at[3];
    }

    template <Word Subkey>
    ZEB_SKEIN_INLINE void addSubkey()
    {
        x0 += key.at[Subkey % 5];
        x1 += key.at[(Subkey + 1) % 5] + tweak.at[Subkey % 3];
        x2 += key.at[(Subkey + 2) % 5] + tweak.at[(Subkey + 1) % 3];
        x3 += key.at[(Subkey + 3) % 5] + Subkey;
        pin(x0, x1, x2, x3);
    }

    template <Word Octet>
    ZEB_SKEIN_INLINE void eightRounds()
    {
        addSubkey<2 * Octet>();
        mix<5, 56>(x0, x1, x2, x3);
        mix<36, 28>(x0, x3, x2, x1);
        mix<13, 46>(x0, x1, x2, x3);
        mix<58, 44>(x0, x3, x2, x1);
        addSubkey<2 * Octet + 1>();
        mix<26, 20>(x0, x1, x2, x3);
        mix<53, 35>(x0, x3, x2, x1);
        mix<11, 42>(x0, x1, x2, x3);
        mix<59, 50>(x0, x3, x2, x1);
    }
};

// The cipher of Skein-1024.
struct Cipher1024
{
    static constexpr std::size_t s_Words = 16;
    static constexpr Word s_Octets = 10;

    Words<17> key;
    Words<3> tweak;
    Word x0;
    Word x1;
    Word x2;
    Word x3;
    Word x4;
    Word x5;
    Word x6;
    Word x7;
    Word x8;
    Word x9;
    Word x10;
    Word x11;
    Word x12;
    Word x13;
    Word x14;
    Word x15;

    ZEB_SKEIN_INLINE void load(const Words<s_Words>& block)
    {
        x0 = block.at[0];
        x1 = block.at[1];
        x2 = block.at[2];
        x3 = block.at[3];
        x4 = block.at[4];
        x5 = block.at[5];
        x6 = block.at[6];
        x7 = block.at[7];
        x8 = block.at[8];
        x9 = block.at[9];
        x10 = block.at[10];
        x11 = block.at[11];
        x12 = block.at[12];
        x13 = block.at[13];
        x14 = block.at[14];
        x15 = block.at[15];
    }

    ZEB_SKEIN_INLINE void feedForward(const Words<s_Words>& block)
    {
        key.at[0] = x0 ^ block.at[0];
        key.at[1] = x1 ^ block.at[1];
        key.at[2] = x2 ^ block.at[2];
        key.at[3] = x3 ^ block.at[3];
        key.at[4] = x4 ^ block.at[4];
        key.at[5] = x5 ^ block.at[5];
        key.at[6] = x6 ^ block.at[6];
        key.at[7] = x7 ^ block.at[7];
        key.at[8] = x8 ^ block.at[8];
        key.at[9] = x9 ^ block.at[9];
        key.at[10] = x10 ^ block.at[10];
        key.at[11] = x11 ^ block.at[11];
        key.at[12] = x12 ^ block.at[12];
        key.at[13] = x13 ^ block.at[13];
        key.at[14] = x14 ^ block.at[14];
        key.at[15] = x15 ^ block.at[15];
    }

    template <Word Subkey>
    ZEB_SKEIN_INLINE void addSubkey()
    {
        x0 += key.at[Subkey % 17];
        x1 += key.at[(Subkey + 1) % 17];
        x2 += key.at[(Subkey + 2) % 17];
        x3 += key.at[(Subkey + 3) % 17];
        x4 += key.at[(Subkey + 4) % 17];
        x5 += key.at[(Subkey + 5) % 17];
        x6 += key.at[(Subkey + 6) % 17];
        x7 += key.at[(Subkey + 7) % 17];
        x8 += key.at[(Subkey + 8) % 17];
        x9 += key.at[(Subkey + 9) % 17];
        x10 += key.at[(Subkey + 10) % 17];
        x11 += key.at[(Subkey + 11) % 17];
        x12 += key.at[(Subkey + 12) % 17];
        x13 += key.at[(Subkey + 13) % 17] + tweak.at[Subkey % 3];
        x14 += key.at[(Subkey + 14) % 17] + tweak.at[(Subkey + 1) % 3];
        x15 += key.at[(Subkey + 15) % 17] + Subkey;
        pin(x0, x1, x2, x3);
        pin(x4, x5, x6, x7);
        pin(x8, x9, x10, x11);
        pin(x12, x13, x14, x15);
    }

    template <Word Octet>
    ZEB_SKEIN_INLINE void eightRounds()
    {
        addSubkey<2 * Octet>();
        mix<55, 43, 37, 40, 16, 22, 38, 12>(x0, x1, x2, x3, x4, x5, x6, x7, x8, x9, x10, x11, x12,
                                            x13, x14, x15);
        mix<25, 25, 46, 13, 14, 13, 52, 57>(x0, x9, x2, x13, x6, x11, x4, x15, x10, x7, x12, x3,
                                            x14, x5, x8, x1);
        mix<33, 8, 18, 57, 21, 12, 32, 54>(x0, x7, x2, x5, x4, x3, x6, x1, x12, x15, x14, x13, x8,
                                           x11, x10, x9);
        mix<34, 43, 25, 60, 44, 9, 59, 34>(x0, x15, x2, x11, x6, x13, x4, x9, x14, x1, x8, x5, x10,
                                           x3, x12, x7);
        addSubkey<2 * Octet + 1>();
        mix<28, 7, 47, 48, 51, 9, 35, 41>(x0, x1, x2, x3, x4, x5, x6, x7, x8, x9, x10, x11, x12,
                                          x13, x14, x15);
        mix<17, 6, 18, 25, 43, 42, 40, 15>(x0, x9, x2, x13, x6, x11, x4, x15, x10, x7, x12, x3, x14,
                                           x5, x8, x1);
        mix<58, 7, 32, 45, 19, 18, 2, 56>(x0, x7, x2, x5, x4, x3, x6, x1, x12, x15, x14, x13, x8,
                                          x11, x10, x9);
        mix<47, 49, 27, 58, 37, 48, 53, 56>(x0, x15, x2, x11, x6, x13, x4, x9, x14, x1, x8, x5, x10,
                                            x3, x12, x7);
    }
};

// The helpers below access each word by a constant index. A loop or a copy of the whole would have
// the same result, but then the compiler keeps the words in memory and copies them two at a time,
// and each block waits for the stores of the previous one.

template <std::size_t... Index>
ZEB_SKEIN_INLINE void assign(Word* to, const Word* from, std::index_sequence<Index...>)
{
    ((to[Index] = from[Index]), ...);
}

ZEB_SKEIN_INLINE Word loadWord(const unsigned char* data)
{
    Word word = 0;
    std::memcpy(&word, data, sizeof(word));
    return word;
}

template <std::size_t... Index>
ZEB_SKEIN_INLINE Words<sizeof...(Index)> loadBlock(const unsigned char* data,
                                                   std::index_sequence<Index...>)
{
    return {{loadWord(data + sizeof(Word) * Index)...}};
}

template <typename Cipher>
void processBlocks(Word* chain, Tweak& tweak, const unsigned char* data, std::size_t blockCount,
                   std::size_t bytesPerBlock)
{
    constexpr auto indices = std::make_index_sequence<Cipher::s_Words>();
    // Copies, since the compiler must assume that chain and tweak may overlap the data.
    Cipher cipher{};
    assign(cipher.key.at, chain, indices);
    Tweak place = tweak;
    for (; blockCount > 0; --blockCount) {
        place.position += bytesPerBlock;
        absorb(cipher, place.position, place.flags, loadBlock(data, indices));
        place.flags &= ~s_FlagFirst;
        data += sizeof(Words<Cipher::s_Words>);
    }
    assign(chain, cipher.key.at, indices);
    tweak = place;
}

// The chaining value after the configuration block, which depends only on the digest length.
template <typename Cipher>
Words<Cipher::s_Words> configured(int hashbitlen)
{
    // "SHA3" and the version, 1, of the format.
    constexpr Word schema = 0x0000000133414853;
    constexpr std::size_t usedBytes = 32;

    const Word configuration[] = {schema, static_cast<Word>(hashbitlen), 0};
    unsigned char block[sizeof(Words<Cipher::s_Words>)] = {};
    static_assert(sizeof(configuration) <= usedBytes && usedBytes <= sizeof(block));
    std::memcpy(block, configuration, sizeof(configuration));

    Words<Cipher::s_Words> chain{};
    Tweak tweak = {0, s_TypeConfiguration | s_FlagFirst | s_FlagFinal};
    processBlocks<Cipher>(chain.at, tweak, block, 1, usedBytes);
    return chain;
}

template <typename Cipher>
Words<Cipher::s_Words> initialChain(int hashbitlen)
{
    // The value for the usual length, which has the size of the state, is computed once.
    constexpr int usualLength = static_cast<int>(sizeof(Words<Cipher::s_Words>) * 8);
    static const Words<Cipher::s_Words> usual = configured<Cipher>(usualLength);
    return hashbitlen == usualLength ? usual : configured<Cipher>(hashbitlen);
}

template <typename Cipher>
void digest(int hashbitlen, const unsigned char* data, std::uint64_t byteCount,
            unsigned char* hashval)
{
    using State = Words<Cipher::s_Words>;
    constexpr std::size_t blockSize = sizeof(State);

    State chain = initialChain<Cipher>(hashbitlen);
    Tweak tweak = {0, s_TypeMessage | s_FlagFirst};
    // The last block has the final flag, so it is not among these even if it is full.
    const std::size_t fullBlocks =
        byteCount == 0 ? 0 : static_cast<std::size_t>((byteCount - 1) / blockSize);
    processBlocks<Cipher>(chain.at, tweak, data, fullBlocks, blockSize);

    const std::size_t done = fullBlocks * blockSize;
    const std::size_t rest = static_cast<std::size_t>(byteCount) - done;
    unsigned char last[blockSize] = {};
    if (rest > 0)
        std::memcpy(last, data + done, rest);
    tweak.flags |= s_FlagFinal;
    processBlocks<Cipher>(chain.at, tweak, last, 1, rest);

    const std::size_t bits = static_cast<std::size_t>(hashbitlen);
    std::size_t wanted = bits / 8 + (bits % 8 != 0 ? 1 : 0);
    for (Word counter = 0; wanted > 0; ++counter) {
        unsigned char input[blockSize] = {};
        std::memcpy(input, &counter, sizeof(counter));
        State output = chain;
        Tweak place = {0, s_TypeOutput | s_FlagFirst | s_FlagFinal};
        processBlocks<Cipher>(output.at, place, input, 1, sizeof(counter));
        const std::size_t taken = std::min(wanted, blockSize);
        std::memcpy(hashval, output.at, taken);
        hashval += taken;
        wanted -= taken;
    }
}

} // namespace

void processBlocks256(Word* chain, Tweak& tweak, const unsigned char* data, std::size_t blockCount,
                      std::size_t bytesPerBlock)
{
    processBlocks<Cipher256>(chain, tweak, data, blockCount, bytesPerBlock);
}

void processBlocks512(Word* chain, Tweak& tweak, const unsigned char* data, std::size_t blockCount,
                      std::size_t bytesPerBlock)
{
    processBlocks<Cipher512>(chain, tweak, data, blockCount, bytesPerBlock);
}

void processBlocks1024(Word* chain, Tweak& tweak, const unsigned char* data, std::size_t blockCount,
                       std::size_t bytesPerBlock)
{
    processBlocks<Cipher1024>(chain, tweak, data, blockCount, bytesPerBlock);
}

std::size_t stateWordCount(int hashbitlen)
{
    if (hashbitlen <= 256)
        return Cipher256::s_Words;
    return hashbitlen <= 512 ? Cipher512::s_Words : Cipher1024::s_Words;
}

void initialChainingValue(int hashbitlen, Word* chain)
{
    const auto write = [chain](const auto& value) {
        std::memcpy(chain, value.at, sizeof(value.at));
    };
    switch (stateWordCount(hashbitlen)) {
    case Cipher256::s_Words:
        write(initialChain<Cipher256>(hashbitlen));
        break;
    case Cipher512::s_Words:
        write(initialChain<Cipher512>(hashbitlen));
        break;
    default:
        write(initialChain<Cipher1024>(hashbitlen));
        break;
    }
}

HashReturn Hash(int hashbitlen, const unsigned char* data, std::uint64_t databitlen,
                unsigned char* hashval)
{
    if (hashbitlen <= 0)
        return BadHashLength;
    if (hashval == nullptr || (data == nullptr && databitlen > 0) || databitlen % 8 != 0)
        return Fail;
    const std::uint64_t byteCount = databitlen / 8;
    switch (stateWordCount(hashbitlen)) {
    case Cipher256::s_Words:
        digest<Cipher256>(hashbitlen, data, byteCount, hashval);
        break;
    case Cipher512::s_Words:
        digest<Cipher512>(hashbitlen, data, byteCount, hashval);
        break;
    default:
        digest<Cipher1024>(hashbitlen, data, byteCount, hashval);
        break;
    }
    return Success;
}

} // namespace ZebSkein
