#include "hash/Skein.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using Word = ZebSkein::Word;

// A second implementation of the digest, in loops and tables, with which the unrolled code is
// compared. It shares nothing with the code under test.
namespace reference {

constexpr std::size_t s_MaxWords = 16;

struct Variant
{
    std::size_t words;
    std::size_t rounds;
    unsigned permutation[s_MaxWords];
    unsigned rotations[8][s_MaxWords / 2];
};

const Variant s_Skein256 = {
    4,
    72,
    {0, 3, 2, 1},
    {{5, 56}, {36, 28}, {13, 46}, {58, 44}, {26, 20}, {53, 35}, {11, 42}, {59, 50}}};

const Variant s_Skein512 = {8,
                            72,
                            {2, 1, 4, 7, 6, 5, 0, 3},
                            {{38, 30, 50, 53},
                             {48, 20, 43, 31},
                             {34, 14, 15, 27},
                             {26, 12, 58, 7},
                             {33, 49, 8, 42},
                             {39, 27, 41, 14},
                             {29, 26, 11, 9},
                             {33, 51, 39, 35}}};

const Variant s_Skein1024 = {16,
                             80,
                             {0, 9, 2, 13, 6, 11, 4, 15, 10, 7, 12, 3, 14, 5, 8, 1},
                             {{55, 43, 37, 40, 16, 22, 38, 12},
                              {25, 25, 46, 13, 14, 13, 52, 57},
                              {33, 8, 18, 57, 21, 12, 32, 54},
                              {34, 43, 25, 60, 44, 9, 59, 34},
                              {28, 7, 47, 48, 51, 9, 35, 41},
                              {17, 6, 18, 25, 43, 42, 40, 15},
                              {58, 7, 32, 45, 19, 18, 2, 56},
                              {47, 49, 27, 58, 37, 48, 53, 56}}};

const Variant& variantFor(int digestBits)
{
    if (digestBits <= 256)
        return s_Skein256;
    return digestBits <= 512 ? s_Skein512 : s_Skein1024;
}

std::vector<Word> toWords(const Bytes& bytes)
{
    std::vector<Word> words(bytes.size() / 8, 0);
    for (std::size_t i = 0; i < words.size() * 8; ++i)
        words[i / 8] |= Word{bytes[i]} << (8 * (i % 8));
    return words;
}

void addSubkey(std::vector<Word>& state, const std::vector<Word>& key, const Word (&tweak)[3],
               std::size_t subkey)
{
    const std::size_t count = state.size();
    for (std::size_t i = 0; i < count; ++i)
        state[i] += key[(subkey + i) % key.size()];
    state[count - 3] += tweak[subkey % 3];
    state[count - 2] += tweak[(subkey + 1) % 3];
    state[count - 1] += subkey;
}

void absorb(const Variant& variant, std::vector<Word>& chain, Word position, Word flags,
            const Bytes& block)
{
    const std::vector<Word> plain = toWords(block);
    const Word tweak[3] = {position, flags, position ^ flags};
    std::vector<Word> key = chain;
    key.push_back(0x5555555555555555);
    for (const Word word : chain)
        key.back() ^= word;

    std::vector<Word> state = plain;
    for (std::size_t round = 0; round < variant.rounds; ++round) {
        if (round % 4 == 0)
            addSubkey(state, key, tweak, round / 4);
        for (std::size_t pair = 0; pair < variant.words / 2; ++pair) {
            Word& a = state[2 * pair];
            Word& b = state[2 * pair + 1];
            const unsigned left = variant.rotations[round % 8][pair];
            a += b;
            b = ((b << left) | (b >> (64 - left))) ^ a;
        }
        const std::vector<Word> mixed = state;
        for (std::size_t i = 0; i < variant.words; ++i)
            state[i] = mixed[variant.permutation[i]];
    }
    addSubkey(state, key, tweak, variant.rounds / 4);
    for (std::size_t i = 0; i < variant.words; ++i)
        chain[i] = state[i] ^ plain[i];
}

// Absorbs a whole input of one type.
void absorbAll(const Variant& variant, std::vector<Word>& chain, Word type, const Bytes& input)
{
    const std::size_t blockSize = variant.words * 8;
    Word flags = type | 0x4000000000000000;
    std::size_t done = 0;
    do {
        const std::size_t taken = std::min(blockSize, input.size() - done);
        Bytes block(blockSize, 0);
        for (std::size_t i = 0; i < taken; ++i)
            block[i] = input[done + i];
        done += taken;
        if (done == input.size())
            flags |= 0x8000000000000000;
        absorb(variant, chain, done, flags, block);
        flags &= ~Word{0x4000000000000000};
    } while (done < input.size());
}

Bytes littleEndian(Word word)
{
    Bytes bytes;
    for (unsigned shift = 0; shift < 64; shift += 8)
        bytes.push_back(static_cast<unsigned char>((word >> shift) & 0xFF));
    return bytes;
}

std::vector<Word> initialChain(int digestBits)
{
    const Variant& variant = variantFor(digestBits);
    Bytes configuration = {0x53, 0x48, 0x41, 0x33, 1, 0, 0, 0};
    const Bytes length = littleEndian(static_cast<Word>(digestBits));
    configuration.insert(configuration.end(), length.begin(), length.end());
    configuration.resize(32, 0);
    std::vector<Word> chain(variant.words, 0);
    absorbAll(variant, chain, Word{4} << 56, configuration);
    return chain;
}

Bytes digest(int digestBits, const Bytes& message)
{
    const Variant& variant = variantFor(digestBits);
    std::vector<Word> chain = initialChain(digestBits);
    absorbAll(variant, chain, Word{48} << 56, message);

    const std::size_t wanted = (static_cast<std::size_t>(digestBits) + 7) / 8;
    Bytes result;
    for (Word counter = 0; result.size() < wanted; ++counter) {
        std::vector<Word> output = chain;
        absorbAll(variant, output, Word{63} << 56, littleEndian(counter));
        for (const Word word : output) {
            const Bytes bytes = littleEndian(word);
            result.insert(result.end(), bytes.begin(), bytes.end());
        }
    }
    result.resize(wanted);
    return result;
}

} // namespace reference

