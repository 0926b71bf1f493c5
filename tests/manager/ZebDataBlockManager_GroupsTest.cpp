// Lists of references that are kept as blocks: their bytes, and what is extracted from them.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "data/ZebHashingJob.h"
#include "hash/ZebHashManager.h"
#include "support/BlockFiles.h"
#include "support/BlockInside.h"
#include "support/BytesOf.h"
#include "support/Fatal.h"
#include "support/Manager.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"

#include <QFile>
#include <QRegularExpression>
#include <QtEndian>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr int s_Header = 16;
constexpr int s_Digest = 64;
constexpr quint64 s_Magic = 1337;

using References = QVector<ZebDataReference>;

ZebDataReference add(const QByteArray& bytes, bool immediate = true)
{
    return manager().addBlock(bytes, ZebModifyAccessor::Cached, immediate);
}

References addMembers(int count, int size = 100)
{
    References members;
    for (int i = 0; i < count; ++i)
        members.append(add(testBytes(size, static_cast<quint32>(i + 1))));
    return members;
}

QByteArray digestOf(const ZebDataReference& reference)
{
    const ZebSmartPointer<ZebDataHash> hash = reference.hashPtr();
    return QByteArray(reinterpret_cast<const char*>(hash->data()), hash->size());
}

// The bytes of a group as the format describes them, made without the library.
QByteArray payload(qint32 hashSize, qint32 count, const QByteArray& digests,
                   quint64 magic = s_Magic)
{
    QByteArray bytes(s_Header, '\0');
    qToLittleEndian<quint64>(magic, bytes.data());
    qToLittleEndian<qint32>(hashSize, bytes.data() + 8);
    qToLittleEndian<qint32>(count, bytes.data() + 12);
    return bytes + digests;
}

QSet<QString> textsOf(const ZebDataReference& group)
{
    QSet<QString> texts;
    manager().extractGroupBlock(group, texts);
    return texts;
}

// What both forms extract from these bytes.
struct Extracted
{
    explicit Extracted(const QByteArray& bytes) : Extracted(add(bytes)) {}
    explicit Extracted(const ZebDataReference& group)
        : m_Members(manager().extractGroupBlock(group)), m_Texts(textsOf(group))
    {}
    bool isEmpty() const { return m_Members.isEmpty() && m_Texts.isEmpty(); }

    References m_Members;
    QSet<QString> m_Texts;
};

// A counter of the registry's look-ups, from its statistics.
int statistic(TemporaryStore& store, const QString& name)
{
    store.messages().clear();
    ZebHashManager::instance().dumpStats();
    for (const QString& line : store.messages().debugLines()) {
        if (line.startsWith(name + ' '))
            return line.mid(name.size() + 1).toInt();
    }
    ADD_FAILURE() << "no such statistic: " << name.toStdString();
    return -1;
}

class ZebDataBlockManagerGroups : public testing::Test
{
protected:
    TemporaryStore m_Store;
};

} // namespace

TEST_F(ZebDataBlockManagerGroups, OfLargeBlocksExtractsInOrder)
{
    References members;
    for (unsigned i = 0; i < 20; ++i)
        members.append(add(BlockFiles::incompressible(256 * 1024, i + 1)));
    const ZebDataReference group = manager().makeGroupBlock(members);
    EXPECT_EQ(manager().extractGroupBlock(group), members);
}

TEST_F(ZebDataBlockManagerGroups, ListsDigestsAfterAHeader)
{
    const References members = addMembers(3);
    const ZebDataReference group = manager().makeGroupBlock(members);
    QByteArray digests;
    for (const ZebDataReference& member : members)
        digests += digestOf(member);
    EXPECT_EQ(bytesOf(group), payload(s_Digest, 3, digests));
    EXPECT_EQ(bytesOf(group).size(), s_Header + 3 * s_Digest);
    EXPECT_EQ(bytesOf(group).left(8), QByteArray::fromHex("3905000000000000"));
}

TEST_F(ZebDataBlockManagerGroups, OfNoMembersIsAHeaderOnly)
{
    const ZebDataReference group = manager().makeGroupBlock(References());
    EXPECT_FALSE(group.isNull());
    EXPECT_EQ(bytesOf(group), QByteArray::fromHex("39050000000000000000000000000000"));
    EXPECT_TRUE(manager().extractGroupBlock(group).isEmpty());
    QSet<QString> texts{QStringLiteral("before")};
    manager().extractGroupBlock(group, texts);
    EXPECT_EQ(texts, QSet<QString>{QStringLiteral("before")});
}

