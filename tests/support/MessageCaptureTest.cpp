#include "support/MessageCapture.h"

#include "support/Fatal.h"

#include <QDebug>
#include <QMessageLogger>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

QStringList s_Handled;

void keepText(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    Q_UNUSED(type)
    Q_UNUSED(context)
    s_Handled.append(text);
}

// Installs a handler, as a host does, for the length of a scope.
class OwnHandler
{
public:
    OwnHandler() : m_Previous(qInstallMessageHandler(&keepText)) { s_Handled.clear(); }
    ~OwnHandler() { qInstallMessageHandler(m_Previous); }
    OwnHandler(const OwnHandler&) = delete;
    OwnHandler& operator=(const OwnHandler&) = delete;

private:
    QtMessageHandler m_Previous;
};

void logLine(const char* text)
{
    QMessageLogger().debug("%s", text);
}

} // namespace

TEST(MessageCapture, KeepsEveryMessageWithItsType)
{
    const MessageCapture capture;
    QMessageLogger().debug("one");
    QMessageLogger().info("two");
    QMessageLogger().warning("three");
    QMessageLogger().critical("four");
    const QList<MessageCapture::Message> messages = capture.messages();
    ASSERT_EQ(messages.size(), 4);
    EXPECT_EQ(messages.at(0).m_Type, QtDebugMsg);
    EXPECT_EQ(messages.at(1).m_Type, QtInfoMsg);
    EXPECT_EQ(messages.at(2).m_Type, QtWarningMsg);
    EXPECT_EQ(messages.at(3).m_Type, QtCriticalMsg);
    EXPECT_EQ(messages.at(3).m_Text, QStringLiteral("four"));
}

TEST(MessageCapture, DebugLinesAreTheDebugMessagesAlone)
{
    const MessageCapture capture;
    logLine("one");
    QMessageLogger().warning("two");
    QMessageLogger().debug() << "three";
    EXPECT_EQ(capture.debugLines(), QStringList({QStringLiteral("one"), QStringLiteral("three")}));
}

TEST(MessageCapture, CountsExactTextsOfDebugMessages)
{
    const MessageCapture capture;
    logLine("a line");
    logLine("a line");
    logLine("a line more");
    QMessageLogger().warning("a line");
    EXPECT_EQ(capture.count(QStringLiteral("a line")), 2);
    EXPECT_EQ(capture.count(QStringLiteral("line")), 0);
    EXPECT_TRUE(capture.contains(QStringLiteral("a line more")));
    EXPECT_FALSE(capture.contains(QStringLiteral("a lin")));
}

TEST(MessageCapture, RecordsWhetherAMessageHasAContext)
{
    const MessageCapture capture;
    logLine("bare");
    QMessageLogger().debug() << "bare stream";
    QMessageLogger("file.cpp", 0, nullptr).debug("file");
    QMessageLogger(nullptr, 7, nullptr).debug("line");
    QMessageLogger(nullptr, 0, "function").debug("function");
    QMessageLogger(nullptr, 0, nullptr, "category").debug("category");
    std::vector<bool> contexts;
    for (const MessageCapture::Message& message : capture.messages())
        contexts.push_back(message.m_HasContext);
    EXPECT_THAT(contexts, ::testing::ElementsAre(false, false, true, true, true, true));
}

TEST(MessageCapture, ClearDropsEarlierMessages)
{
    MessageCapture capture;
    logLine("before");
    capture.clear();
    EXPECT_TRUE(capture.messages().isEmpty());
    logLine("after");
    EXPECT_EQ(capture.debugLines(), QStringList(QStringLiteral("after")));
}

TEST(MessageCapture, ReplacesThePreviousHandlerAndRestoresIt)
{
    const OwnHandler own;
    logLine("before");
    {
        const MessageCapture capture;
        logLine("meanwhile");
        EXPECT_EQ(capture.debugLines(), QStringList(QStringLiteral("meanwhile")));
    }
    logLine("after");
    EXPECT_EQ(s_Handled, QStringList({QStringLiteral("before"), QStringLiteral("after")}));
}

TEST(MessageCapture, TheInnermostCaptureGetsTheMessages)
{
    const MessageCapture outer;
    logLine("one");
    auto inner = std::make_unique<MessageCapture>();
    logLine("two");
    EXPECT_EQ(inner->debugLines(), QStringList(QStringLiteral("two")));
    inner.reset();
    logLine("three");
    EXPECT_EQ(outer.debugLines(), QStringList({QStringLiteral("one"), QStringLiteral("three")}));
}

TEST(MessageCapture, CapturesMessagesOfAllThreads)
{
    const MessageCapture capture;
    constexpr int threadCount = 4;
    constexpr int lineCount = 250;
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&capture] {
            for (int line = 0; line < lineCount; ++line) {
                logLine("a line");
                capture.contains(QStringLiteral("a line"));
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(capture.count(QStringLiteral("a line")), threadCount * lineCount);
}

TEST(Fatal, AFatalMessageReachesStandardErrorWhole)
{
    EXPECT_FATAL(QMessageLogger().fatal("%s", "the very words"), "the very words");
}

TEST(Fatal, PartsOfAMessageDoNotMatch)
{
    // EXPECT_FATAL searches for the words in brackets, so neither a beginning nor an end matches.
    const std::string seen = fatalText("the very words");
    EXPECT_THAT(seen, ::testing::HasSubstr(fatalText("the very words")));
    EXPECT_THAT(seen, ::testing::Not(::testing::HasSubstr(fatalText("the very"))));
    EXPECT_THAT(seen, ::testing::Not(::testing::HasSubstr(fatalText("very words"))));
}

TEST(Fatal, EarlierMessagesOfOtherTypesAreNotPrinted)
{
    EXPECT_DEATH(
        {
            const MessageCapture capture;
            logLine("only a debug line");
            QMessageLogger().fatal("%s", "the end");
        },
        ::testing::AllOf(::testing::HasSubstr(fatalText("the end")),
                         ::testing::Not(::testing::HasSubstr("only a debug line"))));
}
