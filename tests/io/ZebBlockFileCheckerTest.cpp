#include "io/ZebBlockFileChecker.h"

#include "hash/SkeinBatch.h"
#include "hash/ZebBlockName.h"
#include "io/ZebMemoryBudget.h"

#include "support/BlockBytes.h"
#include "support/ResourceLimit.h"
#include "support/TemporaryTree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <fstream>
#include <limits>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>
#include <zlib.h>

namespace {

constexpr qint64 s_MiB = 1024LL * 1024;
constexpr qint64 s_Largest = 64 * s_MiB;
constexpr qint64 s_Large = 32 * s_MiB;

class ZebBlockFileCheckerTest : public ::testing::Test
{
protected:
    ZebBlockVerdict check(const std::string& file) { return check(file, m_Content); }

    ZebBlockVerdict check(const std::string& file, const QByteArray& content)
    {
        m_Tree.file("block", file);
        return verifier().check(m_Tree.path("block"), parsedNameOf(content));
    }

    ZebBlockFinding find(const std::string& file) { return check(file).m_Finding; }

    ZebBlockFileChecker& verifier() { return m_Fast ? m_FastVerifier : m_Verifier; }

    const QByteArray m_Content = QByteArray("All work and no play. ").repeated(500);
    const QByteArray m_Payload = qCompress(m_Content, s_StoreLevel);
    const qint32 m_PayloadSize = m_Payload.size();
    const qint64 m_Size = m_Content.size();
    const std::string m_Good = blockFileOf(m_Content);

    TemporaryTree m_Tree;
    ZebMemoryBudget m_Budget{s_Largest};
    ZebBlockFileChecker m_Verifier{{false, s_Largest, s_MiB}, m_Budget};
    ZebBlockFileChecker m_FastVerifier{{true, s_Largest, s_MiB}, m_Budget};
    bool m_Fast = false;
};

// A zlib stream of so many MiB of zeros, which are never in memory together.
QByteArray streamOfZeros(int mib)
{
    std::vector<unsigned char> zeros(static_cast<std::size_t>(s_MiB));
    std::vector<unsigned char> out(static_cast<std::size_t>(s_MiB));
    z_stream stream = {};
    EXPECT_EQ(::deflateInit(&stream, 9), Z_OK);
    QByteArray bytes;
    for (int i = 0; i < mib; ++i) {
        stream.next_in = zeros.data();
        stream.avail_in = static_cast<uInt>(zeros.size());
        stream.next_out = out.data();
        stream.avail_out = static_cast<uInt>(out.size());
        ::deflate(&stream, i + 1 == mib ? Z_FINISH : Z_NO_FLUSH);
        bytes.append(reinterpret_cast<const char*>(out.data()),
                     static_cast<int>(out.size() - stream.avail_out));
    }
    ::deflateEnd(&stream);
    return bytes;
}

// The most memory that the process has had, in bytes.
qint64 peakBytes()
{
    rusage usage = {};
    EXPECT_EQ(::getrusage(RUSAGE_SELF, &usage), 0);
    return usage.ru_maxrss * 1024LL;
}

// The address space of the process, in bytes.
qint64 addressSpaceBytes()
{
    std::ifstream stream("/proc/self/statm");
    qint64 pages = 0;
    stream >> pages;
    EXPECT_GT(pages, 0);
    return pages * ::sysconf(_SC_PAGESIZE);
}

// A limit of the address space that a large block does not fit in, but small objects do.
rlim_t limitBelowALargeBlock()
{
    return static_cast<rlim_t>(addressSpaceBytes() + s_Large / 4);
}

// Whether the memory of this process can be limited: a sanitizer takes terabytes of addresses.
constexpr bool isMemoryLimitable()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return false;
#elif defined(__has_feature)
    return !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer) &&
           !__has_feature(memory_sanitizer);
#else
    return true;
#endif
}

} // namespace