TEST_F(ZebDataBlockManagerGroups, IsABlockLikeAnyOther)
{
    const References members = addMembers(3);
    const ZebDataReference group = manager().makeGroupBlock(members);
    EXPECT_TRUE(group.hasHashJob());
    // Equal lists are one block, and so are the bytes when they come from elsewhere.
    const ZebDataReference again = manager().makeGroupBlock(members);
    group.resolveWork();
    again.resolveWork();
    EXPECT_EQ(group, again);
    EXPECT_EQ(add(bytesOf(group)), group);
    EXPECT_NE(group, members.first());
    manager().flush(true);
    EXPECT_TRUE(StoreInside::hasFile(group));
}

TEST_F(ZebDataBlockManagerGroups, OrderAndDuplicatesMakeAnotherGroup)
{
    const References members = addMembers(2);
    const auto groupOf = [](const References& list) {
        const ZebDataReference group = manager().makeGroupBlock(list);
        group.resolveWork();
        return group;
    };
    const ZebDataReference group = groupOf(members);
    EXPECT_NE(groupOf({members[1], members[0]}), group);
    EXPECT_NE(groupOf({members[0], members[1], members[1]}), group);
}

TEST_F(ZebDataBlockManagerGroups, DuplicatesKeepTheirPlaces)
{
    const References members = addMembers(2);
    const References list{members[0], members[1], members[0], members[0]};
    const ZebDataReference group = manager().makeGroupBlock(list);
    EXPECT_EQ(manager().extractGroupBlock(group), list);
    EXPECT_EQ(textsOf(group), (QSet<QString>{members[0].hash(), members[1].hash()}));
}

TEST_F(ZebDataBlockManagerGroups, DigestListedTwiceIsInternedOnce)
{
    const References members = addMembers(2);
    const ZebDataReference group =
        manager().makeGroupBlock({members[0], members[1], members[0], members[0]});
    group.resolveWork();
    const int hits = statistic(m_Store, QStringLiteral("Cache Hits"));
    const int misses = statistic(m_Store, QStringLiteral("Cache Misses"));
    EXPECT_EQ(manager().extractGroupBlock(group).size(), 4);
    EXPECT_EQ(statistic(m_Store, QStringLiteral("Cache Hits")), hits + 2);
    EXPECT_EQ(statistic(m_Store, QStringLiteral("Cache Misses")), misses);
}

TEST_F(ZebDataBlockManagerGroups, WaitsForPendingMembers)
{
    References members;
    for (char i = 0; i < 8; ++i)
        members.append(add(QByteArray(50000, i), false));
    EXPECT_TRUE(members.first().hasHashJob());
    const ZebDataReference group = manager().makeGroupBlock(members);
    for (const ZebDataReference& member : members)
        EXPECT_FALSE(member.hasHashJob());
    EXPECT_EQ(manager().extractGroupBlock(group), members);
}

TEST_F(ZebDataBlockManagerGroups, DoesNotLoadItsMembers)
{
    const References members = addMembers(3);
    manager().flush(true);
    manager().freeAllBlocks();
    const ZebDataReference group = manager().makeGroupBlock(members);
    const References extracted = manager().extractGroupBlock(group);
    EXPECT_EQ(extracted, members);
    EXPECT_EQ(StoreInside::residentBlocks(), 1);
    EXPECT_FALSE(members.first().isInMemory());
    EXPECT_TRUE(holdsTestBytes(extracted[2], 100, 3));
}

TEST_F(ZebDataBlockManagerGroups, IsLoadedFromDisk)
{
    const References members = addMembers(3);
    const ZebDataReference group = manager().makeGroupBlock(members);
    group.resolveWork();
    manager().flush(true);
    manager().freeAllBlocks();
    EXPECT_EQ(manager().extractGroupBlock(group), members);
    EXPECT_TRUE(group.isInMemory());
}

TEST_F(ZebDataBlockManagerGroups, StaysResidentAndUnpinnedAfterExtraction)
{
    // Held, as a block without references is deleted as soon as it is written.
    const References members = addMembers(3);
    const ZebDataReference group = manager().makeGroupBlock(members);
    group.resolveWork();
    const qint64 evictable = manager().liveBlocks();
    EXPECT_EQ(Extracted(group).m_Texts.size(), 3);
    EXPECT_EQ(manager().liveBlocks(), evictable);
    EXPECT_EQ(group.constAccessor().count(), 1);
}

