#include <QCoreApplication>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <memory>

namespace {

constexpr const char* s_HasFolder = "ZEBTDX_TEST_HAS_FOLDER";

} // namespace

int main(int argc, char** argv)
{
    // A death test runs in a new process, since this process may have threads by then.
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    ::testing::InitGoogleTest(&argc, argv);

    // All temporary folders of the program are below this one. So it removes those of death tests,
    // whose processes end without doing so.
    std::unique_ptr<QTemporaryDir> folder;
    if (!qEnvironmentVariableIsSet(s_HasFolder)) {
        folder = std::make_unique<QTemporaryDir>();
        if (!folder->isValid())
            return 1;
        qputenv("TMPDIR", folder->path().toLocal8Bit());
        qputenv(s_HasFolder, "1");
    }

    const QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