constexpr int s_StateBits[] = {256, 512, 1024};

// Lengths around the block boundaries of all three state sizes.
constexpr std::size_t s_EdgeLengths[] = {0,   1,   7,   8,   9,   31,  32,  33,  63,  64,
                                         65,  95,  96,  97,  127, 128, 129, 191, 192, 193,
                                         255, 256, 257, 383, 384, 385, 511, 512, 513, 1000};

Bytes randomBytes(std::mt19937_64& random, std::size_t count)
{
    Bytes bytes(count);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(random() & 0xFF);
    return bytes;
}

// The digest by the code under test, with a check that it writes only into its buffer.
Bytes digestOf(int digestBits, const unsigned char* data, std::size_t byteCount)
{
    constexpr unsigned char guard = 0xA5;
    const std::size_t wanted = (static_cast<std::size_t>(digestBits) + 7) / 8;
    Bytes result(wanted + 1, guard);
    EXPECT_EQ(ZebSkein::Hash(digestBits, data, std::uint64_t{byteCount} * 8, result.data()),
              ZebSkein::Success);
    EXPECT_EQ(result.back(), guard) << "written past the digest of " << digestBits << " bits";
    result.pop_back();
    return result;
}

Bytes digestOf(int digestBits, const Bytes& message)
{
    return digestOf(digestBits, message.data(), message.size());
}

std::string hex(const Bytes& bytes)
{
    const char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0xF];
    }
    return text;
}

struct Vector
{
    int digestBytes = 0;
    std::string input;
    std::size_t length = 0;
    std::string digest;
};

std::vector<Vector> readVectors()
{
    std::ifstream file(std::string(ZEBTDX_TEST_VECTORS_DIR) + "/skein.tsv");
    std::vector<Vector> vectors;
    std::string line;
    while (std::getline(file, line)) {
        if (line.empty() || line.front() == '#')
            continue;
        std::istringstream columns(line);
        Vector vector;
        columns >> vector.digestBytes >> vector.input >> vector.length >> vector.digest;
        EXPECT_FALSE(columns.fail()) << line;
        vectors.push_back(vector);
    }
    return vectors;
}

// The input that a line of the table names; a failure and an empty input for an unknown name.
Bytes namedInput(const std::string& name, std::size_t length)
{
    Bytes bytes;
    for (std::size_t i = 0; i < length; ++i) {
        std::size_t value = 0;
        if (name == "count")
            value = i % 256;
        else if (name == "mod255")
            value = i % 255;
        else if (name == "down")
            value = (255 - i % 256) % 256;
        else if (name != "zero")
            ADD_FAILURE() << "unknown input " << name;
        bytes.push_back(static_cast<unsigned char>(value));
    }
    return bytes;
}

