#pragma once

#include "tools/cache/ToolStore.h"
#include "tools/terminal/MessageFilter.h"

#include "tools/support/TemporaryTree.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

/// A test with the store set up as the tool does it, and its messages off the terminal.
class StoreFixture : public ::testing::Test
{
protected:
    static constexpr qint64 s_Memory = 64 * 1024 * 1024;

    void SetUp() override
    {
        MessageFilter::install(false);
        StorePlace place;
        // Another one each time: a test that sets up again finds nothing of what was.
        place.m_Roots = {m_Cache.path("root" + std::to_string(++m_SetUps))};
        std::string reason;
        m_Store = ToolStore::open(place, {ToolStore::Roots::Make, s_Memory, 0}, reason);
        ASSERT_NE(m_Store, nullptr) << reason;
    }

    void TearDown() override { m_Store.reset(); }

    ToolStore& toolStore() { return *m_Store; }

private:
    const TemporaryTree m_Cache;
    int m_SetUps = 0;
    std::unique_ptr<ToolStore> m_Store;
};