TEST_F(ZebDataBlockManagerGroups, ExtractionAppends)
{
    const References members = addMembers(3);
    const ZebDataReference group = manager().makeGroupBlock(members);
    const ZebDataReference other = add("other");
    References references{other};
    manager().extractGroupBlock(group, references);
    EXPECT_EQ(references, References{other} + members);
    manager().extractGroupBlock(group, references);
    EXPECT_EQ(references, References{other} + members + members);
    QSet<QString> texts{QStringLiteral("before")};
    manager().extractGroupBlock(group, texts);
    EXPECT_EQ(texts.size(), 4);
    EXPECT_TRUE(texts.contains(QStringLiteral("before")));
}

TEST_F(ZebDataBlockManagerGroups, MayBeInTheVectorThatItIsExtractedInto)
{
    const References members = addMembers(50);
    References references{manager().makeGroupBlock(members)};
    manager().extractGroupBlock(references.first(), references);
    EXPECT_EQ(references.mid(1), members);
}

TEST_F(ZebDataBlockManagerGroups, MayListAnotherGroup)
{
    const References members = addMembers(2);
    const ZebDataReference inner = manager().makeGroupBlock(members);
    inner.resolveWork();
    const ZebDataReference outer = manager().makeGroupBlock({inner, members[0]});
    const References extracted = manager().extractGroupBlock(outer);
    EXPECT_EQ(extracted, (References{inner, members[0]}));
    EXPECT_EQ(manager().extractGroupBlock(extracted.first()), members);
}

TEST_F(ZebDataBlockManagerGroups, TakesUncachedMembers)
{
    const ZebDataReference member = manager().addBlock("kept", ZebModifyAccessor::DontCache);
    const ZebDataReference group = manager().makeGroupBlock({member});
    const References extracted = manager().extractGroupBlock(group);
    ASSERT_EQ(extracted.size(), 1);
    EXPECT_EQ(extracted.first(), member);
    EXPECT_EQ(bytesOf(extracted.first()), "kept");
}

TEST_F(ZebDataBlockManagerGroups, KeepsNoMemberAlive)
{
    References members = addMembers(2);
    const ZebDataReference group = manager().makeGroupBlock(members);
    group.resolveWork();
    manager().flush(true);
    const QString text = members[0].hash();
    members.clear();
    EXPECT_FALSE(ZebHashManager::instance().isHashLive(text));
    EXPECT_EQ(manager().managedBlocks(), 1);
    // The group still names them.
    EXPECT_TRUE(textsOf(group).contains(text));
    EXPECT_FALSE(ZebHashManager::instance().isHashLive(text));
}

TEST_F(ZebDataBlockManagerGroups, MemberWithoutReferencesIsLoadedFromItsFile)
{
    const ZebDataReference group = manager().makeGroupBlock(addMembers(2));
    group.resolveWork();
    manager().flush(true);
    EXPECT_EQ(manager().managedBlocks(), 1);
    const References extracted = manager().extractGroupBlock(group);
    EXPECT_EQ(manager().managedBlocks(), 3);
    ASSERT_EQ(extracted.size(), 2);
    EXPECT_FALSE(extracted[0].hasHashJob());
    EXPECT_FALSE(extracted[0].isInMemory());
    EXPECT_EQ(extracted[0].userId(), 0);
    EXPECT_TRUE(holdsTestBytes(extracted[0], 100, 1));
    EXPECT_TRUE(holdsTestBytes(extracted[1], 100, 2));
    // Equal bytes that are added now find the hash that the extraction has registered.
    EXPECT_EQ(add(testBytes(100, 1)), extracted[0]);
}

TEST_F(ZebDataBlockManagerGroups, MemberWithoutAFileIsStillListed)
{
    QString file;
    ZebDataReference group;
    {
        const References members = addMembers(1);
        group = manager().makeGroupBlock(members);
        group.resolveWork();
        manager().flush(true);
        file = StoreInside::fileOf(members.first());
    }
    ASSERT_TRUE(QFile::remove(file));
    const References extracted = manager().extractGroupBlock(group);
    ASSERT_EQ(extracted.size(), 1);
    EXPECT_TRUE(extracted.first().constAccessor().isNull());
}

