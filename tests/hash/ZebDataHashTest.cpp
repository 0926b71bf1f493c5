#include "hash/ZebDataHash.h"

#include "support/BlockedThread.h"
#include "support/Fatal.h"
#include "support/HashInside.h"
#include "support/IsFree.h"
#include "support/MessageCapture.h"

#include <QFile>
#include <QSet>

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

using HashInside::sizeField;

namespace {

using Pointer = ZebSmartPointer<ZebDataHash>;

constexpr ZebDataHash::Size s_Sizes[] = {ZebDataHash::Hash256, ZebDataHash::Hash512,
                                         ZebDataHash::Hash1024};

constexpr auto s_Zero = static_cast<ZebDataHash::Size>(0);
constexpr auto s_Negative = static_cast<ZebDataHash::Size>(-4);

const unsigned char* pointerTo(const QByteArray& array)
{
    return reinterpret_cast<const unsigned char*>(array.constData());
}

QByteArray digestOf(const ZebDataHash& hash)
{
    return QByteArray(reinterpret_cast<const char*>(hash.data()), hash.size());
}

ZebDataHash fromDigest(const QByteArray& digest)
{
    QByteArray copy = digest;
    return ZebDataHash(static_cast<ZebDataHash::Size>(digest.size()),
                       reinterpret_cast<unsigned char*>(copy.data()));
}

struct Vector
{
    ZebDataHash::Size m_Size;
    QByteArray m_Input;
    QByteArray m_Digest;
    QString m_Text;
};

QByteArray vectorInput(const QByteArray& kind, int length)
{
    QByteArray input(length, '\0');
    for (int i = 0; i < length; ++i) {
        if (kind == "count")
            input[i] = static_cast<char>(i % 256);
        else if (kind == "mod255")
            input[i] = static_cast<char>(i % 255);
        else if (kind == "down")
            input[i] = static_cast<char>(255 - i % 256);
        else
            EXPECT_EQ(kind, "zero");
    }
    return input;
}

std::vector<Vector> readVectors()
{
    std::vector<Vector> vectors;
    QFile file(QStringLiteral(ZEBTDX_TEST_VECTORS_DIR) + QStringLiteral("/skein.tsv"));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    for (const QByteArray& line : file.readAll().split('\n')) {
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        const QList<QByteArray> columns = line.split('\t');
        EXPECT_EQ(columns.size(), 5) << line.constData();
        if (columns.size() != 5)
            return {};
        vectors.push_back({static_cast<ZebDataHash::Size>(columns[0].toInt()),
                           vectorInput(columns[1], columns[2].toInt()),
                           QByteArray::fromHex(columns[3]), QString::fromLatin1(columns[4])});
    }
    return vectors;
}

} // namespace

// Shape

TEST(ZebDataHash, SizesAreByteLengths)
{
    EXPECT_EQ(static_cast<int>(ZebDataHash::Hash256), 32);
    EXPECT_EQ(static_cast<int>(ZebDataHash::Hash512), 64);
    EXPECT_EQ(static_cast<int>(ZebDataHash::Hash1024), 128);
    static_assert(std::is_same<std::underlying_type<ZebDataHash::Size>::type, int>::value,
                  "A size is a 32-bit signed number.");
}

TEST(ZebDataHash, HasNoVirtualOperations)
{
    static_assert(!std::is_polymorphic<ZebDataHash>::value, "No table of virtual functions.");
    static_assert(!std::is_constructible<ZebDataHash, const unsigned char*, qint64>::value,
                  "A size must be named.");
    static_assert(std::is_convertible<QString, ZebDataHash>::value, "A text may stand for a hash.");
    SUCCEED();
}

// Constructors

TEST(ZebDataHash, ANewHashHasNoDigestAndNoMarks)
{
    const ZebDataHash hash;
    EXPECT_EQ(hash.size(), ZebDataHash::Hash256);
    EXPECT_TRUE(HashInside::digest(hash).isEmpty());
    EXPECT_EQ(hash.refCount(), 0);
    EXPECT_EQ(hash.userId(), 0);
    EXPECT_FALSE(hash.isDontCache());
    EXPECT_FALSE(hash.isPreloading());
}

