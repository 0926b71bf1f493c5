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

// Puts a handler of its own in place, as a host does, for the length of a scope.
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

void say(const char* text)
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
    say("one");
    QMessageLogger().warning("two");
    QMessageLogger().debug() << "three";
    EXPECT_EQ(capture.debugLines(), QStringList({QStringLiteral("one"), QStringLiteral("three")}));
}

TEST(MessageCapture, CountsExactTextsOfDebugMessages)
{
    const MessageCapture capture;
    say("a line");
    say("a line");
    say("a line more");
    QMessageLogger().warning("a line");
    EXPECT_EQ(capture.count(QStringLiteral("a line")), 2);
    EXPECT_EQ(capture.count(QStringLiteral("line")), 0);
    EXPECT_TRUE(capture.contains(QStringLiteral("a line more")));
    EXPECT_FALSE(capture.contains(QStringLiteral("a lin")));
}

TEST(MessageCapture, TellsWhetherAMessageCameWithAContext)
{
    const MessageCapture capture;
    say("bare");
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

TEST(MessageCapture, ClearForgetsWhatCameBefore)
{
    MessageCapture capture;
    say("before");
    capture.clear();
    EXPECT_TRUE(capture.messages().isEmpty());
    say("after");
    EXPECT_EQ(capture.debugLines(), QStringList(QStringLiteral("after")));
}

TEST(MessageCapture, KeepsMessagesFromTheHandlerThatWasThereAndBringsItBack)
{
    const OwnHandler own;
    say("before");
    {
        const MessageCapture capture;
        say("meanwhile");
        EXPECT_EQ(capture.debugLines(), QStringList(QStringLiteral("meanwhile")));
    }
    say("after");
    EXPECT_EQ(s_Handled, QStringList({QStringLiteral("before"), QStringLiteral("after")}));
}

TEST(MessageCapture, TheInnermostCaptureGetsTheMessages)
{
    const MessageCapture outer;
    say("one");
    auto inner = std::make_unique<MessageCapture>();
    say("two");
    EXPECT_EQ(inner->debugLines(), QStringList(QStringLiteral("two")));
    inner.reset();
    say("three");
    EXPECT_EQ(outer.debugLines(), QStringList({QStringLiteral("one"), QStringLiteral("three")}));
}

TEST(MessageCapture, TakesMessagesOfAllThreads)
{
    const MessageCapture capture;
    constexpr int threadCount = 4;
    constexpr int lineCount = 250;
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&capture] {
            for (int line = 0; line < lineCount; ++line) {
                say("a line");
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

TEST(Fatal, ThePartsOfAMessageAreNotItsWords)
{
    // What EXPECT_FATAL looks for is fenced, so neither a beginning nor an end is enough.
    const std::string seen = fatalText("the very words");
    EXPECT_THAT(seen, ::testing::HasSubstr(fatalText("the very words")));
    EXPECT_THAT(seen, ::testing::Not(::testing::HasSubstr(fatalText("the very"))));
    EXPECT_THAT(seen, ::testing::Not(::testing::HasSubstr(fatalText("very words"))));
}

TEST(Fatal, OtherMessagesBeforeTheEndStayQuiet)
{
    EXPECT_DEATH(
        {
            const MessageCapture capture;
            say("only a debug line");
            QMessageLogger().fatal("%s", "the end");
        },
        ::testing::AllOf(::testing::HasSubstr(fatalText("the end")),
                         ::testing::Not(::testing::HasSubstr("only a debug line"))));
}
