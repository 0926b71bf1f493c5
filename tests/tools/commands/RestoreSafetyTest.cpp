// What restore, and the other commands that only read a cache, must survive: interruptions, links,
// read-only caches and damaged or crafted blocks.

#include "support/BlockBytes.h"
#include "support/TemporaryTree.h"
#include "support/WaitUntil.h"
#include "tools/support/ProgramRunner.h"

#include <QProcess>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <sys/ioctl.h>

using ::testing::HasSubstr;

namespace {

namespace fs = std::filesystem;

// A terminal for the program to write to.
class Terminal
{
public:
    Terminal() : m_Master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK))
    {
        EXPECT_EQ(::grantpt(m_Master), 0);
        EXPECT_EQ(::unlockpt(m_Master), 0);
    }
    ~Terminal() { ::close(m_Master); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    QString path() const { return QString::fromLocal8Bit(::ptsname(m_Master)); }

    // What has been written since the last call.
    std::string output() const
    {
        std::string text;
        char bytes[4096];
        for (ssize_t count = 0; (count = ::read(m_Master, bytes, sizeof bytes)) > 0;)
            text.append(bytes, static_cast<std::size_t>(count));
        return text;
    }

private:
    const int m_Master;
};

class RestoreSafety : public ::testing::Test
{
protected:
    // Programs inherit an ignored signal, and a shell starts background jobs with SIGINT ignored.
    static void SetUpTestSuite()
    {
        for (const int signal : {SIGINT, SIGTERM})
            std::signal(signal, SIG_DFL);
    }

    Outcome run(const std::vector<std::string>& line) const { return runTool(line, m_Tree.top()); }

    // A file of many blocks, in a directory, and its manifest "m".
    void ingest(std::size_t bytes)
    {
        m_Tree.directory("in");
        m_Tree.directory("in/sub");
        m_Tree.file("in/sub/file", mixedBytes(bytes, 1));
        m_Tree.file("in/small", "abc");
        ASSERT_EQ(run({"ingest", "in", "--block", "1K", "--manifest", "m"}).m_Status, 0);
    }

    Outcome restore(std::vector<std::string> options = {}) const
    {
        options.insert(options.begin(), {"restore", "m", "--out", "out"});
        return run(options);
    }

    bool isRestored() const { return runShell("diff -r out/in in", m_Tree.top()).m_Status == 0; }

    // A restore that the system kills while it writes a file of more than 32 KiB.
    void restoreAndDie() const
    {
        const Outcome outcome =
            runShell(R"(ulimit -c 0; ulimit -f 64; "$0" restore m --out out --threads 1; echo $?)",
                     m_Tree.top());
        ASSERT_EQ(outcome.m_Output, std::to_string(128 + SIGXFSZ) + "\n");
    }

    // Starts a restore and returns once it writes the large file.
    std::unique_ptr<QProcess> startRestore() const
    {
        auto process = std::make_unique<QProcess>();
        setLanguage(*process);
        process->setWorkingDirectory(QString::fromStdString(m_Tree.top()));
        process->start(QStringLiteral(ZEBTDX_PROGRAM),
                       asArguments({"restore", "m", "--out", "out", "--threads", "1"}));
        EXPECT_TRUE(process->waitForStarted());
        EXPECT_TRUE(waitUntil([this] { return hasBytes("out/in/sub"); }));
        return process;
    }

    bool hasBytes(const std::string& directory) const
    {
        std::error_code error;
        for (const auto& entry : fs::directory_iterator(m_Tree.path(directory), error)) {
            if (fs::file_size(entry.path(), error) > 0 && !error)
                return true;
        }
        return false;
    }

    // A block file in the first bucket of a new cache.
    void putBlock(const std::string& name, const std::string& bytes) const
    {
        fs::create_directories(m_Tree.path("c/main/0"));
        m_Tree.file("c/main/0/" + name, bytes);
    }

    Outcome cat(const std::string& name, std::vector<std::string> options = {}) const
    {
        options.insert(options.begin(), {"cat", name, "--root", "c", "--buckets", "1"});
        return run(options);
    }

    TemporaryTree m_Tree;
};

// The name of a block whose first characters lead to no root of two.
const char* const s_NoRootName = "1-0-3-4-5-6-7-8-9-10-11-12-13-14-15-16";

} // namespace

