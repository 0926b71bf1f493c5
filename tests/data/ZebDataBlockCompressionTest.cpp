// The compression of a block in memory. All other tests of the class are in ZebDataBlockTest.

#include "data/ZebDataBlock.h"

#include "support/BlockFiles.h"
#include "support/BlockInside.h"
#include "support/MessageCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>

#include <dlfcn.h>

using BlockInside::storedBytes;

namespace {

QByteArray corpus()
{
    return BlockFiles::text(1500);
}

const QString s_CompressFailed = QStringLiteral("Failed to compress data block.");
const QString s_DecompressFailed = QStringLiteral("Failed to decompress data block.");

std::atomic<bool> s_CodecIsOutOfMemory{false};

// Makes the codec fail as if memory ran out, for the length of a scope.
class CodecOutOfMemory
{
public:
    CodecOutOfMemory() { s_CodecIsOutOfMemory.store(true); }
    ~CodecOutOfMemory() { s_CodecIsOutOfMemory.store(false); }
    CodecOutOfMemory(const CodecOutOfMemory&) = delete;
    CodecOutOfMemory& operator=(const CodecOutOfMemory&) = delete;
};

} // namespace

// Replaces zlib's own function for everything that this program loads.
extern "C" __attribute__((visibility("default"))) int compress2(unsigned char* out,
                                                                unsigned long* outLength,
                                                                const unsigned char* in,
                                                                unsigned long inLength, int level)
{
    constexpr int outOfMemory = -4;
    if (s_CodecIsOutOfMemory.load())
        return outOfMemory;
    using Function =
        int (*)(unsigned char*, unsigned long*, const unsigned char*, unsigned long, int);
    static const auto zlib = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "compress2"));
    return zlib(out, outLength, in, inLength, level);
}

TEST(ZebDataBlockCompression, RoundTripRestoresTheBytes)
{
    const QByteArray text = corpus();
    ZebDataBlock block(text);
    const ZebDataBlock twin(text);
    EXPECT_TRUE(block.compress(4));
    EXPECT_TRUE(block.isCompressed());
    EXPECT_LT(storedBytes(block).size(), text.size());
    EXPECT_TRUE(block.uncompress());
    EXPECT_EQ(block.size(), text.size());
    EXPECT_FALSE(block.isCompressed());
    EXPECT_TRUE(block == twin);
}

TEST(ZebDataBlockCompression, LevelIsPassedToTheCodecUnchanged)
{
    const QByteArray text = corpus();
    const ZebDataBlock twin(text);
    // 10 is no level of zlib; the codec decides what it means.
    for (int level = -1; level <= 10; ++level) {
        ZebDataBlock block(twin);
        ASSERT_TRUE(block.compress(level)) << level;
        EXPECT_EQ(storedBytes(block), qCompress(text, level)) << level;
        EXPECT_EQ(block.size(), text.size());
        ASSERT_TRUE(block.uncompress()) << level;
        EXPECT_TRUE(block == twin) << level;
    }
    EXPECT_NE(qCompress(text, 1), qCompress(text, 9));
}

TEST(ZebDataBlockCompression, DefaultLevelIsTheCodecsOwn)
{
    const QByteArray text = corpus();
    ZebDataBlock block(text);
    ASSERT_TRUE(block.compress());
    EXPECT_EQ(storedBytes(block), qCompress(text, -1));
}

TEST(ZebDataBlockCompression, CompressingTwiceChangesNothing)
{
    ZebDataBlock block(corpus());
    ASSERT_TRUE(block.compress(1));
    const QByteArray stored = storedBytes(block);
    EXPECT_TRUE(block.compress(9));
    EXPECT_EQ(storedBytes(block), stored);
    EXPECT_TRUE(block.isCompressed());
}

TEST(ZebDataBlockCompression, UncompressingAPlainBlockChangesNothing)
{
    const MessageCapture messages;
    const QByteArray text = corpus();
    ZebDataBlock block(text);
    const unsigned char* const address = block.constData();
    EXPECT_TRUE(block.uncompress());
    EXPECT_EQ(block.constData(), address);
    EXPECT_EQ(storedBytes(block), text);
    EXPECT_FALSE(block.isCompressed());
    EXPECT_TRUE(ZebDataBlock(QByteArray()).uncompress());
    EXPECT_TRUE(messages.messages().isEmpty());
}