TEST_F(ZebBlockFileCheckerTest, FilesOfTheStoreAreSound)
{
    EXPECT_EQ(find(m_Good), ZebBlockFinding::Sound);
    for (const int size : {0, 1, 2, 11, 65000, 65536, 300000, 3 * 1024 * 1024}) {
        const QByteArray content =
            QByteArray::fromStdString(mixedBytes(static_cast<std::size_t>(size), 1));
        EXPECT_EQ(check(blockFileOf(content), content).m_Finding, ZebBlockFinding::Sound) << size;
    }
    const QByteArray strong = qCompress(m_Content, 9);
    EXPECT_EQ(find(blockFile(m_Size, strong.size(), strong)), ZebBlockFinding::Sound);
}

TEST_F(ZebBlockFileCheckerTest, InvalidBlockSizes)
{
    for (const qint64 size :
         {qint64(-1), std::numeric_limits<qint64>::min(), ZebBlockFile::s_MaxBlockBytes + 1,
          std::numeric_limits<qint64>::max()})
        EXPECT_EQ(find(blockFile(size, m_PayloadSize, m_Payload)), ZebBlockFinding::BadBlockSize)
            << size;
}

TEST_F(ZebBlockFileCheckerTest, InvalidPayloadSizes)
{
    for (const qint32 length : {-1, 0, 3, std::numeric_limits<qint32>::min()})
        EXPECT_EQ(find(blockFile(m_Size, length, m_Payload)), ZebBlockFinding::BadPayloadSize)
            << length;
    // The store reads this one as an empty block.
    EXPECT_EQ(find(blockFile(m_Size, 0, {})), ZebBlockFinding::BadPayloadSize);
}

TEST_F(ZebBlockFileCheckerTest, AFileThatIsTooShort)
{
    EXPECT_EQ(find(m_Good.substr(0, m_Good.size() - 1)), ZebBlockFinding::TooShort);
    EXPECT_EQ(find(m_Good.substr(0, 13)), ZebBlockFinding::TooShort);
    EXPECT_EQ(find(blockFile(m_Size, std::numeric_limits<qint32>::max(), m_Payload)),
              ZebBlockFinding::TooShort);
}

TEST_F(ZebBlockFileCheckerTest, BytesAfterThePayload)
{
    EXPECT_EQ(find(m_Good + "x"), ZebBlockFinding::TrailingBytes);
}

TEST_F(ZebBlockFileCheckerTest, TruncatedFilesAreNoDamage)
{
    for (const std::size_t size : {0U, 1U, 8U, 11U, 12U}) {
        const ZebBlockVerdict verdict = check(m_Good.substr(0, size));
        EXPECT_EQ(verdict.m_Finding, ZebBlockFinding::Truncated) << size;
        EXPECT_FALSE(verdict.isDamage());
    }
}

TEST_F(ZebBlockFileCheckerTest, TwoDifferentSizes)
{
    const ZebBlockVerdict verdict = check(blockFile(m_Size + 1, m_PayloadSize, m_Payload));
    EXPECT_EQ(verdict.m_Finding, ZebBlockFinding::SizesDiffer);
    EXPECT_EQ(verdict.m_Detail, "11001 and 11000 bytes");
}

TEST_F(ZebBlockFileCheckerTest, ASizeAboveTheLimitIsDamage)
{
    const QByteArray payload = QByteArray("\x7f\xff\xff\xff", 4) + m_Payload.mid(4);
    const ZebBlockVerdict verdict = check(blockFile(0x7FFFFFFF, payload.size(), payload));
    EXPECT_EQ(verdict.m_Finding, ZebBlockFinding::TooLarge);
    EXPECT_TRUE(verdict.isDamage());
}

