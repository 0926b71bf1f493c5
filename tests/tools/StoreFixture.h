#pragma once

#include "tools/MessageFilter.h"
#include "tools/ToolStore.h"

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
        std::string reason;
        m_Store = ToolStore::open(s_Memory, reason);
        ASSERT_NE(m_Store, nullptr) << reason;
    }

    void TearDown() override { m_Store.reset(); }

private:
    std::unique_ptr<ToolStore> m_Store;
};
