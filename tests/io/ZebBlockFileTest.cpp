#include "io/ZebBlockFile.h"

#include "support/BlockFiles.h"
#include "support/MessageCapture.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

constexpr qint32 s_LeastPayload = std::numeric_limits<qint32>::min();
constexpr qint32 s_LargestPayload = std::numeric_limits<qint32>::max();
constexpr qint64 s_LeastSize = std::numeric_limits<qint64>::min();
constexpr qint64 s_LargestSize = std::numeric_limits<qint64>::max();

ZebBlockFile::Header headerOf(qint64 blockBytes, qint32 payloadBytes)
{
    ZebBlockFile::Header header;
    header.m_BlockBytes = blockBytes;
    header.m_PayloadBytes = payloadBytes;
    return header;
}

QByteArray encoded(const ZebBlockFile::Header& header)
{
    const auto bytes = header.encode();
    return QByteArray(bytes.data(), static_cast<int>(bytes.size()));
}

bool fits(qint32 payloadBytes, qint64 available)
{
    return headerOf(1000, payloadBytes).isPayloadWithin(available);
}

} // namespace

// The header

TEST(ZebBlockFile, TheHeaderIsTheBlockSizeAndThePayloadSizeLittleEndian)
{
    EXPECT_EQ(encoded(headerOf(1000, 41)), QByteArray::fromHex("E803000000000000"
                                                               "29000000"));
    EXPECT_EQ(encoded(headerOf(0x0102030405060708, 0x11121314)),
              QByteArray::fromHex("0807060504030201"
                                  "14131211"));
    EXPECT_EQ(encoded(headerOf(-2, -3)), QByteArray::fromHex("FEFFFFFFFFFFFFFF"
                                                             "FDFFFFFF"));
    EXPECT_EQ(encoded(ZebBlockFile::Header()), QByteArray(12, '\0'));
}

TEST(ZebBlockFile, DecodesWhatAnotherCodecEncodesAndTheOtherWayRound)
{
    for (const qint64 size : {s_LeastSize, qint64(-1), qint64(0), qint64(5), qint64(1) << 40,
                              ZebBlockFile::s_MaxBlockBytes, s_LargestSize}) {
        for (const int payloadBytes : {0, 1, 255, 256, 70000}) {
            const QByteArray file = BlockFiles::fileBytes(size, QByteArray(payloadBytes, 'p'));
            const auto header = ZebBlockFile::Header::decode(file.constData());
            EXPECT_EQ(header.m_BlockBytes, size);
            EXPECT_EQ(header.m_PayloadBytes, payloadBytes);
            EXPECT_EQ(encoded(header), file.left(BlockFiles::s_HeaderBytes));
        }
    }
}

TEST(ZebBlockFile, KeepsTheSignOfBothFields)
{
    for (const qint32 payloadBytes : {s_LeastPayload, -12, -1, s_LargestPayload}) {
        for (const qint64 size : {s_LeastSize, qint64(-1), s_LargestSize}) {
            const QByteArray bytes = encoded(headerOf(size, payloadBytes));
            const auto header = ZebBlockFile::Header::decode(bytes.constData());
            EXPECT_EQ(header.m_BlockBytes, size);
            EXPECT_EQ(header.m_PayloadBytes, payloadBytes);
        }
    }
}

TEST(ZebBlockFile, DecodesAHeaderAtAnyAddress)
{
    for (int offset = 0; offset < 16; ++offset) {
        const QByteArray bytes = QByteArray(offset, 'x') + encoded(headerOf(1000, 41));
        const auto header = ZebBlockFile::Header::decode(bytes.constData() + offset);
        EXPECT_EQ(header.m_BlockBytes, 1000) << offset;
        EXPECT_EQ(header.m_PayloadBytes, 41) << offset;
    }
}

// The bounds

TEST(ZebBlockFile, APayloadOfNoBytesFitsIntoAFileOfTheHeaderAlone)
{
    EXPECT_TRUE(fits(0, 0));
    EXPECT_TRUE(fits(0, 1));
}

TEST(ZebBlockFile, APayloadFitsUpToTheLastByteOfTheFile)
{
    EXPECT_TRUE(fits(1, 1));
    EXPECT_FALSE(fits(1, 0));
    EXPECT_TRUE(fits(40, 41));
    EXPECT_TRUE(fits(40, 40));
    EXPECT_FALSE(fits(41, 40));
    EXPECT_TRUE(fits(s_LargestPayload, s_LargestPayload));
    EXPECT_FALSE(fits(s_LargestPayload, qint64(s_LargestPayload) - 1));
    EXPECT_TRUE(fits(s_LargestPayload, s_LargestSize));
    EXPECT_FALSE(fits(s_LargestPayload, 40));
}