using ProcessBlocks = void (*)(Word*, ZebSkein::Tweak&, const unsigned char*, std::size_t,
                               std::size_t);

ProcessBlocks processBlocksFor(int stateBits)
{
    if (stateBits == 256)
        return &ZebSkein::processBlocks256;
    return stateBits == 512 ? &ZebSkein::processBlocks512 : &ZebSkein::processBlocks1024;
}

// Whether this build is fast enough to digest half a GiB in every run.
constexpr bool isFastBuild()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || !defined(__OPTIMIZE__)
    return false;
#elif defined(__has_feature)
    return !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer) &&
           !__has_feature(memory_sanitizer);
#else
    return true;
#endif
}

} // namespace

TEST(Skein, MatchesEveryVector)
{
    constexpr std::size_t expectedCount = 66;
    const std::vector<Vector> vectors = readVectors();
    EXPECT_EQ(vectors.size(), expectedCount);
    for (const Vector& vector : vectors) {
        const Bytes input = namedInput(vector.input, vector.length);
        EXPECT_EQ(hex(digestOf(vector.digestBytes * 8, input)), vector.digest)
            << vector.digestBytes << " bytes of " << vector.input << " " << vector.length;
        EXPECT_EQ(hex(reference::digest(vector.digestBytes * 8, input)), vector.digest)
            << "reference, " << vector.digestBytes << " bytes of " << vector.input << " "
            << vector.length;
    }
}

TEST(Skein, StartsFromTheKnownChainingValues)
{
    const Word firstWords[] = {0x388512680E660046, 0xA8D47980544A6E32, 0x5A4352BE62092156};
    for (std::size_t i = 0; i < std::size(s_StateBits); ++i) {
        Word chain[reference::s_MaxWords] = {};
        ZebSkein::initialChainingValue(s_StateBits[i], chain);
        EXPECT_EQ(chain[0], firstWords[i]) << s_StateBits[i];
    }
}

TEST(Skein, ComputesTheInitialChainingValueOfAnyLength)
{
    for (const int digestBits : {8, 32, 128, 160, 224, 256, 257, 264, 384, 512, 513, 1024, 2016}) {
        const std::vector<Word> expected = reference::initialChain(digestBits);
        ASSERT_EQ(ZebSkein::stateWordCount(digestBits), expected.size()) << digestBits;
        std::vector<Word> chain(expected.size(), 0);
        ZebSkein::initialChainingValue(digestBits, chain.data());
        EXPECT_EQ(chain, expected) << digestBits;
    }
}

TEST(Skein, MatchesTheReferenceAroundBlockBoundaries)
{
    std::mt19937_64 random(1);
    for (const int stateBits : s_StateBits) {
        for (const std::size_t length : s_EdgeLengths) {
            const Bytes message = randomBytes(random, length);
            EXPECT_EQ(hex(digestOf(stateBits, message)), hex(reference::digest(stateBits, message)))
                << stateBits << " bits of " << length << " bytes";
        }
    }
}

TEST(Skein, MatchesTheReferenceOnRandomLengths)
{
    std::mt19937_64 random(2);
    std::uniform_int_distribution<std::size_t> lengths(0, 1500);
    std::uniform_int_distribution<int> digestBytes(1, 300);
    for (int round = 0; round < 500; ++round) {
        const int digestBits = digestBytes(random) * 8;
        const Bytes message = randomBytes(random, lengths(random));
        ASSERT_EQ(hex(digestOf(digestBits, message)), hex(reference::digest(digestBits, message)))
            << digestBits << " bits of " << message.size() << " bytes";
    }
}

TEST(Skein, SupportsEveryWholeWordDigestLength)
{
    std::mt19937_64 random(3);
    const Bytes message = randomBytes(random, 200);
    for (int digestBits = 32; digestBits <= 2016; digestBits += 32) {
        const Bytes digest = digestOf(digestBits, message);
        EXPECT_EQ(hex(digest), hex(reference::digest(digestBits, message))) << digestBits;
        EXPECT_EQ(digest, digestOf(digestBits, message)) << digestBits;
    }
}

TEST(Skein, RoundsAnOddDigestLengthUpToBytes)
{
    const Bytes message = namedInput("count", 77);
    for (const int digestBits : {1, 7, 9, 255, 257, 511, 513, 1025, 2047})
        EXPECT_EQ(hex(digestOf(digestBits, message)), hex(reference::digest(digestBits, message)))
            << digestBits;
}