TEST_F(RestoreSafety, AKilledRestoreLeavesNoTornFileAndASecondRunFinishes)
{
    ingest(100 * 1024);
    restoreAndDie();
    EXPECT_FALSE(fs::exists(m_Tree.path("out/in/sub/file")));
    const Outcome second = restore({"--json"});
    EXPECT_EQ(second.m_Status, 0) << second.m_Errors;
    EXPECT_EQ(second.number("files") + second.number("present"), 2);
    EXPECT_TRUE(isRestored()) << "no part is left either";
}

TEST_F(RestoreSafety, ASecondRunNamesTheFilesThatWereThere)
{
    ingest(5000);
    ASSERT_EQ(restore().m_Status, 0);
    m_Tree.remove("out/in/small");
    const Outcome second = restore({"--json"});
    EXPECT_EQ(second.m_Status, 0);
    EXPECT_EQ(second.m_Errors, "zebtdx: out/in/sub/file: is there already, with the same bytes\n");
    EXPECT_EQ(second.number("files"), 1);
    EXPECT_EQ(second.number("present"), 1);
    EXPECT_TRUE(isRestored());
}

TEST_F(RestoreSafety, LinksBelowTheDirectoryAreNotFollowed)
{
    ingest(5000);
    m_Tree.directory("out");
    m_Tree.directory("out/in");
    m_Tree.directory("elsewhere");
    m_Tree.link("out/in/sub", "../../elsewhere");
    const Outcome outcome = restore();
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(outcome.m_Errors,
              "zebtdx: out/in/sub/file: its directory sub is a symbolic link, which "
              "is not followed; remove the link\n");
    EXPECT_TRUE(fs::is_empty(m_Tree.path("elsewhere")));
    EXPECT_TRUE(fs::exists(m_Tree.path("out/in/small")));
}

TEST_F(RestoreSafety, TheDirectoryItselfMayBeALink)
{
    ingest(5000);
    m_Tree.directory("elsewhere");
    m_Tree.link("out", "elsewhere");
    EXPECT_EQ(restore().m_Status, 0);
    EXPECT_TRUE(isRestored());
}

TEST_F(RestoreSafety, ALeftPartThatWasIngestedIsRestored)
{
    ingest(100 * 1024);
    restoreAndDie();
    // Now a manifest has a file and its part.
    m_Tree.file("out/in/sub/file", "the file");
    ASSERT_EQ(run({"ingest", "out", "--block", "1K", "--manifest", "m", "--replace"}).m_Status, 0);
    const Outcome outcome = run({"restore", "m", "--out", "again", "--threads", "1"});
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
    EXPECT_EQ(runShell("diff -r again/out out", m_Tree.top()).m_Status, 0);
}

TEST_F(RestoreSafety, ReadingCommandsWorkOnAReadOnlyCacheAndChangeNothing)
{
    ingest(5000);
    std::string name;
    for (const auto& entry : fs::recursive_directory_iterator(m_Tree.path("zebtdx-cache"))) {
        if (entry.is_regular_file() && entry.path().filename() != "TdxLog.txt")
            name = entry.path().filename().string();
    }
    m_Tree.directory("writable");
    ASSERT_EQ(
        runShell("chmod -R a+rX . && chmod 777 writable && chmod -R a-w zebtdx-cache", m_Tree.top())
            .m_Status,
        0);
    const std::string list = "find zebtdx-cache -printf '%p %s %T@ %C@ %m\\n' | sort";
    const std::string before = runShell(list, m_Tree.top()).m_Output;
    for (const std::vector<std::string>& line :
         {std::vector<std::string>{"restore", "m", "--out", "writable/out"},
          {"cat", name},
          {"ls"},
          {"ls", "m"},
          {"stat"},
          {"verify"}}) {
        const Outcome outcome = runUnprivileged(line, m_Tree.top());
        EXPECT_EQ(outcome.m_Status, 0) << line[0];
        EXPECT_EQ(outcome.m_Errors, "") << line[0];
    }
    EXPECT_EQ(runShell("diff -r writable/out/in in", m_Tree.top()).m_Status, 0);
    EXPECT_EQ(runShell(list, m_Tree.top()).m_Output, before);
    EXPECT_EQ(runUnprivileged({"ingest", "in", "--manifest", "writable/m"}, m_Tree.top()).m_Status,
              1);
    EXPECT_EQ(runShell("chmod -R u+w zebtdx-cache", m_Tree.top()).m_Status, 0);
}

