#include "tools/terminal/ProgressBar.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int s_Columns = 60;

// What a terminal's last line shows after these characters, and how wide it ever got.
struct Screen
{
    explicit Screen(const std::string& output)
    {
        std::size_t column = 0;
        for (const char c : output) {
            if (c == '\r') {
                column = 0;
                continue;
            }
            if (c == '\n') {
                m_Finished.push_back(m_Line.substr(0, m_Line.find_last_not_of(' ') + 1));
                m_Line.clear();
                column = 0;
                continue;
            }
            if (column == m_Line.size())
                m_Line += c;
            else
                m_Line[column] = c;
            ++column;
            m_Widest = std::max(m_Widest, column);
        }
        m_Line.erase(m_Line.find_last_not_of(' ') + 1);
    }

    std::vector<std::string> m_Finished;
    std::string m_Line;
    std::size_t m_Widest = 0;
};

} // namespace

TEST(ProgressBar, ShowsTitleBarShareAndSizes)
{
    std::ostringstream out;
    ProgressBar bar(out, true, s_Columns);
    bar.begin("Storing", 4096);
    EXPECT_EQ(Screen(out.str()).m_Line,
              "Storing [>                     ]   0 %     0 bytes of 4 KiB");
    bar.show(2048);
    EXPECT_EQ(Screen(out.str()).m_Line,
              "Storing [===========>          ]  50 %       2 KiB of 4 KiB");
    bar.show(4096);
    EXPECT_EQ(Screen(out.str()).m_Line,
              "Storing [======================] 100 %       4 KiB of 4 KiB");
}

TEST(ProgressBar, KeepsTheLastColumnFree)
{
    for (const int columns : {200, 80, 60, 40, 20, 5, 1}) {
        std::ostringstream out;
        ProgressBar bar(out, true, columns);
        bar.begin("Storing", 1000000);
        bar.show(123456);
        EXPECT_LT(Screen(out.str()).m_Widest, static_cast<std::size_t>(columns)) << columns;
    }
}

TEST(ProgressBar, LeavesTheBarOutWhereThereIsNoRoom)
{
    std::ostringstream out;
    ProgressBar bar(out, true, 40);
    bar.begin("Storing", 4096);
    bar.show(2048);
    EXPECT_EQ(Screen(out.str()).m_Line, "Storing  50 %       2 KiB of 4 KiB");
}

TEST(ProgressBar, OnlyWhatIsCompleteShowsAsComplete)
{
    std::ostringstream out;
    ProgressBar bar(out, true, s_Columns);
    bar.begin("Storing", 1000000);
    bar.show(999999);
    EXPECT_NE(out.str().find(" 99 %"), std::string::npos);
    EXPECT_EQ(out.str().find("100 %"), std::string::npos);
}

TEST(ProgressBar, MoreThanTheTotalCountsAsTheTotal)
{
    std::ostringstream out;
    ProgressBar bar(out, true, s_Columns);
    bar.begin("Storing", 1024);
    bar.show(4096);
    EXPECT_NE(Screen(out.str()).m_Line.find("100 %       1 KiB of 1 KiB"), std::string::npos);
}

TEST(ProgressBar, NothingToDoIsComplete)
{
    std::ostringstream out;
    ProgressBar bar(out, true, s_Columns);
    bar.begin("Storing", 0);
    EXPECT_NE(Screen(out.str()).m_Line.find("100 %     0 bytes of 0 bytes"), std::string::npos);
}

TEST(ProgressBar, DrawsNothingWhenNothingChanged)
{
    std::ostringstream out;
    ProgressBar bar(out, true, s_Columns);
    bar.begin("Storing", 1000);
    bar.show(500);
    const std::string before = out.str();
    bar.show(500);
    EXPECT_EQ(out.str(), before);
    bar.show(600);
    EXPECT_NE(out.str(), before);
}

TEST(ProgressBar, LinesStandAboveTheBarAndWhole)
{
    std::ostringstream out;
    ProgressBar bar(out, true, s_Columns);
    bar.begin("Storing", 1024);
    bar.show(512);
    const std::string line = Screen(out.str()).m_Line;
    bar.printLine("short");
    const Screen screen(out.str());
    EXPECT_EQ(screen.m_Finished, std::vector<std::string>({"short"}));
    EXPECT_EQ(screen.m_Line, line);
}

TEST(ProgressBar, EndLeavesAnEmptyLine)
{
    std::ostringstream out;
    {
        ProgressBar bar(out, true, s_Columns);
        bar.begin("Storing", 1024);
        bar.show(512);
        bar.end();
        EXPECT_EQ(Screen(out.str()).m_Line, "");
        const std::string ended = out.str();
        bar.show(1024);
        EXPECT_EQ(out.str(), ended) << "a bar that has ended draws nothing";
        bar.begin("Comparing", 1024);
        EXPECT_NE(Screen(out.str()).m_Line, "");
    }
    EXPECT_EQ(Screen(out.str()).m_Line, "") << "the destructor takes the bar away";
}

TEST(ProgressBar, AnInvisibleBarOnlyPassesLinesOn)
{
    std::ostringstream out;
    {
        ProgressBar bar(out, false, s_Columns);
        bar.begin("Storing", 1024);
        bar.show(512);
        bar.printLine("a line");
        bar.end();
    }
    EXPECT_EQ(out.str(), "a line\n");
}

TEST(ProgressBar, ARemarkStandsBehindTheNumbersUntilTheNextOne)
{
    std::ostringstream out;
    ProgressBar bar(out, true, 80);
    bar.begin("Checking", 4096);
    bar.show(2048, "3 files, 0:42 left");
    EXPECT_NE(Screen(out.str()).m_Line.find("50 %       2 KiB of 4 KiB, 3 files, 0:42 left"),
              std::string::npos)
        << Screen(out.str()).m_Line;
    bar.show(2048);
    EXPECT_EQ(Screen(out.str()).m_Line.find("left"), std::string::npos);
}