TEST_F(ZebBlockFileCheckerTest, APayloadThatCannotBeDecompressed)
{
    QByteArray damaged = m_Payload;
    damaged[4] = 0;
    EXPECT_EQ(find(blockFile(m_Size, m_PayloadSize, damaged)), ZebBlockFinding::BrokenPayload);
    const QByteArray cut = m_Payload.left(m_PayloadSize - 3);
    EXPECT_EQ(check(blockFile(m_Size, cut.size(), cut)).m_Detail, "its end is missing");
    const QByteArray longer = m_Payload + "after";
    EXPECT_EQ(check(blockFile(m_Size, longer.size(), longer)).m_Detail,
              "it ends before its last byte");
    const QByteArray small = qCompress("small", s_StoreLevel);
    EXPECT_EQ(check(blockFile(5, 4, small.left(4))).m_Detail, "its end is missing");
}

TEST_F(ZebBlockFileCheckerTest, APayloadOfAnotherSize)
{
    const QByteArray size = m_Payload.left(4);
    for (const QByteArray& other : {m_Content.left(100), m_Content + "x", m_Content.repeated(50)}) {
        const QByteArray payload = size + qCompress(other).mid(4);
        EXPECT_EQ(find(blockFile(m_Size, payload.size(), payload)), ZebBlockFinding::LengthDiffers)
            << other.size();
    }
}

TEST_F(ZebBlockFileCheckerTest, BytesThatDoNotMatchTheName)
{
    QByteArray other = m_Content;
    other[7] = 'x';
    EXPECT_EQ(find(blockFileOf(other)), ZebBlockFinding::DigestDiffers);
    EXPECT_TRUE(check(blockFileOf(other)).isDamage());
}

// Several files at a time

TEST_F(ZebBlockFileCheckerTest, EachFileGetsItsOwnVerdictOnce)
{
    constexpr std::size_t count = 29;
    std::vector<ZebBlockFinding> alone;
    std::vector<ZebBlockName> names;
    for (std::size_t i = 0; i < count; ++i) {
        const QByteArray content =
            QByteArray::fromStdString(mixedBytes(1000 * i, static_cast<unsigned int>(i)));
        std::string file = blockFileOf(content);
        if (i % 7 == 3)
            file.pop_back();
        m_Tree.file("block" + std::to_string(i), file);
        names.push_back(parsedNameOf(i % 5 == 2 ? content + "!" : content));
        alone.push_back(
            m_Verifier.check(m_Tree.path("block" + std::to_string(i)), names.back()).m_Finding);
    }
    EXPECT_EQ(std::count(alone.begin(), alone.end(), ZebBlockFinding::DigestDiffers), 5);
    EXPECT_EQ(std::count(alone.begin(), alone.end(), ZebBlockFinding::TooShort), 4);
    std::map<std::size_t, ZebBlockFinding> found;
    const auto receive = [&found](std::size_t tag, const ZebBlockVerdict& verdict,
                                  const ZebFileStamp*) {
        EXPECT_TRUE(found.emplace(tag, verdict.m_Finding).second) << tag;
    };
    for (std::size_t i = 0; i < count; ++i)
        m_Verifier.begin(m_Tree.path("block" + std::to_string(i)), names[i], 100 + i, receive);
    m_Verifier.finish(receive);
    ASSERT_EQ(found.size(), count);
    for (std::size_t i = 0; i < count; ++i)
        EXPECT_EQ(found.at(100 + i), alone[i]) << i;
    m_Verifier.finish(receive);
}

TEST_F(ZebBlockFileCheckerTest, ALargeBlockWaitsForNoOthers)
{
    const QByteArray content = QByteArray::fromStdString(mixedBytes(3 * s_MiB, 1));
    m_Tree.file("large", blockFileOf(content));
    int received = 0;
    m_Verifier.begin(m_Tree.path("large"), parsedNameOf(content), 0,
                     [&received](std::size_t, const ZebBlockVerdict& verdict, const ZebFileStamp*) {
                         ++received;
                         EXPECT_EQ(verdict.m_Finding, ZebBlockFinding::Sound);
                     });
    EXPECT_EQ(received, 1);
}

