// Look-ups and releases when allocations fail, and look-ups that must not allocate.

#include "hash/ZebHashManager.h"

#include "support/FailingAllocations.h"
#include "support/MessageCapture.h"
#include "support/Registry.h"
#include "support/RegistryReports.h"

#include <gtest/gtest.h>

#include <new>
#include <vector>

using RegistryReports::stats;

namespace {

using Pointer = ZebSmartPointer<ZebDataHash>;

class ZebHashManagerAllocations : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!FailingAllocations::isAvailable())
            GTEST_SKIP() << "a sanitizer has its own allocator";
        // Constructed at first use.
        registry();
    }
};

// A digest of each length that a text can have.
std::vector<QString> texts()
{
    std::vector<QString> texts;
    for (const ZebDataHash::Size size :
         {ZebDataHash::Hash256, ZebDataHash::Hash512, ZebDataHash::Hash1024})
        texts.push_back(ZebDataHash(QByteArray("known"), size).toString());
    return texts;
}

} // namespace

TEST_F(ZebHashManagerAllocations, LookUpOfKnownBytesAllocatesNothing)
{
    const QByteArray bytes("known");
    const Pointer held = registry().getHash(bytes);
    EXPECT_EQ(FailingAllocations::count([&bytes] { registry().getHash(bytes); }), 0);
    EXPECT_EQ(held->refCount(), 1);
}

TEST_F(ZebHashManagerAllocations, LookUpOfAKnownTextAllocatesNothing)
{
    for (const QString& text : texts()) {
        EXPECT_EQ(FailingAllocations::count([&text] { registry().isHashLive(text); }), 0);
        const Pointer held = registry().getHash(text);
        EXPECT_EQ(FailingAllocations::count([&text] { registry().getHash(text); }), 0);
        EXPECT_EQ(FailingAllocations::count([&text] { registry().isHashLive(text); }), 0);
        EXPECT_EQ(held->refCount(), 1);
    }
}

TEST_F(ZebHashManagerAllocations, FailedLookUpLeavesTheRegistryAsItWas)
{
    const QByteArray bytes("new");
    // The first interning makes the table, and the first release constructs the store.
    registry().getHash(bytes);
    const int objects = ZebDataHash::hashCount();
    registry().clearStats();
    Pointer held;
    const qint64 allocations = FailingAllocations::count([&] { held = registry().getHash(bytes); });
    held = Pointer();
    ASSERT_GT(allocations, 0);
    for (qint64 i = 0; i < allocations; ++i) {
        const FailingAllocations failing(FailingAllocations::Here, i);
        EXPECT_THROW(registry().getHash(bytes), std::bad_alloc);
        EXPECT_EQ(registry().hashCount(), 0);
        EXPECT_EQ(ZebDataHash::hashCount(), objects);
    }
    EXPECT_EQ(stats().m_Misses, 1);
    EXPECT_EQ(registry().getHash(bytes)->refCount(), 1);
}

TEST_F(ZebHashManagerAllocations, ATableThatCannotGrowKeepsItsHashes)
{
    // The first release constructs the store.
    registry().getHash(QByteArray("first"));
    std::vector<Pointer> held;
    int failures = 0;
    held.reserve(5000);
    for (int i = 0; i < 5000; ++i) {
        // Only the tables allocate so much at once.
        const FailingAllocations failing(FailingAllocations::Here, 0, 1, 500);
        try {
            held.push_back(registry().getHash(QByteArray::number(i)));
        } catch (const std::bad_alloc&) {
            ++failures;
            held.push_back(registry().getHash(QByteArray::number(i)));
        }
    }
    EXPECT_GT(failures, 0);
    EXPECT_EQ(registry().hashCount(), 5000);
    for (int i = 0; i < 5000; ++i)
        ASSERT_EQ(registry().getHash(QByteArray::number(i)), held[static_cast<size_t>(i)]);
    // Without memory for smaller tables the large ones stay.
    const FailingAllocations failing(FailingAllocations::Here, 0, FailingAllocations::s_All);
    while (held.size() > 1)
        held.pop_back();
    EXPECT_EQ(registry().hashCount(), 1);
    held.clear();
    EXPECT_GT(failing.failed(), 0);
    EXPECT_EQ(registry().hashCount(), 0);
}
