#pragma once

#include "tools/cache/ToolStore.h"
#include "tools/terminal/MessageFilter.h"

#include "support/TemporaryTree.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

/// A test with the store set up as the tool does it, without debug messages.
class StoreFixture : public ::testing::Test
{
protected:
    static constexpr qint64 s_Memory = 64 * 1024 * 1024;

    void SetUp() override
    {
        MessageFilter::install(false);
        StorePlace place;
        // A new one each time, so that a second set-up finds an empty cache.
        place.m_Roots = {m_Cache.path("root" + std::to_string(++m_SetUps))};
        m_Store = ToolStore::open(place, {ToolStore::Roots::Make, s_Memory}, &std::abort);
    }

    void TearDown() override { m_Store.reset(); }

    ToolStore& toolStore() { return *m_Store; }

private:
    const TemporaryTree m_Cache;
    int m_SetUps = 0;
    std::unique_ptr<ToolStore> m_Store;
};
