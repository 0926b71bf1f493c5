#include "support/ZebDecompression.h"

#include "support/BlockFiles.h"
#include "support/MessageCapture.h"

#include <QtEndian>

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace {

// A QByteArray of this many bytes is too large for Qt.
constexpr quint32 s_TooLarge = std::numeric_limits<qint32>::max() - quint32(sizeof(QArrayData));

#ifdef __SANITIZE_ADDRESS__
constexpr bool s_HasSanitizer = true;
#else
constexpr bool s_HasSanitizer = false;
#endif

QByteArray withLength(QByteArray payload, quint32 length)
{
    qToBigEndian<quint32>(length, payload.data());
    return payload;
}

struct Decompressed
{
    QByteArray m_Bytes;
    QStringList m_Messages;
};

template <typename Function>
Decompressed by(Function decompress, const QByteArray& payload)
{
    const MessageCapture messages;
    Decompressed result;
    result.m_Bytes = decompress(payload);
    for (const MessageCapture::Message& message : messages.messages())
        result.m_Messages.append(message.m_Text);
    return result;
}

void expectAsQt(const QByteArray& payload)
{
    const Decompressed ours = by(&ZebDecompression::decompress, payload);
    const Decompressed qts =
        by([](const QByteArray& bytes) { return qUncompress(bytes); }, payload);
    EXPECT_EQ(ours.m_Bytes, qts.m_Bytes);
    EXPECT_EQ(ours.m_Messages, qts.m_Messages);
    EXPECT_EQ(ours.m_Bytes.isNull(), qts.m_Bytes.isNull());
    if (!ours.m_Bytes.isEmpty()) {
        EXPECT_EQ(ours.m_Bytes.capacity(), ours.m_Bytes.size());
    }
}

// Sound and damaged payloads.
std::vector<QByteArray> payloads()
{
    std::vector<QByteArray> all = {
        QByteArray(),        QByteArray(3, '\0'),       QByteArray(4, '\0'),
        QByteArray(5, '\0'), QByteArray("\1\1\1\1", 4), QByteArray("no payload at all")};
    for (const QByteArray& plain : {QByteArray("x"), BlockFiles::text(50),
                                    BlockFiles::incompressible(70000), QByteArray(1 << 20, '\0')}) {
        for (const int level : {0, 2, 9}) {
            const QByteArray payload = qCompress(plain, level);
            all.push_back(payload);
            all.push_back(payload + "trailing bytes");
            all.push_back(payload.left(payload.size() - 1));
            all.push_back(payload.left(payload.size() / 2));
            QByteArray damaged = payload;
            damaged[payload.size() / 2] = static_cast<char>(~payload[payload.size() / 2]);
            all.push_back(damaged);
        }
    }
    // A stream of no bytes.
    all.push_back(QByteArray::fromHex("00000000"
                                      "789c030000000001"));
    return all;
}

} // namespace

TEST(ZebDecompression, DoesWhatQtDoesWhateverTheStatedLength)
{
    for (const QByteArray& payload : payloads()) {
        expectAsQt(payload);
        if (payload.size() < 4)
            continue;
        const quint32 stated = qFromBigEndian<quint32>(payload.constData());
        const quint32 bound = static_cast<quint32>(ZebDecompression::s_MaxExpansion) *
                              static_cast<quint32>(payload.size());
        for (const quint32 length : {quint32(0), quint32(1), stated / 2, stated - 1, stated + 1,
                                     bound - 1, bound, bound + 1, quint32(1) << 27}) {
            SCOPED_TRACE(length);
            if (length < (quint32(1) << 28))
                expectAsQt(withLength(payload, length));
        }
    }
}

TEST(ZebDecompression, DoesWhatQtDoesAtTheLengthFromWhichItRefuses)
{
    if (s_HasSanitizer)
        GTEST_SKIP() << "Qt takes nearly 2 GiB here, which a sanitizer touches.";
    for (const QByteArray& payload :
         {qCompress(BlockFiles::text(50)), QByteArray("0000 no payload at all")}) {
        for (const quint32 length :
             {s_TooLarge - 1, s_TooLarge, s_TooLarge + 1, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
            SCOPED_TRACE(length);
            expectAsQt(withLength(payload, length));
        }
    }
}
