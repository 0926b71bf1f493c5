#include "support/ZebTdxLog.h"

#include "support/BlockedThread.h"
#include "support/Fatal.h"
#include "support/IsFree.h"
#include "support/LogInside.h"
#include "support/MessageCapture.h"
#include "support/ResourceLimit.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTime>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString cannotBeMadeLine()
{
    return QStringLiteral("[ !! ] Subcache Directory does not exist and cannot be created for "
                          "logging");
}

QString contentsOf(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromLocal8Bit(file.readAll());
}

// The lines of a file that ends with an end of line.
QStringList linesOf(const QString& path)
{
    QStringList lines = contentsOf(path).split(QLatin1Char('\n'));
    EXPECT_TRUE(lines.last().isEmpty());
    lines.removeLast();
    return lines;
}

// Whether `line` is the tag, a time of day and `rest`, with nothing else.
bool isLine(const QString& line, const QString& tag, const QString& rest)
{
    const QRegularExpression form(QLatin1Char('^') + QRegularExpression::escape(tag) +
                                  QStringLiteral("[0-2][0-9]:[0-5][0-9]:[0-5][0-9] ") +
                                  QRegularExpression::escape(rest) + QLatin1Char('$'));
    return form.match(line).hasMatch();
}

} // namespace

// The log of the process, closed and enabled before and after each test.
class ZebTdxLogTest : public ::testing::Test
{
protected:
    ZebTdxLogTest() { reset(); }
    ~ZebTdxLogTest() override { reset(); }

    static ZebTdxLog& log() { return ZebTdxLog::instance(); }
    static bool hasOpenFile() { return LogInside::file(log()).isOpen(); }

    QString directory() const { return m_Directory.path(); }
    QString logPath() const { return directory() + QStringLiteral("/TdxLog.txt"); }

    QTemporaryDir m_Directory;
    MessageCapture m_Messages;

private:
    static void reset()
    {
        log().setEnabled(true);
        log().setSubCache(QString());
    }
};

TEST_F(ZebTdxLogTest, LevelsHaveTheirNumbers)
{
    EXPECT_EQ(static_cast<int>(ZebTdxLog::Info), 0);
    EXPECT_EQ(static_cast<int>(ZebTdxLog::Warning), 1);
    EXPECT_EQ(static_cast<int>(ZebTdxLog::Fatal), 2);
}

TEST_F(ZebTdxLogTest, ThereIsOneLogForTheProcess)
{
    EXPECT_EQ(&ZebTdxLog::instance(), &log());
}

TEST_F(ZebTdxLogTest, StartsEnabledWithoutAFile)
{
    auto fresh = std::make_unique<ZebTdxLog>();
    EXPECT_TRUE(fresh->enabled());
    EXPECT_TRUE(LogInside::file(*fresh).fileName().isEmpty());
    EXPECT_FALSE(LogInside::file(*fresh).isOpen());
    fresh.reset();
    // The end of any log silences the process's log, which the other tests still need.
    LogInside::dead().store(false);
}

TEST_F(ZebTdxLogTest, LoggingBeforeThereIsAFileDoesNothingAtAnyLevel)
{
    EXPECT_TRUE(log().log(ZebTdxLog::Info, "a.cpp", 1, QStringLiteral("one")));
    EXPECT_TRUE(log().log(ZebTdxLog::Warning, "a.cpp", 2, QStringLiteral("two")));
    EXPECT_TRUE(log().log(ZebTdxLog::Fatal, "a.cpp", 3, QStringLiteral("three")));
    EXPECT_TRUE(m_Messages.messages().isEmpty());
    // Every call has released the lock.
    EXPECT_TRUE(isFree(LogInside::mutex(log())));
}

TEST_F(ZebTdxLogTest, SetSubCacheOpensTheFileInTheDirectory)
{
    EXPECT_TRUE(log().setSubCache(directory()));
    EXPECT_TRUE(hasOpenFile());
    EXPECT_TRUE(QFileInfo::exists(logPath()));
    EXPECT_EQ(contentsOf(logPath()), QString());
    EXPECT_TRUE(m_Messages.messages().isEmpty());
}

