#include "support/ZebCompression.h"

#include "support/BlockFiles.h"

#include <QByteArray>

#include <gtest/gtest.h>

#include <atomic>
#include <dlfcn.h>

#include <zlib.h>

using ZebCompression::Result;

namespace {

std::atomic<bool> s_CodecIsOutOfMemory{false};

} // namespace

// Replaces zlib's function for everything that this program loads.
extern "C" __attribute__((visibility("default"))) int deflateInit_(z_streamp stream, int level,
                                                                   const char* version, int size)
{
    using Function = int (*)(z_streamp, int, const char*, int);
    static const auto zlib = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "deflateInit_"));
    return s_CodecIsOutOfMemory ? Z_MEM_ERROR : zlib(stream, level, version, size);
}

TEST(ZebCompression, GivesTheBytesOfQtForEverySizeAndLevel)
{
    for (const int size : {1, 2, 100, 16383, 65535, 65536, 1000000}) {
        for (const QByteArray& plain :
             {BlockFiles::incompressible(size), BlockFiles::text(qMin(size / 20, 40000)).left(size),
              QByteArray(size, 'a')}) {
            if (plain.isEmpty())
                continue;
            for (const int level : {-2, -1, 0, 2, 9}) {
                QByteArray payload("before");
                ASSERT_EQ(ZebCompression::compressDirectly(
                              plain, level, ZebCompression::s_MaxPayloadBytes, &payload),
                          Result::Made);
                ASSERT_TRUE(payload == qCompress(plain, level)) << size << " at " << level;
                ASSERT_LE(payload.capacity(), payload.size() + 64) << "nothing is kept in reserve";
            }
        }
    }
}

TEST(ZebCompression, LeavesBlocksThatQtCanTakeToQt)
{
    // A block of no bytes has no zlib stream.
    for (const QByteArray& plain : {QByteArray(""), QByteArray("a"), BlockFiles::text(100)}) {
        QByteArray payload;
        EXPECT_EQ(ZebCompression::compress(plain, 2, &payload), Result::Made);
        EXPECT_EQ(payload, qCompress(plain, 2));
    }
}

TEST(ZebCompression, FailsWhenThePayloadDoesNotFit)
{
    const QByteArray plain = BlockFiles::incompressible(100000);
    const int needed = qCompress(plain, 2).size();
    for (const int room : {4, 5, 100, 50000, needed - 1}) {
        QByteArray payload("before");
        EXPECT_EQ(ZebCompression::compressDirectly(plain, 2, room, &payload), Result::TooLarge);
        EXPECT_TRUE(payload.isNull()) << room;
    }
    QByteArray payload;
    EXPECT_EQ(ZebCompression::compressDirectly(plain, 2, needed, &payload), Result::Made);
    EXPECT_EQ(payload, qCompress(plain, 2));
}

TEST(ZebCompression, ReportsThatZlibIsOutOfMemory)
{
    QByteArray payload("before");
    s_CodecIsOutOfMemory = true;
    const Result result = ZebCompression::compressDirectly("plain", 2, 1000, &payload);
    s_CodecIsOutOfMemory = false;
    EXPECT_EQ(result, Result::OutOfMemory);
    EXPECT_TRUE(payload.isNull());
}

TEST(ZebCompression, TheLargestPayloadFitsAnArray)
{
    // Nothing touches its pages.
    const QByteArray array(static_cast<int>(ZebCompression::s_MaxPayloadBytes), Qt::Uninitialized);
    EXPECT_EQ(array.size(), ZebCompression::s_MaxPayloadBytes);
    // Where Qt's own bound would no longer fit 32 bits.
    constexpr qint64 qtBound =
        ZebCompression::s_MaxQtBytes + ZebCompression::s_MaxQtBytes / 100 + 13 + 4;
    static_assert(qtBound <= ZebCompression::s_MaxPayloadBytes);
}