TEST(ZebDataHash, EveryConstructorStartsTheFieldsAlike)
{
    const QByteArray bytes("content");
    QByteArray digest(64, 'd');
    const ZebDataHash fromArray(bytes, ZebDataHash::Hash512);
    const ZebDataHash fromPointer(pointerTo(bytes), bytes.size(), ZebDataHash::Hash512);
    const ZebDataHash taken(ZebDataHash::Hash512, reinterpret_cast<unsigned char*>(digest.data()));
    const ZebDataHash fromText(fromArray.toString());
    for (const ZebDataHash* hash : {&fromArray, &fromPointer, &taken, &fromText}) {
        EXPECT_EQ(hash->size(), ZebDataHash::Hash512);
        EXPECT_EQ(HashInside::digest(*hash).size(), 64);
        EXPECT_EQ(hash->refCount(), 0);
        EXPECT_EQ(hash->userId(), 0);
        EXPECT_FALSE(hash->isDontCache());
        EXPECT_FALSE(hash->isPreloading());
    }
}

TEST(ZebDataHash, DigestsAndTextsAreThoseOfExistingCaches)
{
    const std::vector<Vector> vectors = readVectors();
    QSet<int> sizes;
    for (const Vector& vector : vectors) {
        const ZebDataHash hash(vector.m_Input, vector.m_Size);
        const std::string what = vector.m_Text.toStdString();
        EXPECT_EQ(digestOf(hash).toHex(), vector.m_Digest.toHex()) << what;
        EXPECT_EQ(hash.size(), vector.m_Size) << what;
        EXPECT_EQ(hash.toString(), vector.m_Text) << what;
        EXPECT_TRUE(ZebDataHash(pointerTo(vector.m_Input), vector.m_Input.size(), vector.m_Size) ==
                    hash)
            << what;
        EXPECT_TRUE(ZebDataHash(vector.m_Text) == hash) << what;
        EXPECT_TRUE(fromDigest(vector.m_Digest) == hash) << what;
        sizes.insert(vector.m_Size);
    }
    EXPECT_EQ(sizes, (QSet<int>{32, 64, 128}));
    EXPECT_GE(vectors.size(), 60U);
}

TEST(ZebDataHash, EmptyInputHasADigest)
{
    const MessageCapture messages;
    for (const ZebDataHash::Size size : s_Sizes) {
        const ZebDataHash fromNull(nullptr, 0, size);
        EXPECT_TRUE(fromNull == ZebDataHash(QByteArray(), size));
        EXPECT_TRUE(fromNull == ZebDataHash(QByteArray(""), size));
        EXPECT_NE(digestOf(fromNull), QByteArray(size, '\0'));
    }
    EXPECT_TRUE(messages.messages().isEmpty());
}

TEST(ZebDataHash, OnlyLengthBytesOfAPointerAreRead)
{
    const QByteArray bytes("the content and what stands behind it");
    for (const ZebDataHash::Size size : s_Sizes) {
        const ZebDataHash hash(pointerTo(bytes), 11, size);
        EXPECT_TRUE(hash == ZebDataHash(QByteArray("the content"), size));
        EXPECT_FALSE(hash == ZebDataHash(bytes, size));
    }
}

TEST(ZebDataHash, ADigestIsCopiedAndNotComputed)
{
    const MessageCapture messages;
    for (const ZebDataHash::Size size : s_Sizes) {
        QByteArray digest(size, '\0');
        for (int i = 0; i < digest.size(); ++i)
            digest[i] = static_cast<char>(i + 1);
        const QByteArray wanted(digest.constData(), digest.size());
        const ZebDataHash hash(size, reinterpret_cast<unsigned char*>(digest.data()));
        digest.fill('x');
        EXPECT_EQ(hash.size(), size);
        EXPECT_EQ(digestOf(hash), wanted);
    }
    EXPECT_TRUE(messages.messages().isEmpty());
}

TEST(ZebDataHash, ASizeOfZeroIsFatal)
{
    unsigned char bytes[128] = {};
    EXPECT_FATAL(ZebDataHash(QByteArray("bytes"), s_Zero), "Hash Size is Zero");
    EXPECT_FATAL(ZebDataHash(bytes, 5, s_Zero), "Hash Size is Zero");
    EXPECT_FATAL(ZebDataHash(s_Zero, bytes), "Hash Size is Zero");
}

