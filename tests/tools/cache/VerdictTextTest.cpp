#include "tools/cache/VerdictText.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

TEST(VerdictText, EveryFindingHasItsOwnWords)
{
    std::set<std::string> keys;
    std::set<std::string> lines;
    for (int i = 0; i <= static_cast<int>(ZebBlockFinding::NotChecked); ++i) {
        const auto finding = static_cast<ZebBlockFinding>(i);
        const std::string line = VerdictText::line({finding, "detail"});
        EXPECT_NE(line.find(" (detail); "), std::string::npos) << line;
        EXPECT_TRUE(lines.insert(line).second) << line;
        EXPECT_TRUE(keys.insert(VerdictText::key(finding)).second) << line;
    }
}
