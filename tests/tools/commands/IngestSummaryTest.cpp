#include "tools/commands/IngestSummary.h"

#include "tools/terminal/SummaryText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

IngestSummary example()
{
    IngestSummary summary;
    summary.m_Files = 1234;
    summary.m_SkippedLinks = 5;
    summary.m_Bytes = 3000000;
    summary.m_Blocks = 1300;
    summary.m_DistinctBlocks = 1000;
    summary.m_DistinctBytes = 2250000;
    summary.m_ReadBackBytes = 3000000;
    summary.m_Differences = 1;
    summary.m_Errors = 2;
    summary.m_SecondsIn = 1.5;
    summary.m_SecondsOut = 0.25;
    summary.m_BlockSize = 262144;
    summary.m_Memory = 1048576;
    summary.m_Threads = 8;
    summary.m_Manifest = "m.jsonl";
    return summary;
}

} // namespace

TEST(IngestSummary, TextIsAlignedAndSaysItsUnits)
{
    EXPECT_EQ(example().shown().text(), "Files                1,234\n"
                                        "Links skipped            5\n"
                                        "Bytes            3,000,000  (2.9 MiB)\n"
                                        "Blocks               1,300  of up to 256 KiB\n"
                                        "Distinct blocks      1,000\n"
                                        "Bytes saved        750,000  (732.4 KiB), 25.0 %\n"
                                        "MB/s stored            2.0  in 1.50 s\n"
                                        "MB/s compared         12.0  in 0.25 s\n"
                                        "Differences              1\n"
                                        "Errors                   2\n"
                                        "(1 MB = 1,000,000 bytes; 8 threads)\n"
                                        "Manifest: m.jsonl\n");
}

TEST(IngestSummary, NothingInNoTimeGivesNoRates)
{
    const IngestSummary summary;
    EXPECT_THAT(summary.shown().text(), HasSubstr("MB/s stored"));
    EXPECT_THAT(summary.shown().text(), HasSubstr("0 bytes), 0.0 %"));
    const QJsonObject object =
        QJsonDocument::fromJson(QByteArray::fromStdString(summary.shown().json())).object();
    EXPECT_EQ(object[QStringLiteral("mb_per_s_in")].toDouble(-1), 0);
    EXPECT_EQ(object[QStringLiteral("mb_per_s_out")].toDouble(-1), 0);
}

TEST(IngestSummary, WithoutAComparisonNothingIsSaidOfIt)
{
    IngestSummary summary = example();
    summary.m_Checked = false;
    EXPECT_THAT(summary.shown().text(), Not(HasSubstr("Differences")));
    EXPECT_THAT(summary.shown().text(), Not(HasSubstr("MB/s compared")));
    const std::string json = summary.shown().json();
    EXPECT_THAT(json, Not(HasSubstr("differences")));
    EXPECT_THAT(json, Not(HasSubstr("read_back_bytes")));
    EXPECT_THAT(json, HasSubstr("mb_per_s_in"));
}

TEST(IngestSummary, JsonHasTheseKeysAndValues)
{
    const IngestSummary summary = example();
    const QByteArray json = QByteArray::fromStdString(summary.shown().json());
    EXPECT_EQ(json.count('\n'), 1);
    EXPECT_TRUE(json.endsWith('\n'));
    EXPECT_EQ(json.toStdString(),
              R"({"block_size":262144,"blocks":1300,"bytes":3000000,"differences":1,)"
              R"("distinct_blocks":1000,"distinct_bytes":2250000,"errors":2,"files":1234,)"
              R"("links_skipped":5,"manifest":"m.jsonl","mb_per_s_in":2,"mb_per_s_out":12,)"
              R"("memory_limit":1048576,"previous_manifest":"",)"
              R"("read_back_bytes":3000000,"rewritten_blocks":0,"saved_bytes":750000,)"
              R"("seconds_in":1.5,)"
              R"("seconds_out":0.25,"threads":8})"
              "\n");
}
