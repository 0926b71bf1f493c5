#include "hash/SkeinBatch.h"

#include "support/LaneForms.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using ZebSkein::SkeinBatch;
using ZebSkein::SkeinLaneForm;

// Lengths about the ends of one, two and three blocks, and some way in.
constexpr std::size_t s_EdgeLengths[] = {0,   1,   7,   8,   63,  64,  65,  127,  128,
                                         129, 191, 192, 193, 255, 256, 257, 1000, 1024};

Bytes randomBytes(std::mt19937_64& random, std::size_t count)
{
    Bytes bytes(count);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(random() & 0xFF);
    return bytes;
}

// The digest by the form for one message, which SkeinTest holds against vectors and a reference.
std::string digestAlone(const unsigned char* bytes, std::size_t count)
{
    unsigned char digest[SkeinBatch::s_DigestBytes] = {};
    EXPECT_EQ(ZebSkein::Hash(512, bytes, std::uint64_t{count} * 8, digest), ZebSkein::Success);
    return {std::begin(digest), std::end(digest)};
}

std::vector<SkeinBatch::Content> contentsOf(const std::vector<Bytes>& messages)
{
    std::vector<SkeinBatch::Content> contents;
    for (const Bytes& message : messages)
        contents.push_back({message.data(), message.size()});
    return contents;
}

// Digests all of them together and compares each with its digest alone. The order in which they
// came is returned.
std::vector<std::size_t> expectDigests(const SkeinLaneForm& form,
                                       const std::vector<SkeinBatch::Content>& contents)
{
    std::vector<std::size_t> order;
    std::vector<std::string> digests(contents.size());
    SkeinBatch::digest(form, contents, [&](std::size_t index, const unsigned char* digest) {
        order.push_back(index);
        digests.at(index).assign(digest, digest + SkeinBatch::s_DigestBytes);
    });
    for (std::size_t i = 0; i < contents.size(); ++i) {
        const auto count = static_cast<std::size_t>(contents[i].byteCount);
        EXPECT_EQ(digests[i], digestAlone(contents[i].bytes, count))
            << form.name << ": content " << i << " of " << contents.size() << ", " << count
            << " bytes";
    }
    std::vector<std::size_t> each = order;
    std::sort(each.begin(), each.end());
    std::vector<std::size_t> expected(contents.size());
    std::iota(expected.begin(), expected.end(), std::size_t{0});
    EXPECT_EQ(each, expected) << form.name;
    return order;
}

} // namespace

TEST(SkeinBatch, NoContentsAreNoCalls)
{
    for (const SkeinLaneForm& form : LaneForms::all())
        EXPECT_TRUE(expectDigests(form, {}).empty());
}

TEST(SkeinBatch, EqualLengthsAboutBlockEnds)
{
    std::mt19937_64 random(1);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        for (const std::size_t length : s_EdgeLengths) {
            for (std::size_t count = 1; count <= 9; ++count) {
                std::vector<Bytes> messages;
                for (std::size_t i = 0; i < count; ++i)
                    messages.push_back(randomBytes(random, length));
                expectDigests(form, contentsOf(messages));
            }
        }
    }
}

TEST(SkeinBatch, UnequalLengthsAboutBlockEndsInOneSet)
{
    std::mt19937_64 random(2);
    std::vector<Bytes> messages;
    for (const std::size_t length : s_EdgeLengths)
        messages.push_back(randomBytes(random, length));
    for (const SkeinLaneForm& form : LaneForms::all()) {
        for (int round = 0; round < 20; ++round) {
            std::shuffle(messages.begin(), messages.end(), random);
            expectDigests(form, contentsOf(messages));
        }
    }
}

TEST(SkeinBatch, SetsOfAnySizeRefillTheirLanes)
{
    std::mt19937_64 random(3);
    std::uniform_int_distribution<std::size_t> lengths(0, 3000);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        for (std::size_t count = 1; count <= 40; ++count) {
            std::vector<Bytes> messages;
            for (std::size_t i = 0; i < count; ++i)
                messages.push_back(randomBytes(random, lengths(random)));
            expectDigests(form, contentsOf(messages));
        }
    }
}

TEST(SkeinBatch, AnyAlignmentWillDo)
{
    std::mt19937_64 random(4);
    const Bytes bytes = randomBytes(random, 64 + 500);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        for (std::size_t offset = 0; offset < 64; ++offset) {
            std::vector<SkeinBatch::Content> contents;
            for (std::size_t i = 0; i < 8; ++i)
                contents.push_back({bytes.data() + (offset + i * 7) % 64, 500 - i});
            expectDigests(form, contents);
        }
    }
}

TEST(SkeinBatch, NullWithoutBytesIsTheEmptyContent)
{
    const unsigned char some[] = {1, 2, 3};
    for (const SkeinLaneForm& form : LaneForms::all())
        expectDigests(form, {{nullptr, 0}, {some, 3}, {nullptr, 0}, {some, 1}, {nullptr, 0}});
}

