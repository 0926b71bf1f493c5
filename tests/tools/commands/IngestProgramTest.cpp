// The program as a user meets it.

#include "support/TemporaryTree.h"
#include "support/WaitUntil.h"
#include "tools/support/ProgramRunner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

// 5 files, 7 blocks of 1 KiB at most, 3 of them distinct, and a link.
void makeTreeWithDuplicates(const TemporaryTree& tree)
{
    tree.directory("a");
    tree.directory("b");
    tree.file("a/one", std::string(2048, 'x'));
    tree.file("a/two", std::string(2048, 'x'));
    tree.file("b/three", std::string(1024, 'x') + "0123456789");
    tree.file("b/empty", "");
    tree.file("b/exact", std::string(1024, 'z'));
    tree.link("link", "a/one");
}

void expectNoStoreMessages(const Outcome& outcome)
{
    EXPECT_THAT(outcome.m_Errors, Not(HasSubstr("TDX")));
    EXPECT_THAT(outcome.m_Errors, Not(HasSubstr("Warning")));
}

} // namespace

TEST(IngestProgram, CountsATreeWithDuplicatesExactly)
{
    const TemporaryTree tree;
    makeTreeWithDuplicates(tree);
    const Outcome outcome = runIngest({tree.top(), "--block", "1K", "--json"});
    EXPECT_EQ(outcome.m_Status, 0);
    EXPECT_EQ(outcome.m_Errors, "");
    EXPECT_EQ(outcome.number("files"), 5);
    EXPECT_EQ(outcome.number("links_skipped"), 1);
    EXPECT_EQ(outcome.number("bytes"), 2048 + 2048 + 1034 + 0 + 1024);
    EXPECT_EQ(outcome.number("read_back_bytes"), outcome.number("bytes"));
    EXPECT_EQ(outcome.number("blocks"), 7);
    EXPECT_EQ(outcome.number("distinct_blocks"), 3);
    EXPECT_EQ(outcome.number("distinct_bytes"), 1024 + 10 + 1024);
    EXPECT_EQ(outcome.number("saved_bytes"), 4 * 1024);
    EXPECT_EQ(outcome.number("errors"), 0);
    EXPECT_EQ(outcome.number("differences"), 0);
    EXPECT_EQ(outcome.number("block_size"), 1024);
}

TEST(IngestProgram, PrintsASummaryForPeople)
{
    const TemporaryTree tree;
    makeTreeWithDuplicates(tree);
    const Outcome outcome = runIngest({tree.top(), "--block", "1K"});
    EXPECT_EQ(outcome.m_Status, 0);
    EXPECT_EQ(outcome.m_Errors, "") << "neither a bar nor the store's messages off a terminal";
    EXPECT_THAT(outcome.m_Output, AllOf(HasSubstr("Files                5\n"),
                                        HasSubstr("Bytes            6,154  (6.0 KiB)\n"),
                                        HasSubstr("Distinct blocks      3\n"),
                                        HasSubstr("Bytes saved      4,096  (4 KiB), 66.6 %\n"),
                                        HasSubstr("(1 MB = 1,000,000 bytes; ")));
}

TEST(IngestProgram, OneThreadAndEightCountTheSame)
{
    const TemporaryTree tree;
    for (unsigned int i = 0; i < 200; ++i)
        tree.file("f" + std::to_string(i), mixedBytes(100 * i, i % 60));
    // More than one piece of work for the threads.
    tree.file("large", mixedBytes(9000000, 1) + mixedBytes(4000, 59));
    const auto run = [&tree](const char* threads) {
        const Outcome outcome =
            runIngest({"--json", "--block", "4000", "--threads", threads, tree.top()});
        EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
        QJsonObject object = outcome.json();
        for (const char* const key :
             {"threads", "seconds_in", "seconds_out", "mb_per_s_in", "mb_per_s_out", "manifest"})
            object.remove(QLatin1String(key));
        EXPECT_EQ(object[QStringLiteral("files")].toInt(), 201);
        EXPECT_EQ(object[QStringLiteral("bytes")].toDouble(), 100 * 199 * 100 + 9004000);
        EXPECT_GT(object[QStringLiteral("saved_bytes")].toDouble(), 0);
        return object;
    };
    EXPECT_EQ(run("1"), run("8"));
}

