#include "hash/ZebHashHandle.h"

#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"

#include <QSet>

#include <gtest/gtest.h>

#include <type_traits>

TEST(ZebHashHandle, IsAPlainPointer)
{
    static_assert(sizeof(ZebHashHandle) == sizeof(ZebDataHash*), "One field.");
    static_assert(std::is_trivially_copyable<ZebHashHandle>::value, "A copy is that of its field.");
    static_assert(std::is_trivially_destructible<ZebHashHandle>::value, "It owns nothing.");
    EXPECT_EQ(ZebHashHandle().data(), nullptr);
    ZebDataHash hash;
    const ZebHashHandle handle(&hash);
    EXPECT_EQ(handle.data(), &hash);
}

TEST(ZebHashHandle, CopiesShareThePointer)
{
    ZebDataHash hash;
    const ZebHashHandle handle(&hash);
    const ZebHashHandle copy(handle);
    ZebHashHandle assigned;
    assigned = handle;
    EXPECT_EQ(copy.data(), &hash);
    EXPECT_EQ(assigned.data(), &hash);
    assigned = ZebHashHandle();
    EXPECT_EQ(assigned.data(), nullptr);
    EXPECT_EQ(handle.data(), &hash);
}

TEST(ZebHashHandle, MovesNoCount)
{
    const int before = ZebDataHash::hashCount();
    auto* const hash = new ZebDataHash(QByteArray("bytes"), ZebDataHash::Hash512);
    {
        const ZebSmartPointer<ZebDataHash> holder(hash);
        {
            ZebHashHandle handle(hash);
            const ZebHashHandle copy(handle);
            EXPECT_EQ(hash->refCount(), 1);
            handle = ZebHashHandle();
        }
        EXPECT_EQ(hash->refCount(), 1);
    }
    EXPECT_EQ(ZebDataHash::hashCount(), before);
}

TEST(ZebHashHandle, NullEqualsNullOnly)
{
    // It differs even from a hash without a digest.
    ZebDataHash hash;
    EXPECT_TRUE(ZebHashHandle() == ZebHashHandle(nullptr));
    EXPECT_FALSE(ZebHashHandle() == ZebHashHandle(&hash));
    EXPECT_FALSE(ZebHashHandle(&hash) == ZebHashHandle());
}

TEST(ZebHashHandle, HandlesAreEqualIfTheirDigestsAre)
{
    ZebDataHash hash(QByteArray("bytes"), ZebDataHash::Hash512);
    ZebDataHash twin(QByteArray("bytes"), ZebDataHash::Hash512);
    ZebDataHash shorter(QByteArray("bytes"), ZebDataHash::Hash256);
    ZebDataHash other(QByteArray("other"), ZebDataHash::Hash512);
    twin.setUserId(3);
    twin.setDontCache(true);
    EXPECT_TRUE(ZebHashHandle(&hash) == ZebHashHandle(&hash));
    EXPECT_TRUE(ZebHashHandle(&hash) == ZebHashHandle(&twin));
    EXPECT_FALSE(ZebHashHandle(&hash) == ZebHashHandle(&shorter));
    EXPECT_FALSE(ZebHashHandle(&hash) == ZebHashHandle(&other));
}

TEST(ZebHashHandle, ItsHashIsThatOfTheDigest)
{
    ZebDataHash hash(QByteArray("bytes"), ZebDataHash::Hash512);
    ZebDataHash twin(QByteArray("bytes"), ZebDataHash::Hash512);
    EXPECT_EQ(qHash(ZebHashHandle()), 0U);
    EXPECT_EQ(qHash(ZebHashHandle(&hash)), hash.qhash());
    EXPECT_EQ(qHash(ZebHashHandle(&hash)), qHash(ZebHashHandle(&twin)));
    EXPECT_NE(hash.qhash(), 0U);
}

TEST(ZebHashHandle, ASetKeepsOneHandleOfEachDigest)
{
    ZebDataHash hash(QByteArray("bytes"), ZebDataHash::Hash512);
    ZebDataHash twin(QByteArray("bytes"), ZebDataHash::Hash512);
    ZebDataHash other(QByteArray("other"), ZebDataHash::Hash512);
    QSet<ZebHashHandle> set{ZebHashHandle(&hash), ZebHashHandle(&twin), ZebHashHandle(&other),
                            ZebHashHandle()};
    EXPECT_EQ(set.size(), 3);
    EXPECT_TRUE(set.contains(ZebHashHandle(&twin)));
    EXPECT_EQ(set.constFind(ZebHashHandle(&twin))->data(), &hash);
    EXPECT_TRUE(set.remove(ZebHashHandle(&twin)));
    EXPECT_EQ(set.size(), 2);
}
