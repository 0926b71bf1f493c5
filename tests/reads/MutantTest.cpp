// Switches off each guard of the reads that take no lock and runs a test that must notice. A guard
// without such a test could be removed by mistake.

#include "reads/TestGuards.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <string>

namespace {

constexpr int s_DeadlineMs = 60000;

struct Killer
{
    const char* m_Guard;
    // The test of ReadMomentsTest that fails without the guard.
    const char* m_Test;
    // Whether the stress notices within seconds, too.
    bool m_IsSeenByStress;

    friend std::ostream& operator<<(std::ostream& out, const Killer& killer)
    {
        return out << killer.m_Guard;
    }
};

const Killer s_Killers[] = {
    {"GateClosedSeen", "EveryOperationWaitsForALockOfAllBlocks", true},
    {"GateWaitsForSlots", "ALockOfAllBlocksWaitsForAnOpenInProgress", true},
    {"OpenSeesLocked", "AnOpenWaitsForALockOfTheHash", true},
    {"CloseSeesLocked", "ACloseWaitsForALockOfTheHash", true},
    {"PushBeforeUnpin", "AClosedBlockIsTheNewest", true},
    {"StampOnClose", "AClosedBlockIsTheNewest", true},
    {"ClearUsedBeforeStamp", "ADrainTakesTheStampOfACloseThatMeetsIt", false},
    {"EvictSeesUsed", "ABlockThatIsUsedWhenItIsChosenStays", true},
    {"EvictSeesNotEvictable", "ABlockThatIsOpenedWhenItIsChosenStays", true},
    {"EvictWaitsForCopies", "AnEvictionWaitsForACopyOfTheBytes", false},
    {"LastReleaseUnderRegistry", "ACloseMayMakeTheLastRelease", true},
    {"FreeDrainsUsed", "TheLastReleaseTakesTheHashOffItsStack", true},
    {"CloseSeesUnpinsSlow", "ACloseSignalsTheFlagOnceUnderTheLock", true},
    {"EmptyUnderClosedGate", "AnEvictionThatFindsNothingWaitsForACloseInProgress", false},
    {"OpenNeedsResident", "ABlockThatIsNotResidentIsNotOpened", false},
    {"HoldNotEnding", "AnEvictionDuringTheLastReleaseWritesNothing", false},
    {"CasRepeatsStamp", "ACloseIsNotedAgainAfterADrain", true},
    {"EvictSeesDrainTime", "ADrainThatMissesAUseLetsNoLaterOneBeEvicted", false},
    {"EndAwaitsUnlock", "TheLastReleaseWaitsForAnEvictionToUnlockTheHash", false},
};

// What a child process ended with.
struct Outcome
{
    bool m_IsInTime = false;
    bool m_Succeeded = false;
    std::string m_Output;
};

Outcome run(const char* program, const QStringList& arguments, const char* guardOff = nullptr)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (guardOff != nullptr)
        environment.insert(QStringLiteral("ZEBTDX_GUARD_OFF"), QString::fromLatin1(guardOff));
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QString::fromLocal8Bit(program), arguments);
    Outcome outcome;
    outcome.m_IsInTime = process.waitForFinished(s_DeadlineMs);
    if (!outcome.m_IsInTime) {
        process.kill();
        process.waitForFinished();
    }
    outcome.m_Succeeded = outcome.m_IsInTime && process.exitStatus() == QProcess::NormalExit &&
                          process.exitCode() == 0;
    outcome.m_Output = process.readAll().toStdString();
    return outcome;
}

QStringList onlyTest(const char* test)
{
    return {QStringLiteral("--gtest_filter=ReadMoments.") + QString::fromLatin1(test)};
}

QStringList stressSettings(int seconds, int seed)
{
    return {QStringLiteral("--seconds"),  QString::number(seconds),     QStringLiteral("--seed"),
            QString::number(seed),        QStringLiteral("--round-ms"), QStringLiteral("20"),
            QStringLiteral("--stuck-ms"), QStringLiteral("3000"),       QStringLiteral("--yields"),
            QStringLiteral("100"),        QStringLiteral("--threads"),  QStringLiteral("2")};
}

class Mutant : public testing::TestWithParam<Killer>
{};

std::string nameOf(const testing::TestParamInfo<Killer>& info)
{
    return info.param.m_Guard;
}

} // namespace

TEST_P(Mutant, FailsATestOfItsMoment)
{
    const Killer& killer = GetParam();
    const Outcome control = run(READ_MOMENTS, onlyTest(killer.m_Test));
    EXPECT_TRUE(control.m_Succeeded) << control.m_Output;
    EXPECT_NE(control.m_Output.find("[  PASSED  ] 1 test"), std::string::npos) << killer.m_Test;
    const Outcome mutant = run(READ_MOMENTS, onlyTest(killer.m_Test), killer.m_Guard);
    EXPECT_FALSE(mutant.m_Succeeded) << mutant.m_Output;
    EXPECT_EQ(mutant.m_Output.find("no guard has the name"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(All, Mutant, testing::ValuesIn(s_Killers), &nameOf);

// A mutant that the stress notices shows that the stress can fail.
TEST(Mutants, FailsTheStress)
{
    const Outcome mutant =
        run(READ_STRESS, stressSettings(10, 1)
                             << QStringLiteral("--mutant") << QStringLiteral("StampOnClose"));
    EXPECT_FALSE(mutant.m_Succeeded) << mutant.m_Output;
    EXPECT_EQ(mutant.m_Output.find("usage:"), std::string::npos) << mutant.m_Output;
}

// Off by default: it takes a minute or more, and each of them needs its race to happen.
// scripts/soak.sh runs it.
TEST(Mutants, DISABLED_FailTheStressThatPassesWithoutThem)
{
    const Outcome control = run(READ_STRESS, stressSettings(2, 1));
    EXPECT_TRUE(control.m_Succeeded) << control.m_Output;
    for (const Killer& killer : s_Killers) {
        if (!killer.m_IsSeenByStress)
            continue;
        QStringList arguments = stressSettings(3, 1);
        arguments << QStringLiteral("--mutant") << QString::fromLatin1(killer.m_Guard);
        const Outcome mutant = run(READ_STRESS, arguments);
        EXPECT_FALSE(mutant.m_Succeeded) << killer.m_Guard << ": " << mutant.m_Output;
        EXPECT_EQ(mutant.m_Output.find("usage:"), std::string::npos) << mutant.m_Output;
    }
}

TEST(Mutants, AreThereForEachGuard)
{
    for (const TestGuard& guard : s_TestGuards) {
        // Only the processor's store buffer shows these: tests/litmus looks for that.
        if (guard.m_Guard == ZebTestGuard::GateFencesOthers ||
            guard.m_Guard == ZebTestGuard::GateFencedSeen)
            continue;
        const auto names = [&guard](const Killer& killer) {
            return std::strcmp(killer.m_Guard, guard.m_Name) == 0;
        };
        EXPECT_TRUE(std::any_of(std::begin(s_Killers), std::end(s_Killers), names)) << guard.m_Name;
    }
}

// The build with test points really has them.
TEST(Mutants, TheStressReachesEveryPoint)
{
    const Outcome outcome = run(READ_STRESS, stressSettings(1, 1));
    EXPECT_TRUE(outcome.m_Succeeded) << outcome.m_Output;
    EXPECT_EQ(outcome.m_Output.find("never reached"), std::string::npos) << outcome.m_Output;
    EXPECT_NE(outcome.m_Output.find("all points reached"), std::string::npos) << outcome.m_Output;
}
