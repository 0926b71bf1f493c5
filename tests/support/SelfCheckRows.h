#pragma once

#include "selfcheck/TdxTester.h"
#include "selfcheck/ZebSelfCheckTable.h"
#include "support/MessageCapture.h"
#include "support/SampleFolder.h"

#include "hash/ZebDataHash.h"
#include "manager/ZebDataBlockManager.h"

#include <QVector>

#include <gtest/gtest.h>

#include <cctype>
#include <ostream>
#include <string>

/// One row of the self-check as it is to come out on good data.
struct ExpectedRow
{
    int m_Number;
    const char* m_Name;
    int m_Argument;
    int m_Parts;
    const char* m_First;
    /// The last line: of success, or the words with which the row always fails.
    const char* m_Last;
    bool m_Passes;
};

inline std::ostream& operator<<(std::ostream& out, const ExpectedRow& row)
{
    return out << "row " << row.m_Number << ", " << row.m_Name;
}

/// A name for a test of this row.
inline std::string rowTestName(const ::testing::TestParamInfo<ExpectedRow>& info)
{
    return "Row" + std::to_string(info.param.m_Number) + "_" + info.param.m_Name + "_" +
           std::to_string(info.param.m_Argument);
}

/// Runs the row, and expects its outcome, its first and last line, and that it leaves nothing.
inline void expectRow(const ExpectedRow& expected)
{
    const SampleFolder folder(expected.m_Parts);
    const ZebSelfCheckTable::Row row = ZebSelfCheckTable::rows().at(expected.m_Number - 1);
    ASSERT_STREQ(row.m_Name, expected.m_Name);
    ASSERT_EQ(row.m_Argument, expected.m_Argument);
    ZebDataBlockManager::instance();
    const int hashesBefore = ZebDataHash::hashCount();
    TdxTester tester;
    const MessageCapture messages;
    const bool passed =
        row.m_Sized != nullptr ? (tester.*row.m_Sized)(row.m_Argument) : (tester.*row.m_Plain)();
    EXPECT_EQ(passed, expected.m_Passes) << messages.debugLines().join('\n').toStdString();
    EXPECT_EQ(messages.debugLines().first().toStdString(), expected.m_First);
    EXPECT_TRUE(messages.contains(QLatin1String(expected.m_Last)))
        << messages.debugLines().join('\n').toStdString();
    if (passed) {
        EXPECT_EQ(messages.debugLines().last().toStdString(), expected.m_Last);
    }
    EXPECT_FALSE(ZebDataBlockManager::instance().isInitialized());
    EXPECT_EQ(ZebDataHash::hashCount(), hashesBefore);
    EXPECT_EQ(folder.leftInRoots().join(' ').toStdString(), "");
}