TEST_F(RestoreSafety, ASubCacheThatIsMissingIsNotCreated)
{
    ingest(5000);
    const Outcome outcome = run({"cat", blockNameOf("abc"), "--sub-cache", "other"});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(outcome.m_Errors,
              "zebtdx: the cache has no sub-cache other; check --root and --sub-cache\n");
    EXPECT_FALSE(fs::exists(m_Tree.path("zebtdx-cache/other")));
}

TEST_F(RestoreSafety, ABlockAboveTheMemoryLimitIsAnError)
{
    const QByteArray bytes(5000, 'x');
    putBlock(blockNameOf(bytes), blockFileOf(bytes));
    const Outcome outcome = cat(blockNameOf(bytes), {"--memory", "4K"});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_THAT(outcome.m_Errors,
                HasSubstr(": has 4.9 KiB, more than --memory (4 KiB); raise --memory\n"));
    EXPECT_EQ(cat(blockNameOf(bytes), {"--memory", "5000"}).m_Output, bytes.toStdString());
}

TEST_F(RestoreSafety, AHeaderThatNamesAnotherSizeIsAnError)
{
    const QByteArray bytes(5000, 'x');
    const QByteArray payload = qCompress(bytes);
    // As much as the memory limit allows, and less than the payload decompresses to.
    for (const qint64 size : {qint64(100), qint64(6000), qint64(-1), qint64(1) << 40}) {
        putBlock(blockNameOf(bytes), blockFile(size, payload.size(), payload));
        const Outcome outcome = cat(blockNameOf(bytes), {"--memory", "6000"});
        EXPECT_EQ(outcome.m_Status, 1) << size;
        EXPECT_EQ(outcome.errorLines(), 1) << outcome.m_Errors;
        EXPECT_THAT(outcome.m_Errors, HasSubstr(": is damaged in the cache; run zebtdx verify\n"));
    }
}

TEST_F(RestoreSafety, ANameThatLeadsToNoRootIsAnError)
{
    fs::create_directories(m_Tree.path("c/main"));
    m_Tree.directory("d");
    const Outcome outcome =
        run({"cat", s_NoRootName, "--root", "c", "--root", "d", "--buckets", "1"});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(outcome.errorLines(), 1) << outcome.m_Errors;
    EXPECT_THAT(outcome.m_Errors,
                HasSubstr("no store with this many roots can have a block with this name\n"));
}

TEST_F(RestoreSafety, ACraftedListOfBlocksIsAnError)
{
    // Digests of 1 byte.
    QByteArray list("\x39\x05\0\0\0\0\0\0\x01\0\0\0\x03\0\0\0abc", 19);
    putBlock(blockNameOf(list), blockFileOf(list));
    const Outcome outcome = cat(blockNameOf(list), {"--file"});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_THAT(outcome.m_Errors, HasSubstr(": is not a list of blocks\n"));
    // A digest of zeros, whose name leads to a place without a file.
    list = QByteArray("\x39\x05\0\0\0\0\0\0\x40\0\0\0\x01\0\0\0", 16) + QByteArray(64, '\0');
    putBlock(blockNameOf(list), blockFileOf(list));
    const Outcome zeros = cat(blockNameOf(list), {"--file"});
    EXPECT_EQ(zeros.m_Status, 1);
    EXPECT_EQ(zeros.errorLines(), 1) << zeros.m_Errors;
}

TEST_F(RestoreSafety, AStoppedRestoreLeavesWholeFiles)
{
    ingest(400 * 1024);
    std::unique_ptr<QProcess> process;
    // It may end before the signal reaches it.
    for (int i = 0; i < 50 && (process == nullptr || process->exitCode() == 0); ++i) {
        fs::remove_all(m_Tree.path("out"));
        process = startRestore();
        ::kill(static_cast<pid_t>(process->processId()), SIGTERM);
        ASSERT_TRUE(process->waitForFinished());
    }
    EXPECT_EQ(process->exitStatus(), QProcess::CrashExit);
    EXPECT_EQ(process->exitCode(), SIGTERM);
    EXPECT_EQ(process->readAllStandardError().toStdString(),
              "zebtdx: stopped by signal 15; run the command again to finish\n");
    // The signal may come after the last block, when the file gets its name.
    if (!fs::is_empty(m_Tree.path("out/in/sub"))) {
        EXPECT_EQ(runShell("diff -r out/in/sub in/sub", m_Tree.top()).m_Status, 0)
            << "neither a torn file nor a part";
    }
    EXPECT_EQ(restore().m_Status, 0);
    EXPECT_TRUE(isRestored());
}

