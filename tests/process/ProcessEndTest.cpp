// How processes end that still hold parts of the store: no crash, no hang, no lost block.

#include <QDirIterator>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

constexpr int s_DeadlineMs = 30000;

class ProcessEnd : public testing::Test
{
protected:
    /// Runs a program, which must exit with 0 in time and print no error.
    void expectToEnd(const char* program, const QStringList& arguments)
    {
        QProcess process;
        process.setProcessEnvironment(m_Environment);
        process.setProcessChannelMode(QProcess::ForwardedOutputChannel);
        process.start(QString::fromLocal8Bit(program), arguments);
        const bool ended = process.waitForFinished(s_DeadlineMs);
        if (!ended) {
            process.kill();
            process.waitForFinished();
        }
        const std::string errors = process.readAllStandardError().toStdString();
        EXPECT_TRUE(ended) << "the process hangs";
        EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(process.exitCode(), 0) << errors;
        m_Errors = errors;
    }

    void expectHostToEnd(const std::string& mode)
    {
        expectToEnd(ENDING_HOST, {QString::fromStdString(mode), m_Root.path()});
        EXPECT_EQ(m_Errors, "");
    }

    /// How many block files the process has left.
    int fileCount() const
    {
        int count = 0;
        for (QDirIterator file(m_Root.path(), QDir::Files, QDirIterator::Subdirectories);
             file.hasNext(); ++count)
            file.next();
        return count;
    }

    /// A leak check in a forked child waits for the threads of the parent itself.
    void checkNoLeaks()
    {
        const QString name = QStringLiteral("ASAN_OPTIONS");
        m_Environment.insert(name, m_Environment.value(name) + QStringLiteral(":detect_leaks=0"));
    }

    QTemporaryDir m_Root;
    QProcessEnvironment m_Environment = QProcessEnvironment::systemEnvironment();
    std::string m_Errors;
};

struct Kind
{
    const char* m_Name;
    int m_FileCount;
};

class ProcessEndHolding : public ProcessEnd,
                          public testing::WithParamInterface<std::tuple<Kind, const char*>>
{};

std::string nameOf(const testing::TestParamInfo<std::tuple<Kind, const char*>>& info)
{
    return std::string(std::get<0>(info.param).m_Name) + "_" + std::get<1>(info.param);
}

} // namespace

TEST_P(ProcessEndHolding, EndsAndLosesNoBlock)
{
    const auto& [kind, place] = GetParam();
    expectHostToEnd(std::string(kind.m_Name) + "/" + place);
    EXPECT_EQ(fileCount(), kind.m_FileCount);
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessEndHolding,
    testing::Combine(testing::Values(Kind{"reference", 20}, Kind{"results", 20},
                                     Kind{"accessor", 1}, Kind{"pending", 21}, Kind{"job", 1},
                                     Kind{"hash", 0}),
                     testing::Values("before", "after", "singleton", "leaked")),
    &nameOf);

TEST_F(ProcessEnd, TasksThatAddBlocksAreWaitedFor)
{
    expectHostToEnd("addInTasks");
    EXPECT_EQ(fileCount(), 4);
}

TEST_F(ProcessEnd, ATaskOfTheHostsPoolMayExit)
{
    expectHostToEnd("exitInTask");
    EXPECT_EQ(fileCount(), 2);
}

TEST_F(ProcessEnd, ATaskOfQtsGlobalPoolMayExit)
{
    expectHostToEnd("exitInGlobalTask");
    EXPECT_EQ(fileCount(), 2);
}

TEST_F(ProcessEnd, ATaskOfTheHashingPoolMayExit)
{
    expectHostToEnd("exitInHashingTask");
    EXPECT_EQ(fileCount(), 2);
}

TEST_F(ProcessEnd, AnExitInATaskWaitsForTheJobsOfTheOnlyHashingThread)
{
    expectHostToEnd("exitWithPendingJobs");
    EXPECT_EQ(fileCount(), 20);
}

TEST_F(ProcessEnd, ThreadsMayDropReferencesToTheVeryEnd)
{
    expectHostToEnd("releaseInThreads");
    EXPECT_EQ(fileCount(), 1);
}

TEST_F(ProcessEnd, ThreadsMayCloseAccessorsToTheVeryEnd)
{
    expectHostToEnd("closeInThreads");
    EXPECT_EQ(fileCount(), 20);
}

TEST_F(ProcessEnd, ThreadLocalDestructorsMayCloseAccessors)
{
    expectHostToEnd("closeInLateDestructors");
}

TEST_F(ProcessEnd, ReferencesOutliveACleanUpByTheHost)
{
    expectHostToEnd("cleanUpFirst");
    EXPECT_EQ(fileCount(), 20);
}

// A child of a fork has none of the store's threads

TEST_F(ProcessEnd, AForkedChildMayCall_exit)
{
    checkNoLeaks();
    expectHostToEnd("forkAnd_exit");
    EXPECT_EQ(fileCount(), 2);
}

TEST_F(ProcessEnd, AForkedChildMayCleanUp)
{
    checkNoLeaks();
    expectHostToEnd("forkAndCleanUp");
    EXPECT_EQ(fileCount(), 2);
}

TEST_F(ProcessEnd, AChildForkedWithoutAStoreMayCallExit)
{
    checkNoLeaks();
    expectHostToEnd("forkAfterCleanUp");
    EXPECT_EQ(fileCount(), 1);
}

TEST_F(ProcessEnd, AForkedChildMayCallExit)
{
    checkNoLeaks();
    expectHostToEnd("forkAndExit");
    EXPECT_EQ(fileCount(), 2);
}

TEST_F(ProcessEnd, AChildForkedFromABusyStoreMayCall_exit)
{
    checkNoLeaks();
    expectHostToEnd("forkManyTimesAnd_exit");
}

TEST_F(ProcessEnd, AChildForkedFromABusyStoreMayCallExit)
{
    checkNoLeaks();
    expectHostToEnd("forkManyTimesAndExit");
}

TEST_F(ProcessEnd, AChildForkedWhileAThreadLocksMayCall_exit)
{
    checkNoLeaks();
    expectHostToEnd("forkWhileLockingAnd_exit");
}

TEST_F(ProcessEnd, AChildForkedWhileAThreadLocksMayCallExit)
{
    checkNoLeaks();
    expectHostToEnd("forkWhileLockingAndExit");
}

// Plug-ins

TEST_F(ProcessEnd, APluginMayBeClosedWhileItsStoreIsSetUp)
{
    expectToEnd(PLUGIN_HOST, {STORE_PLUGIN, m_Root.path(), "1"});
    EXPECT_EQ(fileCount(), 1);
}

TEST_F(ProcessEnd, APluginFindsItsStoreAgainAfterItWasClosed)
{
    expectToEnd(PLUGIN_HOST, {STORE_PLUGIN, m_Root.path(), "5"});
    EXPECT_EQ(fileCount(), 5);
}