TEST_F(ZebTdxLogTest, SetSubCacheMakesTheDirectoryWithItsParents)
{
    const QString deep = directory() + QStringLiteral("/one/two/three");
    EXPECT_TRUE(log().setSubCache(deep));
    EXPECT_TRUE(QFileInfo::exists(deep + QStringLiteral("/TdxLog.txt")));
}

TEST_F(ZebTdxLogTest, ALineHasTagTimeMessageAndPosition)
{
    ASSERT_TRUE(log().setSubCache(directory()));
    EXPECT_TRUE(log().log(ZebTdxLog::Info, "dir/one.cpp", 12, QStringLiteral("said")));
    EXPECT_TRUE(log().log(ZebTdxLog::Warning, "two.cpp", -3, QString()));
    const QStringList lines = linesOf(logPath());
    ASSERT_EQ(lines.size(), 2);
    EXPECT_TRUE(
        isLine(lines.at(0), QStringLiteral("[ I ] "), QStringLiteral("said - dir/one.cpp:12")))
        << lines.at(0).toStdString();
    EXPECT_TRUE(isLine(lines.at(1), QStringLiteral("[ W ] "), QStringLiteral(" - two.cpp:-3")))
        << lines.at(1).toStdString();
}

TEST_F(ZebTdxLogTest, AnyOtherLevelHasAnEmptyTagAndDoesNotEndTheProcess)
{
    ASSERT_TRUE(log().setSubCache(directory()));
    EXPECT_TRUE(log().log(static_cast<ZebTdxLog::Level>(3), "a.cpp", 1, QStringLiteral("x")));
    const QStringList lines = linesOf(logPath());
    ASSERT_EQ(lines.size(), 1);
    EXPECT_TRUE(isLine(lines.at(0), QString(), QStringLiteral("x - a.cpp:1")))
        << lines.at(0).toStdString();
}

TEST_F(ZebTdxLogTest, TheTimeIsTheTimeOfDay)
{
    ASSERT_TRUE(log().setSubCache(directory()));
    const QString before = QTime::currentTime().toString(Qt::TextDate);
    log().log(ZebTdxLog::Info, "a.cpp", 1, QStringLiteral("x"));
    const QString after = QTime::currentTime().toString(Qt::TextDate);
    const QString time = linesOf(logPath()).at(0).mid(6, 8);
    // Around midnight the later time is the smaller value.
    EXPECT_TRUE(after < before || (before <= time && time <= after)) << time.toStdString();
}

TEST_F(ZebTdxLogTest, EachLineIsInTheFileWhenTheCallReturns)
{
    ASSERT_TRUE(log().setSubCache(directory()));
    for (int count = 1; count <= 3; ++count) {
        log().log(ZebTdxLog::Info, "a.cpp", count, QStringLiteral("x"));
        EXPECT_EQ(linesOf(logPath()).size(), count);
    }
}

TEST_F(ZebTdxLogTest, TheSamePartsAreLoggedAsADebugMessage)
{
    ASSERT_TRUE(log().setSubCache(directory()));
    log().log(ZebTdxLog::Warning, "a.cpp", 7, QStringLiteral("said \"so\""));
    const QString time = linesOf(logPath()).at(0).mid(6, 8);
    QString expected;
    QDebug(&expected) << QStringLiteral("[ W ] ") << time << ' ' << QStringLiteral("said \"so\"")
                      << " - "
                      << "a.cpp" << ':' << 7 << Qt::endl;
    const QList<MessageCapture::Message> messages = m_Messages.messages();
    ASSERT_EQ(messages.size(), 1);
    EXPECT_EQ(messages.at(0).m_Type, QtDebugMsg);
    EXPECT_EQ(messages.at(0).m_Text, expected) << "with the end of line";
    EXPECT_FALSE(messages.at(0).m_HasContext);
}

TEST_F(ZebTdxLogTest, LinesAreAppendedToAFileOfAnEarlierRun)
{
    {
        QFile earlier(logPath());
        ASSERT_TRUE(earlier.open(QIODevice::WriteOnly));
        earlier.write("an earlier line\n");
    }
    ASSERT_TRUE(log().setSubCache(directory()));
    log().log(ZebTdxLog::Info, "a.cpp", 1, QStringLiteral("a later one"));
    const QStringList lines = linesOf(logPath());
    ASSERT_EQ(lines.size(), 2);
    EXPECT_EQ(lines.at(0), QStringLiteral("an earlier line"));
    EXPECT_TRUE(
        isLine(lines.at(1), QStringLiteral("[ I ] "), QStringLiteral("a later one - a.cpp:1")));
}