TEST(IngestProgram, AnEmptyTreeIsFine)
{
    const TemporaryTree tree;
    tree.directory("a");
    const Outcome outcome = runIngest({"--json", tree.top()});
    EXPECT_EQ(outcome.m_Status, 0);
    EXPECT_EQ(outcome.m_Errors, "");
    for (const char* const key : {"files", "bytes", "blocks", "distinct_blocks", "saved_bytes",
                                  "errors", "mb_per_s_in", "mb_per_s_out"})
        EXPECT_EQ(outcome.number(key), 0) << key;
}

TEST(IngestProgram, AFileOfExactlyOneBlockIsOneBlock)
{
    const TemporaryTree tree;
    tree.file("f", mixedBytes(256 * 1024, 1));
    const Outcome outcome = runIngest({"--json", tree.path("f")});
    EXPECT_EQ(outcome.m_Status, 0);
    EXPECT_EQ(outcome.number("block_size"), 256 * 1024);
    EXPECT_EQ(outcome.number("blocks"), 1);
    EXPECT_EQ(outcome.number("bytes"), 256 * 1024);
}

TEST(IngestProgram, BlocksOfOneByteWork)
{
    const TemporaryTree tree;
    tree.file("f", "mississippi");
    const Outcome outcome = runIngest({"--json", "--block", "1", tree.path("f")});
    EXPECT_EQ(outcome.m_Status, 0);
    EXPECT_EQ(outcome.number("blocks"), 11);
    EXPECT_EQ(outcome.number("distinct_blocks"), 4);
    EXPECT_EQ(outcome.number("saved_bytes"), 7);
}

TEST(IngestProgram, TheLargestBlockTakesNoMoreMemoryThanTheFileNeeds)
{
    const TemporaryTree tree;
    tree.file("f", "abc");
    const Outcome outcome = runIngest(
        {"--json", "--block", "2147483647", "--memory", "2G", "--threads", "8", tree.path("f")});
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
    EXPECT_EQ(outcome.number("bytes"), 3);
}

TEST(IngestProgram, BadUsageExitsWith2AndDoesNothing)
{
    const TemporaryTree tree;
    tree.file("f", "abc");
    const std::string file = tree.path("f");
    const std::vector<std::vector<std::string>> lines = {
        {},
        {"nonsense"},
        {"ingest"},
        {"ingest", "--json"},
        {"ingest", file, "--nonsense"},
        {"ingest", file, "--block", "0"},
        {"ingest", file, "--block", "-1"},
        {"ingest", file, "--block", "12x"},
        {"ingest", file, "--block", "1.5K"},
        {"ingest", file, "--block", ""},
        {"ingest", file, "--block", "8388608T"},
        {"ingest", file, "--block", "99999999999999999999"},
        {"ingest", file, "--block", "2G", "--memory", "4G"},
        {"ingest", file, "--block", "1K", "--block", "1K"},
        {"ingest", file, "--block"},
        {"ingest", file, "--memory", "0"},
        {"ingest", file, "--memory", "much"},
        {"ingest", file, "--memory", "1K"},
        {"ingest", file, "--memory", "1K", "--block", "1025"},
        {"ingest", file, "--threads", "0"},
        {"ingest", file, "--threads", "-1"},
        {"ingest", file, "--threads", "two"},
        {"ingest", file, "--threads", "1025"},
        {"ingest", file, "--json=perhaps"},
        {"ingest", file, "--buckets", "0"},
        {"ingest", file, "--buckets", "many"},
        {"ingest", file, "--root", ""},
        {"ingest", file, "--root", "a", "--root", "./a/"},
        {"ingest", file, "--sub-cache", ""},
        {"ingest", file, "--sub-cache", "."},
        {"ingest", file, "--sub-cache", ".."},
        {"ingest", file, "--sub-cache", "a/b"},
        {"ingest", file, "--sub-cache", "12"},
        {"restore"},
        {"restore", file},
        {"restore", "--out", "somewhere"},
        {"restore", file, "--out", "somewhere", "--threads", "0"},
        {"stat", file},
        {"stat", "--root", "a", "--root", "a"},
    };
    for (const std::vector<std::string>& line : lines) {
        const Outcome outcome = runTool(line);
        const std::string shown = ::testing::PrintToString(line);
        EXPECT_EQ(outcome.m_Status, 2) << shown;
        EXPECT_EQ(outcome.m_Output, "") << shown;
        EXPECT_EQ(outcome.errorLines(), 1) << shown << outcome.m_Errors;
        EXPECT_THAT(outcome.m_Errors, StartsWith("zebtdx: ")) << shown;
        expectNoStoreMessages(outcome);
    }
}

