#include "tools/cache/BlockName.h"

#include "tools/support/BlockBytes.h"

#include <gtest/gtest.h>

TEST(BlockName, TextComesBackAsItWas)
{
    for (const char* const text :
         {"1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16", "0-0-0-0-0-0-0-0-0-0-0-0-0-0-0-0",
          "4294967295-4294967295-4294967295-4294967295-4294967295-4294967295-4294967295-"
          "4294967295-4294967295-4294967295-4294967295-4294967295-4294967295-4294967295-"
          "4294967295-4294967295"}) {
        const std::optional<BlockName> name = BlockName::parse(text);
        ASSERT_TRUE(name.has_value()) << text;
        EXPECT_EQ(name->text(), text);
    }
    EXPECT_EQ(BlockName::parse("7-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16")->word(0), 7U);
    EXPECT_EQ(BlockName::parse("7-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16")->word(15), 16U);
}

TEST(BlockName, OtherTextIsNoName)
{
    for (const char* const text :
         {"", "-", "1-2-3-4-5-6-7-8-9-10-11-12-13-14-15", "1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16-",
          "1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-4294967296", "1--3-4-5-6-7-8-9-10-11-12-13-14-15-16",
          "1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-016"})
        EXPECT_FALSE(BlockName::parse(text).has_value()) << text;
}

TEST(BlockName, KnowsTheBytesThatItNames)
{
    const QByteArray content("some bytes");
    const BlockName name = parsedNameOf(content);
    EXPECT_EQ(name.text(), blockNameOf(content));
    const auto* const bytes = reinterpret_cast<const unsigned char*>(content.constData());
    EXPECT_TRUE(name.isDigestOf(bytes, content.size()));
    EXPECT_FALSE(name.isDigestOf(bytes, content.size() - 1));
    EXPECT_TRUE(parsedNameOf(QByteArray()).isDigestOf(bytes, 0));
}