TEST(ZebDataHash, OnlyASizeOfZeroIsRejected)
{
    const MessageCapture messages;
    const ZebDataHash hash(QByteArray("bytes"), s_Negative);
    EXPECT_EQ(hash.size(), s_Negative);
    EXPECT_TRUE(HashInside::digest(hash).isEmpty());
    EXPECT_EQ(messages.debugLines(), QStringList{"Hashing Failed - Invalid Hash Length"});

    unsigned char digest[4] = {1, 2, 3, 4};
    const ZebDataHash taken(s_Negative, digest);
    EXPECT_EQ(taken.size(), s_Negative);
    EXPECT_TRUE(HashInside::digest(taken).isEmpty());
    EXPECT_EQ(messages.messages().size(), 1);
}

TEST(ZebDataHash, InputThatCannotBeDigestedLeavesTheZeroes)
{
    const unsigned char bytes[4] = {1, 2, 3, 4};
    for (const ZebDataHash::Size size : s_Sizes) {
        for (const bool isNull : {false, true}) {
            const MessageCapture messages;
            const ZebDataHash hash(isNull ? nullptr : bytes, isNull ? 4 : -1, size);
            EXPECT_EQ(digestOf(hash), QByteArray(size, '\0'));
            ASSERT_EQ(messages.messages().size(), 1);
            EXPECT_EQ(messages.messages().first().m_Type, QtDebugMsg);
            EXPECT_EQ(messages.messages().first().m_Text, "Hashing Failed");
            EXPECT_FALSE(messages.messages().first().m_HasContext);
        }
    }
}

TEST(ZebDataHash, AFailedCalculationLeavesTheDigestAsItIs)
{
    const MessageCapture messages;
    const unsigned char bytes[4] = {1, 2, 3, 4};
    ZebDataHash hash(QByteArray("first"), ZebDataHash::Hash256);
    const QByteArray before = digestOf(hash);
    HashInside::calculate(hash, bytes, -1);
    EXPECT_EQ(messages.debugLines(), QStringList{"Hashing Failed"});
    EXPECT_EQ(digestOf(hash), before);

    sizeField(hash) = s_Zero;
    HashInside::calculate(hash, bytes, 4);
    EXPECT_EQ(messages.debugLines(),
              (QStringList{"Hashing Failed", "Hashing Failed - Invalid Hash Length"}));
    sizeField(hash) = ZebDataHash::Hash256;
    EXPECT_EQ(digestOf(hash), before);

    HashInside::calculate(hash, bytes, 4);
    EXPECT_EQ(messages.messages().size(), 2);
    EXPECT_TRUE(hash == ZebDataHash(bytes, 4, ZebDataHash::Hash256));
}

TEST(ZebDataHash, CalculationTakesNoLock)
{
    ZebDataHash hash(QByteArray("first"), ZebDataHash::Hash512);
    const unsigned char bytes[4] = {1, 2, 3, 4};
    EXPECT_FALSE(
        waitsForLock(HashInside::mutex(hash), [&] { HashInside::calculate(hash, bytes, 4); }));
    EXPECT_TRUE(hash == ZebDataHash(bytes, 4, ZebDataHash::Hash512));
}

TEST(ZebDataHash, ACopyTakesDigestUserIdAndTheDontCacheMark)
{
    Pointer held(new ZebDataHash(QByteArray("source"), ZebDataHash::Hash1024));
    held->setUserId(2);
    held->setDontCache(true);
    held->setPreloading(true);
    ASSERT_EQ(held->refCount(), 1);
    const ZebDataHash copy(*held);
    EXPECT_EQ(copy.size(), ZebDataHash::Hash1024);
    EXPECT_TRUE(copy == *held);
    EXPECT_EQ(copy.userId(), 2);
    EXPECT_TRUE(copy.isDontCache());
    EXPECT_EQ(copy.refCount(), 0);
    EXPECT_FALSE(copy.isPreloading());
    EXPECT_TRUE(held->isPreloading());
    EXPECT_EQ(held->refCount(), 1);
}

TEST(ZebDataHash, ACopyHasAMutexOfItsOwn)
{
    ZebDataHash source(QByteArray("source"), ZebDataHash::Hash256);
    ASSERT_TRUE(source.tryLock());
    ZebDataHash copy(source);
    EXPECT_TRUE(isFree(copy));
    EXPECT_FALSE(isFree(source));
    source.unlock();
}