TEST(IngestProgram, BadUsageIsNamed)
{
    EXPECT_THAT(runIngest({"f", "--block", "12x"}).m_Errors,
                StartsWith("zebtdx: --block: '12x' is not a size"));
    EXPECT_THAT(runIngest({"f", "--memory", "1K"}).m_Errors,
                StartsWith("zebtdx: --memory (1 KiB) is smaller than one block (256 KiB); raise "
                           "--memory or lower --block"));
    EXPECT_THAT(runIngest({"f", "--block", "2G", "--memory", "4G"}).m_Errors,
                HasSubstr("--block (2 GiB) is larger than the largest block of the store"));
    EXPECT_THAT(runIngest({"f", "--threads", "0"}).m_Errors,
                StartsWith("zebtdx: --threads: '0' is not a number from 1 to 1024"));
}

TEST(IngestProgram, SizesAtTheEdgesAreTaken)
{
    const TemporaryTree tree;
    tree.file("f", "abc");
    for (const std::vector<std::string>& options :
         {std::vector<std::string>{"--memory", "1k", "--block", "1KiB"},
          {"--memory", "80", "--block", "3"},
          {"--memory", "8388607T"},
          {"--threads", "1024"}}) {
        std::vector<std::string> line = {tree.path("f")};
        line.insert(line.end(), options.begin(), options.end());
        EXPECT_EQ(runIngest(line).m_Status, 0) << ::testing::PrintToString(options);
    }
}

TEST(IngestProgram, FailedPathsAreNamedAndTheRestGoesOn)
{
    const TemporaryTree tree;
    tree.file("good", "abc");
    tree.pipe("pipe");
    tree.socket("socket");
    tree.link("dangling", "nothing");
    const Outcome outcome = runIngest({"--json", "missing", "dangling", "pipe", "socket",
                                       "good/below", "/dev/null", "/proc/self/mem", "", "good"},
                                      tree.top());
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(outcome.m_Errors, "zebtdx: missing: No such file or directory\n"
                                "zebtdx: dangling: No such file or directory\n"
                                "zebtdx: pipe: is a named pipe\n"
                                "zebtdx: socket: is a socket\n"
                                "zebtdx: good/below: Not a directory\n"
                                "zebtdx: /dev/null: is a character device\n"
                                "zebtdx: '': No such file or directory\n"
                                "zebtdx: /proc/self/mem: Input/output error\n");
    EXPECT_EQ(outcome.number("errors"), 8);
    EXPECT_EQ(outcome.number("differences"), 0);
    EXPECT_EQ(outcome.number("files"), 1);
    EXPECT_EQ(outcome.number("read_back_bytes"), 3);
}

TEST(IngestProgram, SpecialFilesThatAreMetFailAndLinksDoNot)
{
    const TemporaryTree tree;
    tree.file("good", "abc");
    tree.link("dangling", "nothing");
    EXPECT_EQ(runIngest({tree.top()}).m_Status, 0);
    tree.pipe("pipe");
    const Outcome outcome = runIngest({"--json", tree.top()});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(outcome.m_Errors, "zebtdx: " + tree.path("pipe") + ": is a named pipe\n");
    EXPECT_EQ(outcome.number("files"), 1);
    EXPECT_EQ(outcome.number("links_skipped"), 1);
}

