// Decompression when memory is short, and how much of it a payload can ask for.

#include "support/ZebDecompression.h"

#include "support/BlockFiles.h"
#include "support/FailingAllocations.h"
#include "support/MessageCapture.h"

#include <QtEndian>

#include <gtest/gtest.h>

#include <algorithm>
#include <new>

namespace {

class ZebDecompressionAllocations : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!FailingAllocations::isAvailable())
            GTEST_SKIP() << "The allocator of a sanitizer cannot be replaced.";
    }

    static QByteArray withLength(QByteArray payload, quint32 length)
    {
        qToBigEndian<quint32>(length, payload.data());
        return payload;
    }

    MessageCapture m_Messages;
};

} // namespace

TEST_F(ZebDecompressionAllocations, AFailedAllocationNeverGivesAnEmptyBlock)
{
    const QByteArray plain = BlockFiles::incompressible(100000);
    const QByteArray sound = qCompress(plain, 2);
    for (const QByteArray& payload : {sound, withLength(sound, 200000), withLength(sound, 5)}) {
        int thrown = 0;
        for (int i = 0;; ++i) {
            QByteArray bytes;
            qint64 failed = 0;
            try {
                const FailingAllocations failing(FailingAllocations::Here, i);
                bytes = ZebDecompression::decompress(payload);
                failed = failing.failed();
            } catch (const std::bad_alloc&) {
                ++thrown;
                continue;
            }
            EXPECT_EQ(bytes, plain) << i;
            if (failed == 0)
                break;
        }
        EXPECT_GT(thrown, 1);
    }
}

TEST_F(ZebDecompressionAllocations, APayloadCannotAskForMoreThanItCanExpandTo)
{
    const QByteArray plain = BlockFiles::text(20);
    const QByteArray payload = withLength(qCompress(plain, 2), 0x70000000);
    const auto bound = static_cast<std::size_t>(ZebDecompression::s_MaxExpansion * payload.size());
    // zlib's window is larger than that.
    constexpr std::size_t window = 65536;
    const FailingAllocations failing(FailingAllocations::Here, 0, FailingAllocations::s_All,
                                     std::max(bound, window));
    EXPECT_EQ(ZebDecompression::decompress(payload), plain);
    EXPECT_TRUE(ZebDecompression::decompress(payload.left(payload.size() - 1)).isEmpty());
    EXPECT_EQ(failing.failed(), 0);
}