TEST(ZebDataHash, AssignmentTakesDigestAndUserId)
{
    ZebDataHash source(QByteArray("source"), ZebDataHash::Hash1024);
    source.setUserId(2);
    ZebDataHash target;
    EXPECT_EQ(&(target = source), &target);
    EXPECT_TRUE(target == source);
    EXPECT_EQ(target.size(), ZebDataHash::Hash1024);
    EXPECT_EQ(target.userId(), 2);
    EXPECT_EQ(source.userId(), 2);

    ZebDataHash& same = target;
    target = same;
    EXPECT_TRUE(target == source);
    EXPECT_EQ(target.userId(), 2);
}

TEST(ZebDataHash, AssignmentKeepsTheDontCacheMark)
{
    ZebDataHash marked(QByteArray("marked"), ZebDataHash::Hash512);
    marked.setDontCache(true);
    ZebDataHash plain(QByteArray("plain"), ZebDataHash::Hash512);
    ZebDataHash target(plain);

    target = marked;
    EXPECT_TRUE(target == marked);
    EXPECT_FALSE(target.isDontCache());
    marked = plain;
    EXPECT_TRUE(marked == plain);
    EXPECT_TRUE(marked.isDontCache());
}

TEST(ZebDataHash, AssignmentKeepsPreloadingMarkCountAndMutexOfTheTarget)
{
    ZebDataHash source(QByteArray("source"), ZebDataHash::Hash512);
    source.setPreloading(true);
    Pointer target(new ZebDataHash(QByteArray("target"), ZebDataHash::Hash256));
    const Pointer second(target);
    *target = source;
    EXPECT_EQ(target->refCount(), 2);
    EXPECT_FALSE(target->isPreloading());

    target->setPreloading(true);
    source.setPreloading(false);
    ASSERT_TRUE(target->tryLock());
    *target = source;
    EXPECT_TRUE(target->isPreloading());
    EXPECT_FALSE(isFree(*target));
    EXPECT_TRUE(isFree(source));
    target->unlock();
    EXPECT_EQ(source.refCount(), 0);
}

// Comparison

TEST(ZebDataHash, EqualityComparesTheDigestOnly)
{
    ZebDataHash one(QByteArray("bytes"), ZebDataHash::Hash512);
    ZebDataHash other(QByteArray("bytes"), ZebDataHash::Hash512);
    other.setUserId(5);
    other.setDontCache(true);
    other.setPreloading(true);
    EXPECT_TRUE(one == other);
    EXPECT_FALSE(one != other);

    const ZebDataHash different(QByteArray("Bytes"), ZebDataHash::Hash512);
    EXPECT_FALSE(one == different);
    EXPECT_TRUE(one != different);
    for (const int i : {0, 31, 63}) {
        QByteArray digest = digestOf(one);
        digest[i] = static_cast<char>(digest.at(i) ^ 1);
        EXPECT_TRUE(one != fromDigest(digest)) << i;
    }
}

TEST(ZebDataHash, EqualityNeedsEqualSizesAndEqualLengths)
{
    ZebDataHash one = fromDigest(QByteArray(32, 'a'));
    EXPECT_FALSE(one == fromDigest(QByteArray(64, 'a')));

    ZebDataHash other(one);
    sizeField(other) = ZebDataHash::Hash512;
    EXPECT_FALSE(one == other);
    EXPECT_TRUE(one != other);

    sizeField(other) = ZebDataHash::Hash256;
    ASSERT_TRUE(one == other);
    HashInside::digest(other).chop(1);
    EXPECT_FALSE(one == other);
    HashInside::digest(other).clear();
    EXPECT_FALSE(one == other);
    EXPECT_TRUE(ZebDataHash() == ZebDataHash());
}

TEST(ZebDataHash, OrderIsBySizeFirst)
{
    const ZebDataHash small = fromDigest(QByteArray(32, '\xff'));
    const ZebDataHash middle = fromDigest(QByteArray(64, '\x01'));
    const ZebDataHash large = fromDigest(QByteArray(128, '\0'));
    EXPECT_TRUE(small < middle);
    EXPECT_TRUE(middle < large);
    EXPECT_TRUE(small < large);
    EXPECT_FALSE(middle < small);
    EXPECT_FALSE(large < middle);
    EXPECT_FALSE(large < small);
}

