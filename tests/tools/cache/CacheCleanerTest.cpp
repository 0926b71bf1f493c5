#include "tools/cache/CacheCleaner.h"

#include "manager/ZebDataBlockManager.h"

#include "tools/support/ErrorLines.h"
#include "tools/support/StoreFixture.h"

#include <gtest/gtest.h>

#include <ios>
#include <ostream>
#include <streambuf>

namespace {

/// A terminal that is gone.
class BrokenBuffer : public std::streambuf
{
protected:
    int_type overflow(int_type) override { throw std::ios_base::failure("gone"); }
};

} // namespace

class CacheCleanerTest : public StoreFixture
{};

TEST_F(CacheCleanerTest, AnExceptionInAPassStopsTheCollection)
{
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    BrokenBuffer buffer;
    std::ostream stream(&buffer);
    stream.exceptions(std::ios_base::badbit);
    ErrorLines errors;
    {
        ProgressBar progress(stream, true, 80);
        StorePlace place;
        place.m_Roots = {manager.cacheRoots().front().toStdString()};
        CacheCleaner cleaner(place, toolStore(), errors.report(), progress);
        EXPECT_THROW(cleaner.removeUnreferenced(), std::ios_base::failure);
        stream.exceptions(std::ios_base::goodbit);
    }
    // The name cannot change while the collection is on.
    manager.setSubCache(QStringLiteral("other"));
    EXPECT_EQ(manager.subCache(), QStringLiteral("other"));
}