TEST(SkeinBatch, OneContentMayStandInASetSeveralTimes)
{
    std::mt19937_64 random(5);
    const Bytes bytes = randomBytes(random, 777);
    for (const SkeinLaneForm& form : LaneForms::all())
        expectDigests(form, std::vector<SkeinBatch::Content>(11, {bytes.data(), bytes.size()}));
}

TEST(SkeinBatch, ByItselfItTakesTheBestForm)
{
    std::mt19937_64 random(6);
    std::vector<Bytes> messages;
    for (std::size_t i = 0; i < 20; ++i)
        messages.push_back(randomBytes(random, 100 * i));
    std::vector<std::size_t> order;
    SkeinBatch::digest(contentsOf(messages), [&](std::size_t index, const unsigned char* digest) {
        order.push_back(index);
        EXPECT_EQ(std::string(digest, digest + SkeinBatch::s_DigestBytes),
                  digestAlone(messages.at(index).data(), messages.at(index).size()));
    });
    EXPECT_EQ(order, expectDigests(SkeinLaneForm::best(), contentsOf(messages)));
}

// When they come

TEST(SkeinBatch, OfThoseKnownTogetherTheFirstComesLast)
{
    std::mt19937_64 random(7);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        std::vector<Bytes> messages;
        for (std::size_t i = 0; i < 2 * form.lanes; ++i)
            messages.push_back(randomBytes(random, 300));
        std::vector<std::size_t> expected;
        for (const std::size_t begin : {std::size_t{0}, form.lanes}) {
            for (std::size_t i = form.lanes; i-- > 0;)
                expected.push_back(begin + i);
        }
        EXPECT_EQ(expectDigests(form, contentsOf(messages)), expected) << form.name;
    }
}

TEST(SkeinBatch, ShortOnesDoNotWaitForALongOne)
{
    std::mt19937_64 random(8);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        if (form.absorb == nullptr)
            continue;
        std::vector<Bytes> messages = {randomBytes(random, 100000)};
        for (std::size_t i = 1; i < form.lanes; ++i)
            messages.push_back(randomBytes(random, 300));
        EXPECT_EQ(expectDigests(form, contentsOf(messages)).back(), 0U) << form.name;
    }
}

TEST(SkeinBatch, ALongOneBeginsFirst)
{
    std::mt19937_64 random(9);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        if (form.absorb == nullptr)
            continue;
        // Had it to wait for a free lane, it would come behind the last of the short ones.
        std::vector<Bytes> messages;
        for (std::size_t i = 0; i < 10 * form.lanes; ++i)
            messages.push_back(randomBytes(random, 300));
        messages.push_back(randomBytes(random, 1000));
        const std::vector<std::size_t> order = expectDigests(form, contentsOf(messages));
        EXPECT_NE(order.back(), messages.size() - 1) << form.name;
    }
}

TEST(SkeinBatch, TooFewForTheLanesGoOneByOneInTheirOrder)
{
    std::mt19937_64 random(10);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        std::vector<Bytes> messages;
        for (std::size_t i = 0; i + 1 < std::max<std::size_t>(form.fewest, 2); ++i)
            messages.push_back(randomBytes(random, 100 + 100 * i));
        const std::vector<std::size_t> order = expectDigests(form, contentsOf(messages));
        EXPECT_TRUE(std::is_sorted(order.begin(), order.end())) << form.name;
    }
}

// What a receiver may do

TEST(SkeinBatch, ContentMayGoInItsOwnCall)
{
    std::mt19937_64 random(11);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        std::vector<std::unique_ptr<Bytes>> messages;
        std::vector<SkeinBatch::Content> contents;
        std::vector<std::string> expected;
        for (std::size_t i = 0; i < 30; ++i) {
            messages.push_back(std::make_unique<Bytes>(randomBytes(random, 2000 - 61 * i)));
            contents.push_back({messages.back()->data(), messages.back()->size()});
            expected.push_back(digestAlone(contents.back().bytes, messages.back()->size()));
        }
        std::size_t right = 0;
        SkeinBatch::digest(form, contents, [&](std::size_t index, const unsigned char* digest) {
            // Whoever reads them after this reads something else.
            std::fill(messages[index]->begin(), messages[index]->end(), '\0');
            messages[index].reset();
            if (std::string(digest, digest + SkeinBatch::s_DigestBytes) == expected[index])
                ++right;
        });
        EXPECT_EQ(right, contents.size()) << form.name;
    }
}

TEST(SkeinBatch, ExceptionOfAReceiverEndsTheWork)
{
    const Bytes bytes(500, 1);
    const std::vector<SkeinBatch::Content> contents(20, {bytes.data(), bytes.size()});
    for (const SkeinLaneForm& form : LaneForms::all()) {
        std::size_t calls = 0;
        const auto receive = [&calls](std::size_t, const unsigned char*) {
            if (++calls == 5)
                throw std::runtime_error("enough");
        };
        EXPECT_THROW(SkeinBatch::digest(form, contents, receive), std::runtime_error);
        EXPECT_EQ(calls, 5U) << form.name;
    }
}