TEST(Skein, ALongDigestHasDifferentOutputBlocks)
{
    constexpr std::size_t blockSize = 128;
    const Bytes digest = digestOf(3 * 1024, namedInput("count", 100));
    const Bytes first(digest.begin(), digest.begin() + blockSize);
    const Bytes second(digest.begin() + blockSize, digest.begin() + 2 * blockSize);
    const Bytes third(digest.begin() + 2 * blockSize, digest.end());
    EXPECT_NE(first, second);
    EXPECT_NE(first, third);
    EXPECT_NE(second, third);
}

TEST(Skein, TheDigestLengthIsPartOfTheDigest)
{
    const Bytes message = namedInput("count", 100);
    const Bytes shorter = digestOf(1024, message);
    Bytes longer = digestOf(2048, message);
    longer.resize(shorter.size());
    EXPECT_NE(shorter, longer);
}

TEST(Skein, AlignmentOfTheInputDoesNotMatter)
{
    constexpr std::size_t length = 517;
    std::mt19937_64 random(4);
    const Bytes message = randomBytes(random, length);
    for (const int stateBits : s_StateBits) {
        const Bytes expected = reference::digest(stateBits, message);
        for (std::size_t offset = 0; offset < 17; ++offset) {
            Bytes shifted(offset + length);
            std::copy(message.begin(), message.end(),
                      shifted.begin() + static_cast<std::ptrdiff_t>(offset));
            EXPECT_EQ(digestOf(stateBits, shifted.data() + offset, length), expected)
                << stateBits << " bits at offset " << offset;
        }
    }
}

TEST(Skein, AlignmentOfTheDigestDoesNotMatter)
{
    const Bytes message = namedInput("count", 100);
    for (const int stateBits : s_StateBits) {
        const Bytes expected = digestOf(stateBits, message);
        for (std::size_t offset = 0; offset < 9; ++offset) {
            Bytes room(offset + expected.size());
            ASSERT_EQ(
                ZebSkein::Hash(stateBits, message.data(), message.size() * 8, room.data() + offset),
                ZebSkein::Success);
            room.erase(room.begin(), room.begin() + static_cast<std::ptrdiff_t>(offset));
            EXPECT_EQ(room, expected) << stateBits << " bits at offset " << offset;
        }
    }
}

TEST(Skein, NullDataOfNoLengthIsTheEmptyInput)
{
    for (const int stateBits : s_StateBits)
        EXPECT_EQ(digestOf(stateBits, nullptr, 0), reference::digest(stateBits, Bytes()));
}

TEST(Skein, RejectsADigestLengthBelowOne)
{
    const unsigned char data[] = {1, 2, 3};
    unsigned char digest[] = {9, 9, 9, 9};
    const Bytes untouched(std::begin(digest), std::end(digest));
    for (const int digestBits : {0, -1, -8, -256, INT32_MIN}) {
        EXPECT_EQ(ZebSkein::Hash(digestBits, data, sizeof(data) * 8, digest),
                  ZebSkein::BadHashLength);
        EXPECT_EQ(ZebSkein::Hash(digestBits, nullptr, 8, nullptr), ZebSkein::BadHashLength);
    }
    EXPECT_EQ(Bytes(std::begin(digest), std::end(digest)), untouched);
}

TEST(Skein, RejectsInvalidArguments)
{
    const unsigned char data[] = {1, 2, 3};
    unsigned char digest[32] = {};
    EXPECT_EQ(ZebSkein::Hash(256, nullptr, 8, digest), ZebSkein::Fail);
    EXPECT_EQ(ZebSkein::Hash(256, data, 8, nullptr), ZebSkein::Fail);
    EXPECT_EQ(ZebSkein::Hash(256, nullptr, 0, nullptr), ZebSkein::Fail);
    for (const std::uint64_t bits : {1U, 7U, 9U, 15U, 23U})
        EXPECT_EQ(ZebSkein::Hash(256, data, bits, digest), ZebSkein::Fail) << bits;
    EXPECT_EQ(Bytes(std::begin(digest), std::end(digest)), Bytes(sizeof(digest), 0));
}

TEST(Skein, ReturnValuesHaveTheirNumbers)
{
    EXPECT_EQ(static_cast<int>(ZebSkein::Success), 0);
    EXPECT_EQ(static_cast<int>(ZebSkein::Fail), 1);
    EXPECT_EQ(static_cast<int>(ZebSkein::BadHashLength), 2);
}