TEST_F(ZebDataBlockManagerGroups, SetFormInternsNothing)
{
    const ZebDataReference group = manager().makeGroupBlock(addMembers(5));
    group.resolveWork();
    manager().flush(true);
    const int registered = ZebHashManager::instance().hashCount();
    const int hashes = ZebDataHash::hashCount();
    const int references = ZebDataReference::referenceCount();
    const int requests = statistic(m_Store, QStringLiteral("Requests"));
    const int misses = statistic(m_Store, QStringLiteral("Cache Misses"));
    EXPECT_EQ(textsOf(group).size(), 5);
    EXPECT_EQ(ZebHashManager::instance().hashCount(), registered);
    EXPECT_EQ(ZebDataHash::hashCount(), hashes);
    EXPECT_EQ(ZebDataReference::referenceCount(), references);
    EXPECT_EQ(statistic(m_Store, QStringLiteral("Requests")), requests);
    EXPECT_EQ(statistic(m_Store, QStringLiteral("Cache Misses")), misses);
}

TEST_F(ZebDataBlockManagerGroups, VectorFormInternsNothingBeyondItsReferences)
{
    const ZebDataReference group = manager().makeGroupBlock(addMembers(5));
    group.resolveWork();
    manager().flush(true);
    const int hashes = ZebDataHash::hashCount();
    const int references = ZebDataReference::referenceCount();
    EXPECT_EQ(manager().extractGroupBlock(group).size(), 5);
    EXPECT_EQ(ZebDataHash::hashCount(), hashes);
    EXPECT_EQ(ZebDataReference::referenceCount(), references);
}

TEST_F(ZebDataBlockManagerGroups, BlockThatIsNoGroupExtractsAsEmptySilently)
{
    const QByteArray group = bytesOf(manager().makeGroupBlock(addMembers(2)));
    m_Store.messages().clear();
    EXPECT_TRUE(Extracted(QByteArray(1024, '\0')).isEmpty());
    EXPECT_TRUE(Extracted(QByteArray()).isEmpty());
    EXPECT_TRUE(Extracted(group.left(s_Header - 1)).isEmpty());
    EXPECT_TRUE(Extracted(QByteArray("x") + group).isEmpty());
    // Every bit of the magic counts.
    for (int bit = 0; bit < 64; ++bit) {
        const quint64 magic = s_Magic ^ (quint64(1) << bit);
        EXPECT_TRUE(Extracted(payload(s_Digest, 1, QByteArray(s_Digest, 'd'), magic)).isEmpty());
    }
    EXPECT_TRUE(m_Store.messages().messages().isEmpty());
}

TEST_F(ZebDataBlockManagerGroups, BlockThatCannotBeLoadedExtractsAsEmpty)
{
    const ZebDataReference group = manager().makeGroupBlock(addMembers(2));
    group.resolveWork();
    manager().flush(true);
    manager().freeAllBlocks();
    ASSERT_TRUE(QFile::remove(StoreInside::fileOf(group)));
    EXPECT_TRUE(Extracted(group).isEmpty());
}

TEST_F(ZebDataBlockManagerGroups, BlockWithFewerBytesThanItsSizeIsReadWithinItsBytes)
{
    // Such blocks are legal: no bytes, or an array that holds part of a very large size.
    const ZebDataReference hollow(ZebSmartPointer<ZebBlockFuture>(
        new ZebHashingJob(new ZebDataBlock(static_cast<const unsigned char*>(nullptr), 4096))));
    EXPECT_TRUE(Extracted(hollow).isEmpty());
    const QByteArray whole = bytesOf(manager().makeGroupBlock(addMembers(3)));
    const ZebDataReference cut = add(whole.left(s_Header + 2 * s_Digest));
    // The writer reads the size, too.
    manager().flush(false, ZebDataBlockManager::WriteThreads);
    BlockInside::size(*StoreInside::blockOf(cut)) = whole.size();
    EXPECT_EQ(cut.constAccessor().size(), whole.size());
    EXPECT_EQ(Extracted(cut).m_Members.size(), 2);
    EXPECT_EQ(Extracted(cut).m_Texts.size(), 2);
    // The store counts the size that it has admitted.
    BlockInside::size(*StoreInside::blockOf(cut)) = s_Header + 2 * s_Digest;
}