TEST_F(ZebTdxLogTest, AnEmptyPathClosesTheFile)
{
    ASSERT_TRUE(log().setSubCache(directory()));
    EXPECT_TRUE(log().setSubCache(QString()));
    EXPECT_FALSE(hasOpenFile());
    EXPECT_TRUE(log().log(ZebTdxLog::Fatal, "a.cpp", 1, QStringLiteral("x")));
    EXPECT_EQ(contentsOf(logPath()), QString());

    ASSERT_TRUE(log().setSubCache(directory()));
    EXPECT_TRUE(log().setSubCache(QStringLiteral("")));
    EXPECT_FALSE(hasOpenFile());
}

TEST_F(ZebTdxLogTest, AnotherDirectoryReceivesTheLinesThatFollow)
{
    const QString other = directory() + QStringLiteral("/other");
    ASSERT_TRUE(log().setSubCache(directory()));
    log().log(ZebTdxLog::Info, "a.cpp", 1, QStringLiteral("first"));
    ASSERT_TRUE(log().setSubCache(other));
    log().log(ZebTdxLog::Info, "a.cpp", 2, QStringLiteral("second"));
    ASSERT_TRUE(log().setSubCache(directory()));
    log().log(ZebTdxLog::Info, "a.cpp", 3, QStringLiteral("third"));
    EXPECT_EQ(linesOf(logPath()).size(), 2);
    EXPECT_EQ(linesOf(other + QStringLiteral("/TdxLog.txt")).size(), 1);
}

TEST_F(ZebTdxLogTest, ADirectoryThatCannotBeCreatedIsReported)
{
    ASSERT_TRUE(log().setSubCache(directory()));
    EXPECT_FALSE(log().setSubCache(QStringLiteral("/dev/null/cache")));
    EXPECT_EQ(m_Messages.debugLines(), QStringList(cannotBeMadeLine()));
    EXPECT_FALSE(m_Messages.messages().at(0).m_HasContext);
    // The previous file is closed nevertheless.
    EXPECT_FALSE(hasOpenFile());
    EXPECT_TRUE(log().log(ZebTdxLog::Fatal, "a.cpp", 1, QStringLiteral("x")));
    EXPECT_EQ(contentsOf(logPath()), QString());
}

TEST_F(ZebTdxLogTest, AFileThatCannotBeOpenedIsReported)
{
    ASSERT_TRUE(QDir().mkpath(logPath()));
    EXPECT_FALSE(log().setSubCache(directory()));
    EXPECT_EQ(m_Messages.debugLines(),
              QStringList(QStringLiteral("[ !! ] Cannot Open TDx Log ") + logPath()));
    EXPECT_FALSE(m_Messages.messages().at(0).m_HasContext);
    EXPECT_FALSE(hasOpenFile());
    EXPECT_TRUE(log().log(ZebTdxLog::Fatal, "a.cpp", 1, QStringLiteral("x")));
}

TEST_F(ZebTdxLogTest, ADisabledLogDoesNothingAndReportsSuccess)
{
    log().setEnabled(false);
    EXPECT_FALSE(log().enabled());
    EXPECT_TRUE(log().setSubCache(directory()));
    EXPECT_FALSE(QFileInfo::exists(logPath()));
    EXPECT_TRUE(log().setSubCache(QStringLiteral("/dev/null/cache")));
    EXPECT_TRUE(log().log(ZebTdxLog::Fatal, "a.cpp", 1, QStringLiteral("x")));
    EXPECT_TRUE(m_Messages.messages().isEmpty());
}