TEST(ZebDataBlockCompression, CompressedBlockKeepsItsSizeAndDiffersFromItsTwin)
{
    const QByteArray text = corpus();
    ZebDataBlock block(text);
    const ZebDataBlock twin(text);
    ASSERT_TRUE(block.compress(4));
    EXPECT_EQ(block.size(), text.size());
    EXPECT_FALSE(block == twin);
    EXPECT_TRUE(block != twin);
}

TEST(ZebDataBlockCompression, ConstDataGivesTheStoredBytes)
{
    const QByteArray text = corpus();
    ZebDataBlock block(text);
    ASSERT_TRUE(block.compress(4));
    const QByteArray expected = qCompress(text, 4);
    EXPECT_EQ(
        std::memcmp(block.constData(), expected.constData(), static_cast<size_t>(expected.size())),
        0);
    EXPECT_TRUE(block.isCompressed());
}

TEST(ZebDataBlockCompression, DataLeavesTheBlockPlain)
{
    const QByteArray text = corpus();
    ZebDataBlock block(text);
    ASSERT_TRUE(block.compress(4));
    const unsigned char* const bytes = block.data();
    ASSERT_NE(bytes, nullptr);
    EXPECT_FALSE(block.isCompressed());
    EXPECT_EQ(std::memcmp(bytes, text.constData(), static_cast<size_t>(text.size())), 0);
    EXPECT_EQ(block.size(), text.size());
}

TEST(ZebDataBlockCompression, EmptyBlockCompressesToFourBytesAndCannotBeDecompressed)
{
    const MessageCapture messages;
    ZebDataBlock block{QByteArray()};
    EXPECT_TRUE(block.compress(4));
    EXPECT_TRUE(block.isCompressed());
    EXPECT_EQ(storedBytes(block), QByteArray(4, '\0'));
    EXPECT_FALSE(block.uncompress());
    EXPECT_EQ(messages.count(s_DecompressFailed), 1);
    for (const MessageCapture::Message& message : messages.messages())
        EXPECT_FALSE(message.m_Text == s_DecompressFailed && message.m_HasContext);
    EXPECT_EQ(storedBytes(block), QByteArray(4, '\0'));
    EXPECT_TRUE(block.isCompressed());
    EXPECT_EQ(block.data(), nullptr);
}

TEST(ZebDataBlockCompression, CorruptedBytesAreRejectedAndKept)
{
    const MessageCapture messages;
    const QByteArray text = corpus();
    ZebDataBlock block(text);
    ASSERT_TRUE(block.compress(4));
    const QByteArray good = storedBytes(block);
    QByteArray bad = good;
    bad[bad.size() / 2] = static_cast<char>(~bad.at(bad.size() / 2));
    storedBytes(block) = bad;

    EXPECT_FALSE(block.uncompress());
    EXPECT_EQ(messages.count(s_DecompressFailed), 1);
    EXPECT_EQ(block.data(), nullptr);
    EXPECT_EQ(messages.count(s_DecompressFailed), 2);
    EXPECT_TRUE(block.isCompressed());
    EXPECT_EQ(block.size(), text.size());
    EXPECT_EQ(storedBytes(block), bad);

    storedBytes(block) = good;
    EXPECT_TRUE(block.uncompress());
    EXPECT_EQ(storedBytes(block), text);
    EXPECT_EQ(messages.count(s_DecompressFailed), 2);
}

TEST(ZebDataBlockCompression, PlainSizeIsNotComparedWithTheBlocksSize)
{
    ZebDataBlock block(corpus());
    ASSERT_TRUE(block.compress(4));
    const QByteArray other(100, 'x');
    storedBytes(block) = qCompress(other, 4);
    EXPECT_TRUE(block.uncompress());
    EXPECT_EQ(storedBytes(block), other);
    EXPECT_EQ(block.size(), corpus().size());
}

TEST(ZebDataBlockCompression, FailureToCompressLosesTheBytesAndKeepsTheSize)
{
    const MessageCapture messages;
    const QByteArray text = corpus();
    ZebDataBlock block(text);
    {
        const CodecOutOfMemory outOfMemory;
        ASSERT_TRUE(qCompress(text, 4).isEmpty()) << "the codec cannot be made to fail here";
        EXPECT_FALSE(block.compress(4));
    }
    EXPECT_EQ(messages.count(s_CompressFailed), 1);
    EXPECT_FALSE(block.isCompressed());
    EXPECT_TRUE(storedBytes(block).isEmpty());
    EXPECT_EQ(block.size(), text.size());
}
