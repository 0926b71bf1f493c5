#include <QCoreApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    // A death test starts afresh in a process of its own, as this one may have threads by then.
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    ::testing::InitGoogleTest(&argc, argv);
    const QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