TEST(ZebBlockFile, ANegativePayloadNeverFits)
{
    for (const qint32 payloadBytes : {-1, -12, -13, s_LeastPayload}) {
        for (const qint64 available : {qint64(0), qint64(40), s_LargestSize})
            EXPECT_FALSE(fits(payloadBytes, available)) << payloadBytes << ", " << available;
    }
}

TEST(ZebBlockFile, TheBlockSizeDoesNotDecideWhetherThePayloadFits)
{
    for (const qint64 size : {s_LeastSize, qint64(-1), qint64(0), s_LargestSize}) {
        EXPECT_TRUE(headerOf(size, 40).isPayloadWithin(40));
        EXPECT_FALSE(headerOf(size, 41).isPayloadWithin(40));
    }
}

TEST(ZebBlockFile, AFileIsCompleteFromThirteenBytesOn)
{
    for (const qint64 size : {-1, 0, 1, 11, 12})
        EXPECT_FALSE(ZebBlockFile::isComplete(size)) << size;
    for (const qint64 size : {qint64(13), qint64(14), qint64(1) << 40})
        EXPECT_TRUE(ZebBlockFile::isComplete(size)) << size;
}

// The payload

TEST(ZebBlockFile, HeaderAndPayloadAreTheFileOfTheOtherCodec)
{
    for (const QByteArray& plain :
         {QByteArray(), QByteArray("x"), BlockFiles::text(500), BlockFiles::incompressible(100000),
          QByteArray(1 << 20, '\0')}) {
        const QByteArray payload = ZebBlockFile::encodePayload(plain);
        EXPECT_EQ(encoded(headerOf(plain.size(), payload.size())) + payload,
                  BlockFiles::fileOf(plain));
        EXPECT_EQ(ZebBlockFile::decodePayload(payload), plain);
        EXPECT_EQ(ZebBlockFile::plainSizeOf(payload.constData()), plain.size());
    }
}

TEST(ZebBlockFile, CompressesAtLevelTwo)
{
    const QByteArray plain = BlockFiles::text(2000);
    const QByteArray payload = ZebBlockFile::encodePayload(plain);
    ASSERT_NE(qCompress(plain, 1), qCompress(plain, 2));
    ASSERT_NE(qCompress(plain, 3), qCompress(plain, 2));
    EXPECT_EQ(payload, qCompress(plain, 2));
}

TEST(ZebBlockFile, ThePayloadBeginsWithTheUnsignedPlainSizeBigEndian)
{
    EXPECT_EQ(ZebBlockFile::encodePayload(QByteArray(0x010203, 'a')).left(4),
              QByteArray::fromHex("00010203"));
    const QByteArray most = QByteArray::fromHex("FFFFFFFE");
    EXPECT_EQ(ZebBlockFile::plainSizeOf(most.constData()), 0xFFFFFFFE);
}

TEST(ZebBlockFile, DecodesAPayloadOfEveryLevel)
{
    for (int level = 0; level <= 9; ++level)
        EXPECT_EQ(ZebBlockFile::decodePayload(qCompress(BlockFiles::text(50), level)),
                  BlockFiles::text(50));
}

TEST(ZebBlockFile, ADamagedPayloadDecodesToNothing)
{
    const QByteArray payload = ZebBlockFile::encodePayload(BlockFiles::text(50));
    QByteArray changed = payload;
    changed[payload.size() / 2] = static_cast<char>(~changed[payload.size() / 2]);
    for (const QByteArray& bytes : {payload.left(payload.size() - 1), payload.left(4),
                                    payload.left(3), QByteArray("no payload"), changed}) {
        const MessageCapture messages;
        EXPECT_TRUE(ZebBlockFile::decodePayload(bytes).isEmpty()) << bytes.toHex().constData();
        EXPECT_EQ(messages.messages().size(), 1) << bytes.toHex().constData();
    }
}

TEST(ZebBlockFile, NoStreamExpandsMoreThanTheBound)
{
    const QByteArray plain(1 << 24, '\0');
    for (const int level : {1, 2, 6, 9}) {
        const qint64 stream = qCompress(plain, level).size() - ZebBlockFile::s_PlainSizeBytes;
        EXPECT_LE(plain.size(), stream * ZebBlockFile::s_MaxExpansion) << level;
    }
}