TEST_F(ZebBlockFileCheckerTest, WithLittleMemoryNothingWaits)
{
    ZebBlockFileChecker verifier({false, s_Largest, 100000}, m_Budget);
    m_Tree.file("block", m_Good);
    int received = 0;
    verifier.begin(m_Tree.path("block"), parsedNameOf(m_Content), 0,
                   [&received](std::size_t, const ZebBlockVerdict& verdict, const ZebFileStamp*) {
                       ++received;
                       EXPECT_EQ(verdict.m_Finding, ZebBlockFinding::Sound);
                   });
    EXPECT_EQ(received, 1);
}

TEST_F(ZebBlockFileCheckerTest, AFileThatChangesWhileItWaitsIsNoDamage)
{
    if (ZebSkein::SkeinBatch::lanes() == 1)
        GTEST_SKIP() << "this processor has no lanes, so nothing waits";
    m_Tree.file("block", m_Good);
    ZebBlockFinding found = ZebBlockFinding::Sound;
    const auto receive = [&found](std::size_t, const ZebBlockVerdict& verdict,
                                  const ZebFileStamp*) {
        found = verdict.m_Finding;
    };
    m_Verifier.begin(m_Tree.path("block"), parsedNameOf("other bytes"), 0, receive);
    EXPECT_EQ(found, ZebBlockFinding::Sound) << "nothing is known yet";
    m_Tree.file("block", m_Good + "more");
    m_Verifier.finish(receive);
    EXPECT_EQ(found, ZebBlockFinding::Changed);
}

TEST_F(ZebBlockFileCheckerTest, FastSeesTheHeaderAlone)
{
    m_Fast = true;
    EXPECT_EQ(find(m_Good), ZebBlockFinding::Sound);
    QByteArray other = m_Content;
    other[7] = 'x';
    EXPECT_EQ(find(blockFileOf(other)), ZebBlockFinding::Sound);
    EXPECT_EQ(find(m_Good.substr(0, 100)), ZebBlockFinding::TooShort);
    EXPECT_EQ(find(m_Good.substr(0, 14)), ZebBlockFinding::TooShort);
    EXPECT_EQ(find(m_Good + "x"), ZebBlockFinding::TrailingBytes);
    EXPECT_EQ(find(m_Good.substr(0, 5)), ZebBlockFinding::Truncated);
    EXPECT_EQ(find(blockFile(m_Size + 1, m_PayloadSize, m_Payload)), ZebBlockFinding::SizesDiffer);
}

TEST_F(ZebBlockFileCheckerTest, LinksAreNotFollowedAndAMissingFileIsRemoved)
{
    m_Tree.file("block", m_Good);
    m_Tree.link("link", "block");
    m_Tree.pipe("pipe");
    const ZebBlockName name = parsedNameOf(m_Content);
    EXPECT_EQ(m_Verifier.check(m_Tree.path("link"), name).m_Finding, ZebBlockFinding::NotChecked);
    EXPECT_EQ(m_Verifier.check(m_Tree.path("pipe"), name).m_Finding, ZebBlockFinding::NotChecked);
    EXPECT_EQ(m_Verifier.check(m_Tree.path("missing"), name).m_Finding, ZebBlockFinding::Removed);
}

TEST_F(ZebBlockFileCheckerTest, ZipBombsStayWithinTheMemoryLimit)
{
    const QByteArray stream = streamOfZeros(1024);
    const qint64 before = peakBytes();
    const auto begin = std::chrono::steady_clock::now();
    for (const qint64 size : {qint64(1000), s_Largest}) {
        QByteArray payload(4, '\0');
        for (int i = 0; i < 4; ++i)
            payload[i] = static_cast<char>(size >> (24 - 8 * i));
        payload += stream;
        EXPECT_EQ(find(blockFile(size, payload.size(), payload)), ZebBlockFinding::LengthDiffers);
    }
    EXPECT_LE(peakBytes(), before + s_Largest + 16 * s_MiB);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
}