TEST(IngestProgram, AGivenLinkIsFollowed)
{
    const TemporaryTree tree;
    tree.directory("d");
    tree.file("d/f", "abc");
    tree.link("link", "d");
    const Outcome outcome = runIngest({"--json", tree.path("link")});
    EXPECT_EQ(outcome.m_Status, 0);
    EXPECT_EQ(outcome.number("files"), 1);
    EXPECT_EQ(outcome.number("links_skipped"), 0);
}

TEST(IngestProgram, AFileGivenTwiceIsIngestedTwice)
{
    const TemporaryTree tree;
    tree.directory("d");
    tree.file("d/f", "abc");
    EXPECT_EQ(runIngest({"--json", "d", "d/f"}, tree.top()).number("files"), 1);
    const Outcome outcome = runIngest({"--json", "d/f", "d/f"}, tree.top());
    EXPECT_EQ(outcome.number("files"), 2);
    EXPECT_EQ(outcome.number("saved_bytes"), 3);
}

TEST(IngestProgram, EveryNameIsANameWhateverItLooksLike)
{
    const TemporaryTree tree;
    const std::vector<std::string> names = {"[a,b]", "[]", "{}", "%%", "++", "ingest", "a b", "#"};
    std::vector<std::string> line = {"--json"};
    for (const std::string& name : names) {
        tree.file(name, "x");
        line.push_back(name);
    }
    for (const char* const name : {"--json", "-h", "--"})
        tree.file(name, "x");
    line.insert(line.end(), {"--", "--json", "-h", "--"});
    const Outcome outcome = runIngest(line, tree.top());
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
    EXPECT_EQ(outcome.number("files"), static_cast<qint64>(names.size()) + 3);
}

TEST(IngestProgram, NamesThatAreNoUtf8AreIngestedAndShownEscaped)
{
    const TemporaryTree tree;
    tree.directory("d");
    tree.file("d/f\xFF\xFE", "abc");
    tree.file("d/line\nbreak", "abc");
    const Outcome met = runIngest({"--json", "d"}, tree.top());
    EXPECT_EQ(met.m_Status, 0) << met.m_Errors;
    EXPECT_EQ(met.number("files"), 2);
    EXPECT_EQ(met.number("read_back_bytes"), 6);
    const Outcome given =
        runShell(R"sh(exec "$0" ingest --json --root r --manifest m1 "$(printf 'd/f\377\376')")sh",
                 tree.top());
    EXPECT_EQ(given.m_Status, 0) << given.m_Errors;
    EXPECT_EQ(given.number("files"), 1);
    const Outcome missing = runShell(
        R"sh(exec "$0" ingest --root r --manifest m2 "$(printf 'no\377\033')")sh", tree.top());
    EXPECT_EQ(missing.m_Status, 1);
    EXPECT_EQ(missing.m_Errors, "zebtdx: no\\xff\\x1b: No such file or directory\n");
}

TEST(IngestProgram, DataAboveTheMemoryLimitUsesTheDiskCache)
{
    const TemporaryTree tree;
    tree.file("f", mixedBytes(100 * 1024, 1));
    for (const char* const threads : {"1", "8"}) {
        const Outcome outcome = runIngest(
            {"--json", "--block", "1K", "--memory", "16K", "--threads", threads, tree.top()});
        EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
        EXPECT_EQ(outcome.number("files"), 1);
        EXPECT_EQ(outcome.number("distinct_bytes"), 100 * 1024);
        EXPECT_EQ(outcome.number("read_back_bytes"), 100 * 1024);
        EXPECT_EQ(outcome.number("memory_limit"), 16 * 1024);
        EXPECT_EQ(outcome.number("errors"), 0);
    }
}

