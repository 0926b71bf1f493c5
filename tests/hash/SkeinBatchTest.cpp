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

// Lengths around the boundaries of one, two and three blocks, and beyond.
constexpr std::size_t s_EdgeLengths[] = {0,   1,   7,   8,   63,  64,  65,  127,  128,
                                         129, 191, 192, 193, 255, 256, 257, 1000, 1024};

Bytes randomBytes(std::mt19937_64& random, std::size_t count)
{
    Bytes bytes(count);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(random() & 0xFF);
    return bytes;
}

// The digest by the code for one message, which SkeinTest compares with vectors and a reference.
std::string digestAlone(const unsigned char* bytes, std::size_t count)
{
    unsigned char digest[SkeinBatch::s_DigestBytes] = {};
    EXPECT_EQ(ZebSkein::Hash(512, bytes, std::uint64_t{count} * 8, digest), ZebSkein::Success);
    return {std::begin(digest), std::end(digest)};
}

std::vector<SkeinBatch::Content> inputsOf(const std::vector<Bytes>& messages)
{
    std::vector<SkeinBatch::Content> inputs;
    for (const Bytes& message : messages)
        inputs.push_back({message.data(), message.size()});
    return inputs;
}

// Digests all inputs together and compares each with its digest alone. Returns the order in which
// the digests were reported.
std::vector<std::size_t> expectDigests(const SkeinLaneForm& form,
                                       const std::vector<SkeinBatch::Content>& inputs)
{
    std::vector<std::size_t> order;
    std::vector<std::string> digests(inputs.size());
    SkeinBatch::digest(form, inputs, [&](std::size_t index, const unsigned char* digest) {
        order.push_back(index);
        digests.at(index).assign(digest, digest + SkeinBatch::s_DigestBytes);
    });
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        const auto count = static_cast<std::size_t>(inputs[i].byteCount);
        EXPECT_EQ(digests[i], digestAlone(inputs[i].bytes, count))
            << form.name << ": input " << i << " of " << inputs.size() << ", " << count << " bytes";
    }
    std::vector<std::size_t> each = order;
    std::sort(each.begin(), each.end());
    std::vector<std::size_t> expected(inputs.size());
    std::iota(expected.begin(), expected.end(), std::size_t{0});
    EXPECT_EQ(each, expected) << form.name;
    return order;
}

} // namespace

TEST(SkeinBatch, NoInputsCauseNoCalls)
{
    for (const SkeinLaneForm& form : LaneForms::all())
        EXPECT_TRUE(expectDigests(form, {}).empty());
}

TEST(SkeinBatch, EqualLengthsAroundBlockBoundaries)
{
    std::mt19937_64 random(1);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        for (const std::size_t length : s_EdgeLengths) {
            for (std::size_t count = 1; count <= 9; ++count) {
                std::vector<Bytes> messages;
                for (std::size_t i = 0; i < count; ++i)
                    messages.push_back(randomBytes(random, length));
                expectDigests(form, inputsOf(messages));
            }
        }
    }
}

TEST(SkeinBatch, UnequalLengthsAroundBlockBoundariesInOneSet)
{
    std::mt19937_64 random(2);
    std::vector<Bytes> messages;
    for (const std::size_t length : s_EdgeLengths)
        messages.push_back(randomBytes(random, length));
    for (const SkeinLaneForm& form : LaneForms::all()) {
        for (int round = 0; round < 20; ++round) {
            std::shuffle(messages.begin(), messages.end(), random);
            expectDigests(form, inputsOf(messages));
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
            expectDigests(form, inputsOf(messages));
        }
    }
}

TEST(SkeinBatch, AlignmentDoesNotMatter)
{
    std::mt19937_64 random(4);
    const Bytes bytes = randomBytes(random, 64 + 500);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        for (std::size_t offset = 0; offset < 64; ++offset) {
            std::vector<SkeinBatch::Content> inputs;
            for (std::size_t i = 0; i < 8; ++i)
                inputs.push_back({bytes.data() + (offset + i * 7) % 64, 500 - i});
            expectDigests(form, inputs);
        }
    }
}

TEST(SkeinBatch, NullWithoutBytesIsTheEmptyInput)
{
    const unsigned char some[] = {1, 2, 3};
    for (const SkeinLaneForm& form : LaneForms::all())
        expectDigests(form, {{nullptr, 0}, {some, 3}, {nullptr, 0}, {some, 1}, {nullptr, 0}});
}

TEST(SkeinBatch, AnInputMayBeInASetSeveralTimes)
{
    std::mt19937_64 random(5);
    const Bytes bytes = randomBytes(random, 777);
    for (const SkeinLaneForm& form : LaneForms::all())
        expectDigests(form, std::vector<SkeinBatch::Content>(11, {bytes.data(), bytes.size()}));
}