TEST_F(RestoreSafety, AStoppedIngestClearsTheBarAndIsFinishedByTheSameCommand)
{
    m_Tree.file("source", mixedBytes(400 * 1024, 1));
    const std::vector<std::string> line = {"ingest", "source", "--block", "1K", "--manifest", "m"};
    const Terminal terminal;
    QProcess process;
    // It may end before the signal reaches it.
    for (int i = 0; i < 50 && (i == 0 || process.exitCode() == 0); ++i) {
        fs::remove_all(m_Tree.path("zebtdx-cache"));
        fs::remove(m_Tree.path("m"));
        process.setWorkingDirectory(QString::fromStdString(m_Tree.top()));
        process.setStandardErrorFile(terminal.path());
        process.start(QStringLiteral(ZEBTDX_PROGRAM), asArguments(line));
        ASSERT_TRUE(process.waitForStarted());
        EXPECT_TRUE(waitUntil([this] { return fs::exists(m_Tree.path("zebtdx-cache/main/0")); }));
        ::kill(static_cast<pid_t>(process.processId()), SIGINT);
        ASSERT_TRUE(process.waitForFinished());
    }
    EXPECT_EQ(process.exitStatus(), QProcess::CrashExit);
    EXPECT_EQ(process.exitCode(), SIGINT);
    EXPECT_FALSE(fs::exists(m_Tree.path("m")));
    const std::string shown = terminal.output();
    const std::size_t message = shown.rfind("zebtdx: stopped by signal 2");
    ASSERT_NE(message, std::string::npos) << shown;
    EXPECT_NE(shown.find(" %"), std::string::npos) << "there was a bar";
    EXPECT_EQ(shown.substr(message - 2, 2), " \r") << "blanks, and back to the first column";
    EXPECT_EQ(run(line).m_Status, 0);
    EXPECT_EQ(restore().m_Status, 0);
    EXPECT_EQ(runShell("cmp out/source source", m_Tree.top()).m_Status, 0);
}

TEST_F(RestoreSafety, ACatWithoutReaderCanBeStopped)
{
    const QByteArray bytes(1 << 20, 'x');
    putBlock(blockNameOf(bytes), blockFileOf(bytes));
    m_Tree.pipe("pipe");
    QProcess process;
    process.setWorkingDirectory(QString::fromStdString(m_Tree.top()));
    process.setStandardOutputFile(QString::fromStdString(m_Tree.path("pipe")));
    // Keeps the pipe open, and reads nothing.
    const int reader = ::open(m_Tree.path("pipe").c_str(), O_RDONLY | O_NONBLOCK);
    process.start(QStringLiteral(ZEBTDX_PROGRAM),
                  asArguments({"cat", blockNameOf(bytes), "--root", "c", "--buckets", "1"}));
    ASSERT_TRUE(process.waitForStarted());
    EXPECT_TRUE(waitUntil([reader] {
        int waiting = 0;
        return ::ioctl(reader, FIONREAD, &waiting) == 0 && waiting > 0;
    }));
    ::kill(static_cast<pid_t>(process.processId()), SIGINT);
    EXPECT_TRUE(process.waitForFinished());
    EXPECT_EQ(process.exitCode(), SIGINT);
    EXPECT_EQ(process.readAllStandardError().toStdString(), "zebtdx: stopped by signal 2\n");
    ::close(reader);
}

TEST_F(RestoreSafety, TheHelpOfACommandSaysHowSignalsEndIt)
{
    for (const char* const command :
         {"ingest", "restore", "stat", "ls", "cat", "gc", "selfcheck", "verify", "repair"}) {
        EXPECT_THAT(run({command, "--help"}).m_Output,
                    HasSubstr("end this command after the work in hand"))
            << command;
    }
    for (const char* const command : {"sampledata", "probe"}) {
        EXPECT_THAT(run({command, "--help"}).m_Output, HasSubstr("end this command at once"))
            << command;
    }
}