TEST(ZebDataHash, OrderOfEqualSizesComparesUnsignedBytes)
{
    QByteArray low(64, '\0');
    QByteArray high(64, '\0');
    low[3] = '\x7f';
    high[3] = '\x80';
    // The first differing byte decides; later bytes have no effect.
    low[4] = '\xff';
    EXPECT_TRUE(fromDigest(low) < fromDigest(high));
    EXPECT_FALSE(fromDigest(high) < fromDigest(low));
    EXPECT_FALSE(fromDigest(low) < fromDigest(low));

    QByteArray last(64, '\0');
    last[63] = '\x01';
    EXPECT_TRUE(fromDigest(QByteArray(64, '\0')) < fromDigest(last));
    EXPECT_FALSE(fromDigest(last) < fromDigest(QByteArray(64, '\0')));
}

TEST(ZebDataHash, OrderOfHashesWithoutADigestReadsNothing)
{
    const ZebDataHash none;
    const ZebDataHash zeroes = fromDigest(QByteArray(32, '\0'));
    EXPECT_FALSE(none < none);
    EXPECT_TRUE(none < zeroes);
    EXPECT_FALSE(zeroes < none);
}

TEST(ZebDataHash, TheHashOfTheDigestIsQts)
{
    for (const ZebDataHash::Size size : s_Sizes) {
        const ZebDataHash hash(QByteArray("bytes"), size);
        const ZebDataHash twin(QByteArray("bytes"), size);
        EXPECT_EQ(hash.qhash(), qHash(digestOf(hash), 0));
        EXPECT_EQ(hash.qhash(), twin.qhash());
    }
    EXPECT_EQ(ZebDataHash().qhash(), qHash(QByteArray(), 0));
}

TEST(ZebDataHash, TheHashOfAPointerDependsOnItsAddress)
{
    const Pointer one(new ZebDataHash(QByteArray("twin"), ZebDataHash::Hash512));
    const Pointer twin(new ZebDataHash(QByteArray("twin"), ZebDataHash::Hash512));
    const Pointer copy(one);
    const auto address = reinterpret_cast<quintptr>(one.data());
    EXPECT_EQ(qHash(one), static_cast<unsigned int>((address ^ (address >> 31)) & 0xFFFFFFFFU));
    EXPECT_EQ(qHash(one), qHash(copy));
    EXPECT_NE(qHash(one), qHash(twin));
    EXPECT_EQ(qHash(Pointer()), 0U);
    EXPECT_EQ((QSet<Pointer>{one, copy, twin}).size(), 2);
}

// Read-outs

TEST(ZebDataHash, DataDoesNotDetach)
{
    const ZebDataHash hash(QByteArray("bytes"), ZebDataHash::Hash512);
    const ZebDataHash copy(hash);
    const auto* stored = HashInside::digest(hash).constData();
    EXPECT_EQ(reinterpret_cast<const char*>(hash.data()), stored);
    EXPECT_EQ(copy.data(), hash.data());
    static_assert(std::is_same<decltype(hash.data()), unsigned char*>::value,
                  "The bytes are handed out as plain ones.");
}

TEST(ZebDataHash, UserIdAndMarksAreWhatWasSet)
{
    ZebDataHash hash;
    hash.setUserId(2);
    EXPECT_EQ(hash.userId(), 2);
    hash.setUserId(-2147483647 - 1);
    EXPECT_EQ(hash.userId(), -2147483647 - 1);

    hash.setDontCache(true);
    EXPECT_TRUE(hash.isDontCache());
    EXPECT_FALSE(hash.isPreloading());
    hash.setDontCache(false);
    EXPECT_FALSE(hash.isDontCache());

    hash.setPreloading(true);
    EXPECT_TRUE(hash.isPreloading());
    EXPECT_FALSE(hash.isDontCache());
    hash.setPreloading(false);
    EXPECT_FALSE(hash.isPreloading());
}

TEST(ZebDataHash, UserIdAndMarksNeedNoLock)
{
    ZebDataHash hash;
    EXPECT_FALSE(waitsForLock(HashInside::mutex(hash), [&hash] {
        hash.setUserId(3);
        hash.setDontCache(true);
        hash.setPreloading(true);
        EXPECT_EQ(hash.userId(), 3);
        EXPECT_TRUE(hash.isDontCache());
        EXPECT_TRUE(hash.isPreloading());
        EXPECT_EQ(hash.refCount(), 0);
    }));
}