TEST(SkeinBatch, TheBestFormIsTheDefault)
{
    std::mt19937_64 random(6);
    std::vector<Bytes> messages;
    for (std::size_t i = 0; i < 20; ++i)
        messages.push_back(randomBytes(random, 100 * i));
    std::vector<std::size_t> order;
    SkeinBatch::digest(inputsOf(messages), [&](std::size_t index, const unsigned char* digest) {
        order.push_back(index);
        EXPECT_EQ(std::string(digest, digest + SkeinBatch::s_DigestBytes),
                  digestAlone(messages.at(index).data(), messages.at(index).size()));
    });
    EXPECT_EQ(order, expectDigests(SkeinLaneForm::best(), inputsOf(messages)));
}

// The order of the reports

TEST(SkeinBatch, DigestsThatEndTogetherAreReportedInOrder)
{
    std::mt19937_64 random(7);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        std::vector<Bytes> messages;
        for (std::size_t i = 0; i < 2 * form.lanes; ++i)
            messages.push_back(randomBytes(random, 300));
        std::vector<std::size_t> expected(messages.size());
        std::iota(expected.begin(), expected.end(), std::size_t{0});
        EXPECT_EQ(expectDigests(form, inputsOf(messages)), expected) << form.name;
    }
}

TEST(SkeinBatch, ShortInputsDoNotWaitForALongInput)
{
    std::mt19937_64 random(8);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        if (form.absorb == nullptr)
            continue;
        std::vector<Bytes> messages = {randomBytes(random, 100000)};
        for (std::size_t i = 1; i < form.lanes; ++i)
            messages.push_back(randomBytes(random, 300));
        EXPECT_EQ(expectDigests(form, inputsOf(messages)).back(), 0U) << form.name;
    }
}

TEST(SkeinBatch, ALongInputBeginsFirst)
{
    std::mt19937_64 random(9);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        if (form.absorb == nullptr)
            continue;
        // If the long input waited for a free lane, it would be reported after all short inputs.
        std::vector<Bytes> messages;
        for (std::size_t i = 0; i < 10 * form.lanes; ++i)
            messages.push_back(randomBytes(random, 300));
        messages.push_back(randomBytes(random, 1000));
        const std::vector<std::size_t> order = expectDigests(form, inputsOf(messages));
        EXPECT_NE(order.back(), messages.size() - 1) << form.name;
    }
}

TEST(SkeinBatch, TooFewForTheLanesAreDigestedOneByOneInOrder)
{
    std::mt19937_64 random(10);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        std::vector<Bytes> messages;
        for (std::size_t i = 0; i + 1 < std::max<std::size_t>(form.fewest, 2); ++i)
            messages.push_back(randomBytes(random, 100 + 100 * i));
        const std::vector<std::size_t> order = expectDigests(form, inputsOf(messages));
        EXPECT_TRUE(std::is_sorted(order.begin(), order.end())) << form.name;
    }
}

// What a receiver may do

TEST(SkeinBatch, AnInputMayBeFreedInItsOwnCall)
{
    std::mt19937_64 random(11);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        std::vector<std::unique_ptr<Bytes>> messages;
        std::vector<SkeinBatch::Content> inputs;
        std::vector<std::string> expected;
        for (std::size_t i = 0; i < 30; ++i) {
            messages.push_back(std::make_unique<Bytes>(randomBytes(random, 2000 - 61 * i)));
            inputs.push_back({messages.back()->data(), messages.back()->size()});
            expected.push_back(digestAlone(inputs.back().bytes, messages.back()->size()));
        }
        std::size_t right = 0;
        SkeinBatch::digest(form, inputs, [&](std::size_t index, const unsigned char* digest) {
            // A later read of the input would find other bytes.
            std::fill(messages[index]->begin(), messages[index]->end(), '\0');
            messages[index].reset();
            if (std::string(digest, digest + SkeinBatch::s_DigestBytes) == expected[index])
                ++right;
        });
        EXPECT_EQ(right, inputs.size()) << form.name;
    }
}

TEST(SkeinBatch, AnExceptionOfTheReceiverEndsTheWork)
{
    const Bytes bytes(500, 1);
    const std::vector<SkeinBatch::Content> inputs(20, {bytes.data(), bytes.size()});
    for (const SkeinLaneForm& form : LaneForms::all()) {
        std::size_t calls = 0;
        const auto receive = [&calls](std::size_t, const unsigned char*) {
            if (++calls == 5)
                throw std::runtime_error("enough");
        };
        EXPECT_THROW(SkeinBatch::digest(form, inputs, receive), std::runtime_error);
        EXPECT_EQ(calls, 5U) << form.name;
    }
}