TEST_F(ZebBlockFileCheckerTest, APayloadTooSmallForItsSizeIsNotDecompressed)
{
    EXPECT_EQ(find(blockFile(m_Size, 4, m_Payload.left(4))), ZebBlockFinding::LengthDiffers);
}

TEST_F(ZebBlockFileCheckerTest, ThreadsShareABudgetOfOneBlock)
{
    m_Tree.file("block", m_Good);
    ZebMemoryBudget budget(m_Size);
    std::vector<std::thread> threads;
    std::atomic<int> sound(0);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this, &budget, &sound] {
            ZebBlockFileChecker verifier({false, m_Size, 0}, budget);
            for (int round = 0; round < 50; ++round) {
                const ZebBlockVerdict verdict =
                    verifier.check(m_Tree.path("block"), parsedNameOf(m_Content));
                sound.fetch_add(verdict.m_Finding == ZebBlockFinding::Sound ? 1 : 0);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(sound.load(), 4 * 50);
}

TEST_F(ZebBlockFileCheckerTest, ABlockWithoutMemoryIsNotCheckedAndTheNextOneIs)
{
    if (!isMemoryLimitable())
        GTEST_SKIP() << "memory cannot be limited in this build";
    const QByteArray large(static_cast<int>(s_Large), 'x');
    const ZebBlockName largeName = parsedNameOf(large);
    const ZebBlockName name = parsedNameOf(m_Content);
    m_Tree.file("large", blockFileOf(large));
    m_Tree.file("block", m_Good);
    // A share that is not given back would stop the next check of the large block.
    ZebMemoryBudget budget(s_Large);
    ZebBlockFileChecker checker({false, s_Large, s_MiB}, budget);
    ZebBlockVerdict without;
    ZebBlockVerdict small;
    {
        const ResourceLimit limit(RLIMIT_AS, limitBelowALargeBlock());
        without = checker.check(m_Tree.path("large"), largeName);
        small = checker.check(m_Tree.path("block"), name);
    }
    EXPECT_EQ(without.m_Finding, ZebBlockFinding::NotChecked);
    EXPECT_EQ(without.m_Detail, "out of memory");
    EXPECT_EQ(small.m_Finding, ZebBlockFinding::Sound);
    EXPECT_EQ(checker.check(m_Tree.path("large"), largeName).m_Finding, ZebBlockFinding::Sound);
}

TEST_F(ZebBlockFileCheckerTest, ABlockWithoutMemoryLeavesTheWaitingOnes)
{
    const std::size_t lanes = ZebSkein::SkeinBatch::lanes();
    if (!isMemoryLimitable() || lanes < 2)
        GTEST_SKIP() << "memory cannot be limited in this build, or no block waits for another";
    m_Tree.file("block", m_Good);
    const std::string path = m_Tree.path("block");
    const ZebBlockName name = parsedNameOf(m_Content);
    // Each block that waits keeps this much.
    ZebBlockFileChecker checker({false, s_Largest, s_Large * static_cast<qint64>(lanes)}, m_Budget);
    std::map<std::size_t, ZebBlockVerdict> verdicts;
    const auto receive = [&verdicts](std::size_t tag, const ZebBlockVerdict& verdict,
                                     const ZebFileStamp*) {
        verdicts[tag] = verdict;
    };
    checker.begin(path, name, 0, receive);
    {
        const ResourceLimit limit(RLIMIT_AS, limitBelowALargeBlock());
        checker.begin(path, name, 1, receive);
    }
    EXPECT_EQ(verdicts.size(), 1U);
    EXPECT_EQ(verdicts[1].m_Finding, ZebBlockFinding::NotChecked);
    EXPECT_EQ(verdicts[1].m_Detail, "out of memory");
    checker.begin(path, name, 2, receive);
    checker.finish(receive);
    EXPECT_EQ(verdicts.size(), 3U);
    EXPECT_EQ(verdicts[0].m_Finding, ZebBlockFinding::Sound);
    EXPECT_EQ(verdicts[2].m_Finding, ZebBlockFinding::Sound);
}