TEST_F(ZebTdxLogTest, DisablingKeepsTheFileOpenForLater)
{
    ASSERT_TRUE(log().setSubCache(directory()));
    log().log(ZebTdxLog::Info, "a.cpp", 1, QStringLiteral("first"));
    log().setEnabled(false);
    EXPECT_TRUE(hasOpenFile());
    EXPECT_TRUE(log().log(ZebTdxLog::Fatal, "a.cpp", 2, QStringLiteral("dropped")));
    // An empty path closes the file of an enabled log only.
    EXPECT_TRUE(log().setSubCache(QString()));
    EXPECT_TRUE(hasOpenFile());
    log().setEnabled(true);
    log().log(ZebTdxLog::Info, "a.cpp", 3, QStringLiteral("second"));
    const QStringList lines = linesOf(logPath());
    ASSERT_EQ(lines.size(), 2);
    EXPECT_TRUE(lines.at(1).contains(QStringLiteral("second")));
}

TEST_F(ZebTdxLogTest, EnabledIsReadAndWrittenWithoutTheLock)
{
    EXPECT_FALSE(waitsForLock(LogInside::mutex(log()), [this] {
        log().setEnabled(false);
        EXPECT_FALSE(log().enabled());
        EXPECT_TRUE(log().log(ZebTdxLog::Info, "a.cpp", 1, QStringLiteral("x")));
        // A disabled log takes no lock here either.
        EXPECT_TRUE(log().setSubCache(directory()));
        log().setEnabled(true);
    }));
}

TEST_F(ZebTdxLogTest, AFatalLineIsInTheFileBeforeTheProcessEnds)
{
    // The process that ends is a new one with a directory of its own. The variable names the
    // directory in which this process looks.
    QTemporaryDir shared(QDir::tempPath() + QStringLiteral("/zebtdx-fatal"));
    shared.setAutoRemove(false);
    const char* const given = std::getenv("ZEBTDX_TEST_FATAL_DIRECTORY");
    const QString path = given != nullptr ? QString::fromLocal8Bit(given) : shared.path();
    if (given == nullptr)
        qputenv("ZEBTDX_TEST_FATAL_DIRECTORY", path.toLocal8Bit());

    EXPECT_FATAL(
        {
            shared.remove();
            log().setSubCache(path);
            log().log(ZebTdxLog::Fatal, "a.cpp", 9, QStringLiteral("the end"));
        },
        "TDX FATAL Error, aborting");

    qunsetenv("ZEBTDX_TEST_FATAL_DIRECTORY");
    const QStringList lines = linesOf(path + QStringLiteral("/TdxLog.txt"));
    ASSERT_EQ(lines.size(), 1);
    EXPECT_TRUE(isLine(lines.at(0), QStringLiteral("[ F ] "), QStringLiteral("the end - a.cpp:9")))
        << lines.at(0).toStdString();
    EXPECT_TRUE(QDir(path).removeRecursively());
}