TEST(IngestProgram, StoreMessagesShowOnlyWithVerbose)
{
    const TemporaryTree tree;
    tree.file("f", "abc");
    expectNoStoreMessages(runIngest({tree.path("f")}));
    for (const std::vector<std::string>& line :
         {std::vector<std::string>{"ingest", "--verbose", "f"}, {"--verbose", "ingest", "f"}}) {
        std::vector<std::string> whole = line;
        whole.push_back("--replace");
        const Outcome outcome = runTool(whole, tree.top());
        EXPECT_EQ(outcome.m_Status, 0);
        EXPECT_THAT(outcome.m_Errors, HasSubstr("zebtdx: [TDX] Max data cache size"));
    }
}

TEST(IngestProgram, HelpListsTheExitCodesAndVersionTheVersion)
{
    for (const std::vector<std::string>& line :
         {std::vector<std::string>{"--help"}, {"ingest", "--help"}}) {
        const Outcome outcome = runTool(line);
        EXPECT_EQ(outcome.m_Status, 0);
        EXPECT_EQ(outcome.m_Errors, "");
        EXPECT_THAT(outcome.m_Output, AllOf(HasSubstr("Exit status:"), HasSubstr("\n  0  "),
                                            HasSubstr("\n  1  "), HasSubstr("\n  2  ")));
    }
    const Outcome version = runTool({"--version"});
    EXPECT_EQ(version.m_Status, 0);
    EXPECT_THAT(version.m_Output, ::testing::MatchesRegex("zebtdx [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST(IngestProgram, AFullOutputIsAnError)
{
    const TemporaryTree tree;
    tree.file("f", "abc");
    const Outcome outcome = runShell(R"(exec "$0" ingest f >/dev/full)", tree.top());
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(outcome.m_Errors, "zebtdx: standard output cannot be written; check where it is "
                                "redirected to\n");
}

TEST(IngestProgram, WithoutAPlaceForTheStoreNothingIsDone)
{
    const TemporaryTree tree;
    tree.file("f", "abc");
    const Outcome outcome = runTool({"ingest", "f", "--root", "f"}, tree.top());
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(outcome.m_Output, "");
    EXPECT_EQ(outcome.m_Errors, "zebtdx: cache root f: Not a directory\n");
    EXPECT_EQ(runShell("ls", tree.top()).m_Output, "f\n");
}

TEST(IngestProgram, ADiskThatAcceptsNoWritesEndsTheCommand)
{
    const TemporaryTree tree;
    tree.file("f", "abc");
    tree.directory("cache");
    tree.directory("cache/main");
    // The only bucket cannot be created while a file has its name.
    tree.file("cache/main/0", "");
    const Outcome outcome = runTool(
        {"ingest", "f", "--root", "cache", "--buckets", "1", "--manifest", "m"}, tree.top());
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(outcome.m_Output, "") << "no summary of blocks that are not written";
    EXPECT_EQ(outcome.errorLines(), 2) << outcome.m_Errors;
    EXPECT_THAT(outcome.m_Errors,
                AllOf(HasSubstr("; retrying\nzebtdx: writes to the disk cache keep failing; "
                                "giving up, "),
                      HasSubstr("make room on the disk and start again\n")));
    EXPECT_EQ(runShell("ls", tree.top()).m_Output, "cache\nf\n") << "no manifest";
}

TEST(IngestProgram, CacheAndManifestAreInTheWorkingDirectoryByDefault)
{
    const TemporaryTree tree;
    tree.file("f", "abc");
    EXPECT_EQ(runTool({"ingest", "."}, tree.top()).m_Status, 0);
    EXPECT_EQ(runShell("ls", tree.top()).m_Output, "f\nzebtdx-cache\nzebtdx-manifest.jsonl\n");
}

TEST(IngestProgram, ACacheAmongTheFilesStaysOut)
{
    const TemporaryTree tree;
    tree.directory("d");
    tree.file("d/f", "abc");
    for (const char* const manifest : {"m1", "m2"}) {
        const Outcome outcome = runTool(
            {"ingest", "--json", "d", "--root", "d/cache", "--manifest", manifest}, tree.top());
        EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
        EXPECT_EQ(outcome.number("files"), 1);
    }
}

TEST(IngestProgram, AManifestIsReplacedOnlyWhenAsked)
{
    const TemporaryTree tree;
    tree.file("f", "abc");
    tree.file("zebtdx-manifest.jsonl", "precious");
    const Outcome refused = runTool({"ingest", "f"}, tree.top());
    EXPECT_EQ(refused.m_Status, 1);
    EXPECT_EQ(
        refused.m_Errors,
        "zebtdx: zebtdx-manifest.jsonl: already exists; choose another file with --manifest, or "
        "pass --replace\n");
    EXPECT_EQ(runShell("ls; cat zebtdx-manifest.jsonl", tree.top()).m_Output,
              "f\nzebtdx-manifest.jsonl\nprecious");
    EXPECT_EQ(runTool({"ingest", "f", "--replace"}, tree.top()).m_Status, 0);
    EXPECT_THAT(runShell("head -c 40 zebtdx-manifest.jsonl", tree.top()).m_Output,
                HasSubstr("block_size"));
}

TEST(IngestProgram, WithoutTheComparisonNothingIsReadBack)
{
    const TemporaryTree tree;
    tree.file("f", "abc");
    const Outcome outcome = runIngest({"--json", "--no-check", "f"}, tree.top());
    EXPECT_EQ(outcome.m_Status, 0);
    EXPECT_FALSE(outcome.json().contains(QStringLiteral("read_back_bytes")));
    EXPECT_EQ(outcome.number("bytes"), 3);
}

TEST(IngestProgram, DifferentFilesOfOneNameAreReported)
{
    const TemporaryTree tree;
    for (const char* const name : {"a", "b"})
        tree.directory(name);
    tree.file("a/f", "abc");
    tree.file("f", "def");
    // Restored, both would be "f".
    const Outcome outcome = runIngest({"../f", "f"}, tree.path("a"));
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(
        outcome.m_Errors,
        "zebtdx: f: is not in the manifest, as another file is listed there as f; ingest it with "
        "a manifest of its own\n");
}

TEST(IngestProgram, ShowsABarOnATerminalAndTakesItAway)
{
    const TemporaryTree tree;
    tree.directory("d");
    tree.file("d/f", mixedBytes(100000, 1));
    tree.pipe("d/pipe");
    const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (terminal < 0 || ::grantpt(terminal) != 0 || ::unlockpt(terminal) != 0)
        GTEST_SKIP() << "no pseudo-terminals here";
    const std::string name = ::ptsname(terminal);
    // Held open, so that what the program wrote stays readable after its end.
    const int held = ::open(name.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(held, 0);
    QProcess process;
    setLanguage(process);
    process.setStandardErrorFile(QString::fromStdString(name));
    process.start(QStringLiteral(ZEBTDX_PROGRAM),
                  asArguments({"ingest", "--json", tree.path("d"), "--root", tree.path("cache"),
                               "--manifest", tree.path("manifest")}));
    const Outcome outcome = finish(process);
    EXPECT_EQ(outcome.m_Status, 1);
    ASSERT_EQ(::fcntl(terminal, F_SETFL, O_NONBLOCK), 0);
    std::string shown;
    const auto readAll = [&] {
        char buffer[4096];
        for (ssize_t got = 0; (got = ::read(terminal, buffer, sizeof buffer)) > 0;)
            shown.append(buffer, static_cast<std::size_t>(got));
        return shown.find("Comparing") != std::string::npos && shown.back() == '\r';
    };
    EXPECT_TRUE(waitUntil(readAll)) << shown;
    ::close(held);
    ::close(terminal);
    EXPECT_THAT(shown, HasSubstr("zebtdx: " + tree.path("d/pipe") + ": is a named pipe\r\n"));
    EXPECT_THAT(shown, AllOf(HasSubstr("\rStoring"), HasSubstr("%")));
    EXPECT_THAT(shown, HasSubstr("100 %    97.7 KiB of 97.7 KiB"));
    // The bar's end is a line of blanks.
    EXPECT_THAT(shown, ::testing::EndsWith(" \r"));
    EXPECT_EQ(outcome.number("files"), 1);
}