TEST(Skein, BlocksInOneCallActAsBlocksInManyCalls)
{
    constexpr std::size_t blockCount = 5;
    std::mt19937_64 random(5);
    for (const int stateBits : s_StateBits) {
        const ProcessBlocks processBlocks = processBlocksFor(stateBits);
        const std::size_t blockSize = static_cast<std::size_t>(stateBits) / 8;
        const Bytes data = randomBytes(random, blockCount * blockSize);
        const ZebSkein::Tweak start = {0, ZebSkein::s_TypeMessage | ZebSkein::s_FlagFirst};
        std::vector<Word> together(blockSize / 8, 7);
        std::vector<Word> apart = together;

        ZebSkein::Tweak togetherTweak = start;
        processBlocks(together.data(), togetherTweak, data.data(), blockCount, blockSize);
        ZebSkein::Tweak apartTweak = start;
        for (std::size_t i = 0; i < blockCount; ++i)
            processBlocks(apart.data(), apartTweak, data.data() + i * blockSize, 1, blockSize);

        EXPECT_EQ(together, apart) << stateBits;
        EXPECT_EQ(togetherTweak.position, blockCount * blockSize);
        EXPECT_EQ(apartTweak.position, blockCount * blockSize);
        EXPECT_EQ(togetherTweak.flags, ZebSkein::s_TypeMessage);
        EXPECT_EQ(apartTweak.flags, ZebSkein::s_TypeMessage);
    }
}

TEST(Skein, NoBlocksChangeNothing)
{
    for (const int stateBits : s_StateBits) {
        std::vector<Word> chain(static_cast<std::size_t>(stateBits) / 64, 7);
        const std::vector<Word> before = chain;
        ZebSkein::Tweak tweak = {3, ZebSkein::s_TypeMessage | ZebSkein::s_FlagFirst};
        processBlocksFor(stateBits)(chain.data(), tweak, nullptr, 0,
                                    static_cast<std::size_t>(stateBits) / 8);
        EXPECT_EQ(chain, before);
        EXPECT_EQ(tweak.position, 3U);
        EXPECT_EQ(tweak.flags, ZebSkein::s_TypeMessage | ZebSkein::s_FlagFirst);
    }
}

// Inputs of several GiB take too long for a test; a count of so many bytes does not.
TEST(Skein, CountsBytesBeyond32Bits)
{
    std::mt19937_64 random(6);
    for (const int stateBits : s_StateBits) {
        const std::size_t blockSize = static_cast<std::size_t>(stateBits) / 8;
        for (const Word end : {Word{1} << 29, Word{1} << 31, Word{1} << 32, Word{1} << 60}) {
            const Bytes data = randomBytes(random, 2 * blockSize);
            std::vector<Word> chain(blockSize / 8, 7);
            std::vector<Word> expected = chain;

            ZebSkein::Tweak tweak = {end - blockSize, ZebSkein::s_TypeMessage};
            processBlocksFor(stateBits)(chain.data(), tweak, data.data(), 2, blockSize);

            const reference::Variant& variant = reference::variantFor(stateBits);
            const auto middle = data.begin() + static_cast<std::ptrdiff_t>(blockSize);
            reference::absorb(variant, expected, end, ZebSkein::s_TypeMessage,
                              Bytes(data.begin(), middle));
            reference::absorb(variant, expected, end + blockSize, ZebSkein::s_TypeMessage,
                              Bytes(middle, data.end()));
            EXPECT_EQ(chain, expected) << stateBits << " bits at " << end;
            EXPECT_EQ(tweak.position, end + blockSize);
        }
    }
}

// 513 MiB are more than 2^32 bits. The reference above is too slow for every run; the expected
// digest was computed with it once.
TEST(Skein, DigestsMoreThan32BitsOfLength)
{
    if (!isFastBuild())
        GTEST_SKIP() << "too slow in a sanitized or unoptimized build";
    constexpr std::size_t byteCount = std::size_t{513} << 20;
    // Memory from calloc that is only read occupies no memory.
    const std::unique_ptr<void, decltype(&std::free)> zeros(std::calloc(byteCount, 1), &std::free);
    ASSERT_NE(zeros, nullptr);
    EXPECT_EQ(hex(digestOf(512, static_cast<const unsigned char*>(zeros.get()), byteCount)),
              "fa3ef9e654ebb090ff190911b3c3299016e7e212b13be2b552fa9790685501ac"
              "29ddeeea28bfb7f273e7f8cb8d887731b226d51ecde30ddbfa05b7dee9ed25a5");
}