TEST_F(ZebTdxLogTest, ALineOfOneThreadIsNeverInterleavedWithAnother)
{
    ASSERT_TRUE(log().setSubCache(directory()));
    constexpr int threadCount = 4;
    constexpr int lineCount = 100;
    const QString filler(300, QLatin1Char('.'));
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([thread, &filler] {
            for (int line = 0; line < lineCount; ++line) {
                log().log(ZebTdxLog::Info, "t.cpp", line, QString::number(thread) + filler);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    const QStringList lines = linesOf(logPath());
    ASSERT_EQ(lines.size(), threadCount * lineCount);
    std::vector<int> next(threadCount, 0);
    for (const QString& line : lines) {
        const int thread = line.mid(15, 1).toInt();
        ASSERT_LT(thread, threadCount);
        // The lines of one thread keep their order.
        const QString rest =
            QStringLiteral("%1%2 - t.cpp:%3").arg(thread).arg(filler).arg(next.at(thread)++);
        ASSERT_TRUE(isLine(line, QStringLiteral("[ I ] "), rest)) << line.toStdString();
    }
}

TEST_F(ZebTdxLogTest, ALineWaitsForTheLineInProgress)
{
    ASSERT_TRUE(log().setSubCache(directory()));
    QMutex& mutex = LogInside::mutex(log());
    mutex.lock();
    BlockedThread thread([] { log().log(ZebTdxLog::Info, "a.cpp", 1, QStringLiteral("x")); });
    EXPECT_TRUE(thread.waitsFor(mutex));
    EXPECT_EQ(contentsOf(logPath()), QString());
    mutex.unlock();
    EXPECT_TRUE(thread.ends());
    EXPECT_EQ(linesOf(logPath()).size(), 1);
}

TEST_F(ZebTdxLogTest, TheMessageHandlerRunsWithoutTheLock)
{
    static bool s_WasFree = false;
    ASSERT_TRUE(log().setSubCache(directory()));
    const QtMessageHandler previous =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {
            s_WasFree = isFree(LogInside::mutex(log()));
        });
    log().log(ZebTdxLog::Info, "a.cpp", 1, QStringLiteral("x"));
    qInstallMessageHandler(previous);
    EXPECT_TRUE(s_WasFree);
    EXPECT_EQ(linesOf(logPath()).size(), 1);
}

TEST_F(ZebTdxLogTest, ALinkInThePlaceOfTheFileIsNotFollowed)
{
    const QTemporaryDir outside;
    const QString target = outside.path() + QStringLiteral("/target");
    ASSERT_TRUE(QFile::link(target, logPath()));
    EXPECT_FALSE(log().setSubCache(directory()));
    EXPECT_FALSE(hasOpenFile());
    log().log(ZebTdxLog::Info, "a.cpp", 1, QStringLiteral("x"));
    EXPECT_FALSE(QFile::exists(target));
    EXPECT_EQ(m_Messages.debugLines(),
              QStringList(QStringLiteral("[ !! ] Cannot Open TDx Log ") + logPath()));
}

TEST_F(ZebTdxLogTest, APipeInThePlaceOfTheFileDoesNotBlock)
{
    // Read and write, so that opening the pipe for writing could succeed.
    ASSERT_EQ(::mkfifo(QFile::encodeName(logPath()).constData(), S_IRUSR | S_IWUSR), 0);
    const int reader = ::open(QFile::encodeName(logPath()).constData(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    EXPECT_FALSE(log().setSubCache(directory()));
    EXPECT_FALSE(hasOpenFile());
    ::close(reader);
    EXPECT_FALSE(log().setSubCache(directory()));
}

TEST_F(ZebTdxLogTest, ALogThatHasEndedIsSilentForTheRestOfTheProcess)
{
    auto ended = std::make_unique<ZebTdxLog>();
    ASSERT_TRUE(ended->setSubCache(directory()));
    ended->log(ZebTdxLog::Info, "a.cpp", 1, QStringLiteral("x"));
    m_Messages.clear();
    EXPECT_FALSE(LogInside::dead().load());
    ended.reset();
    EXPECT_TRUE(LogInside::dead().load());

    const QString other = directory() + QStringLiteral("/other");
    EXPECT_TRUE(log().enabled());
    EXPECT_TRUE(log().setSubCache(other));
    EXPECT_FALSE(QFileInfo::exists(other));
    EXPECT_TRUE(log().log(ZebTdxLog::Fatal, "a.cpp", 2, QStringLiteral("y")));
    log().setEnabled(false);
    log().setEnabled(true);
    EXPECT_TRUE(LogInside::dead().load());
    EXPECT_TRUE(m_Messages.messages().isEmpty());
    EXPECT_EQ(linesOf(logPath()).size(), 1);
    LogInside::dead().store(false);
}

TEST_F(ZebTdxLogTest, TheEndOfALogClosesItsFile)
{
    const auto openFiles = [] {
        return QDir(QStringLiteral("/proc/self/fd")).entryList().size();
    };
    const int before = openFiles();
    auto ended = std::make_unique<ZebTdxLog>();
    ASSERT_TRUE(ended->setSubCache(directory()));
    EXPECT_EQ(openFiles(), before + 1);
    ended.reset();
    EXPECT_EQ(openFiles(), before);
    LogInside::dead().store(false);
}

TEST_F(ZebTdxLogTest, AFailedWriteIsNotReported)
{
    ASSERT_TRUE(log().setSubCache(directory()));
    {
        const ResourceLimit limit(RLIMIT_FSIZE, 0);
        EXPECT_TRUE(log().log(ZebTdxLog::Info, "a.cpp", 1, QStringLiteral("lost")));
    }
    EXPECT_TRUE(hasOpenFile());
    EXPECT_EQ(contentsOf(logPath()), QString());
    // The copy of the line, and no message about the failure.
    EXPECT_EQ(m_Messages.debugLines().size(), 1);
}