TEST_F(ZebDataBlockManagerGroups, CountOfZeroOrLessExtractsAsEmpty)
{
    const QByteArray digests(4 * s_Digest, 'd');
    for (const qint32 count : {0, -1, std::numeric_limits<qint32>::min()})
        EXPECT_TRUE(Extracted(payload(s_Digest, count, digests)).isEmpty()) << count;
    for (const qint32 hashSize : {0, -1, -64, std::numeric_limits<qint32>::min()})
        EXPECT_TRUE(Extracted(payload(hashSize, 4, digests)).isEmpty()) << hashSize;
}

TEST_F(ZebDataBlockManagerGroups, TruncatedGroupIsReadToItsLastWholeDigest)
{
    const References members = addMembers(3);
    const QByteArray whole = bytesOf(manager().makeGroupBlock(members));
    for (int cut = s_Header; cut < whole.size(); ++cut) {
        const Extracted extracted(whole.left(cut));
        const int digests = (cut - s_Header) / s_Digest;
        ASSERT_EQ(extracted.m_Members, members.mid(0, digests)) << cut;
        ASSERT_EQ(extracted.m_Texts.size(), digests) << cut;
    }
    QByteArray boastful = whole;
    qToLittleEndian<qint32>(std::numeric_limits<qint32>::max(), boastful.data() + 12);
    EXPECT_EQ(Extracted(boastful).m_Members, members);
    qToLittleEndian<qint32>(std::numeric_limits<qint32>::max(), boastful.data() + 8);
    EXPECT_TRUE(Extracted(boastful).isEmpty());
}

TEST_F(ZebDataBlockManagerGroups, BytesAfterTheLastDigestAreIgnored)
{
    const References members = addMembers(2);
    const QByteArray whole = bytesOf(manager().makeGroupBlock(members));
    EXPECT_EQ(Extracted(whole + QByteArray(3 * s_Digest, 'x')).m_Members, members);
}

TEST_F(ZebDataBlockManagerGroups, DigestsOfAllThreeSizesAreRead)
{
    for (const auto size : {ZebDataHash::Hash256, ZebDataHash::Hash512, ZebDataHash::Hash1024}) {
        const ZebDataHash one(QByteArray("one"), size);
        const ZebDataHash two(QByteArray("two"), size);
        const auto digest = [](const ZebDataHash& hash) {
            return QByteArray(reinterpret_cast<const char*>(hash.data()), hash.size());
        };
        const Extracted extracted(payload(size, 2, digest(one) + digest(two)));
        ASSERT_EQ(extracted.m_Members.size(), 2);
        EXPECT_EQ(*extracted.m_Members[0].hashPtr(), one);
        EXPECT_EQ(*extracted.m_Members[1].hashPtr(), two);
        EXPECT_EQ(extracted.m_Texts, (QSet<QString>{one.toString(), two.toString()}));
    }
}

TEST_F(ZebDataBlockManagerGroups, LastMembersHashSizeIsUsedForAll)
{
    auto& registry = ZebHashManager::instance();
    const ZebDataReference shorter(
        registry.addHash(new ZebDataHash(QByteArray("shorter"), ZebDataHash::Hash256)));
    const ZebDataReference longer(
        registry.addHash(new ZebDataHash(QByteArray("longer"), ZebDataHash::Hash512)));
    const QByteArray shorterLast = bytesOf(manager().makeGroupBlock({longer, shorter}));
    EXPECT_EQ(shorterLast, payload(32, 2, digestOf(longer) + digestOf(shorter)));
    const QByteArray longerLast = bytesOf(manager().makeGroupBlock({shorter, longer}));
    EXPECT_EQ(longerLast, payload(64, 2, digestOf(shorter) + digestOf(longer)));
    // 96 bytes hold one whole digest of 64, the halves of two members.
    EXPECT_EQ(Extracted(longerLast).m_Members.size(), 1);
    EXPECT_EQ(Extracted(shorterLast).m_Members.size(), 2);
}

TEST_F(ZebDataBlockManagerGroups, RandomBytesAreReadWithinTheirBounds)
{
    std::mt19937 random(20261121);
    const auto below = [&random](quint32 bound) {
        return static_cast<int>(random() % bound);
    };
    for (int round = 0; round < 3000; ++round) {
        const int size = below(400);
        QByteArray bytes(size, '\0');
        for (char& byte : bytes)
            byte = static_cast<char>(below(256));
        // Most rounds begin like a group, many with likely sizes.
        if (size >= s_Header && below(8) != 0) {
            qToLittleEndian<quint64>(s_Magic, bytes.data());
            if (below(3) != 0)
                qToLittleEndian<qint32>(below(200) - 20, bytes.data() + 8);
            if (below(3) != 0)
                qToLittleEndian<qint32>(below(200) - 20, bytes.data() + 12);
        }
        qint64 expected = 0;
        if (size >= s_Header && qFromLittleEndian<quint64>(bytes.constData()) == s_Magic) {
            const auto hashSize = qFromLittleEndian<qint32>(bytes.constData() + 8);
            const auto count = qFromLittleEndian<qint32>(bytes.constData() + 12);
            if (hashSize > 0 && count > 0)
                expected = std::min<qint64>(count, (size - s_Header) / hashSize);
        }
        // Without a file, so that thousands cost little.
        const Extracted extracted(manager().addBlock(bytes, ZebModifyAccessor::DontCache));
        ASSERT_EQ(extracted.m_Members.size(), expected) << round;
        ASSERT_LE(extracted.m_Texts.size(), expected) << round;
        for (int i = 0; i < extracted.m_Members.size(); ++i) {
            const QByteArray digest = digestOf(extracted.m_Members[i]);
            ASSERT_EQ(digest, bytes.mid(s_Header + i * digest.size(), digest.size())) << round;
            ASSERT_TRUE(extracted.m_Texts.contains(extracted.m_Members[i].hash())) << round;
        }
    }
}

TEST_F(ZebDataBlockManagerGroups, NullReferenceCannotBeExtracted)
{
    EXPECT_FATAL(manager().extractGroupBlock(ZebDataReference()), "Null Value of m_DataHash");
    QSet<QString> texts;
    EXPECT_FATAL(manager().extractGroupBlock(ZebDataReference(), texts),
                 "Null Value of m_DataHash");
}

TEST_F(ZebDataBlockManagerGroups, NullMemberEndsTheProcess)
{
    EXPECT_DEATH(manager().makeGroupBlock({add("one"), ZebDataReference()}), "");
}

TEST_F(ZebDataBlockManagerGroups, MemberWithoutADigestIsFatal)
{
    const ZebDataReference broken(ZebHashManager::instance().getHash(QStringLiteral("1-2")));
    EXPECT_FATAL(manager().makeGroupBlock({broken}),
                 "Size of data is incorrect is 0, should be 32");
}

TEST_F(ZebDataBlockManagerGroups, NeedsTheStore)
{
    const ZebDataReference group = manager().makeGroupBlock(addMembers(1));
    group.resolveWork();
    m_Store.cleanUp();
    const char* const words = "Data Block Manager Not Initialized. Aborting";
    EXPECT_FATAL(manager().makeGroupBlock(References()), words);
    EXPECT_FATAL(manager().extractGroupBlock(group), words);
    QSet<QString> texts;
    EXPECT_FATAL(manager().extractGroupBlock(group, texts), words);
}

TEST_F(ZebDataBlockManagerGroups, SurvivesOnDiskAcrossRuns)
{
    QString groupText;
    {
        const ZebDataReference group = manager().makeGroupBlock(addMembers(3));
        groupText = group.hash();
    }
    manager().flush(true);
    m_Store.cleanUp();
    m_Store.setupAgain();
    EXPECT_EQ(manager().managedBlocks(), 0);
    const ZebDataReference group(ZebHashManager::instance().getHash(groupText));
    const References extracted = manager().extractGroupBlock(group);
    ASSERT_EQ(extracted.size(), 3);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(holdsTestBytes(extracted[i], 100, static_cast<quint32>(i + 1)));
}

TEST_F(ZebDataBlockManagerGroups, ClearingTheGroupCacheDoesNothing)
{
    const References members = addMembers(2);
    const ZebDataReference group = manager().makeGroupBlock(members);
    group.resolveWork();
    m_Store.messages().clear();
    manager().clearGroupCache();
    EXPECT_TRUE(m_Store.messages().messages().isEmpty());
    EXPECT_EQ(StoreInside::residentBlocks(), 3);
    EXPECT_EQ(manager().extractGroupBlock(group), members);
}

TEST_F(ZebDataBlockManagerGroups, ManyThreadsMakeAndExtractConcurrently)
{
    const References members = addMembers(40);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            const References mine(members);
            for (int round = 0; round < 50; ++round) {
                const References list = mine.mid((round + thread) % 10, 20);
                const ZebDataReference group = manager().makeGroupBlock(list);
                if (manager().extractGroupBlock(group) != list || textsOf(group).size() != 20)
                    ++wrong;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}
