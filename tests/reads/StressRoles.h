#pragma once

#include "reads/StressReader.h"
#include "reads/StressRole.h"

#include <QList>
#include <QString>

#include <array>

// The threads of the stress that do not read, or read in their own way.

/// Adds blocks all the time, so that others are evicted.
class StressAdmitter : public StressRole
{
public:
    using StressRole::StressRole;
    void step() override;
    void prepareToStand() override;

private:
    void readBack();

    struct Added
    {
        ZebDataReference m_Reference;
        quint32 m_Seed = 0;
    };
    std::array<Added, 6> m_Added;
};

/// Evicts all it can, again and again.
class StressEvictor : public StressRole
{
public:
    using StressRole::StressRole;
    void step() override;
};

/// Takes the delete lock as a host does, and checks that everything stands still meanwhile.
class StressLocker : public StressRole
{
public:
    using StressRole::StressRole;
    void step() override;

private:
    struct References
    {
        const StressBlock* m_Block;
        int m_Count;
        // How many operations on the block other threads had in progress.
        int m_UnderWay;
    };

    std::vector<qint64> state(const StressOpening& opening, bool withQueries) const;
    std::vector<References> stillReferences() const;
    static void requireStill(const std::vector<References>& references);
    bool hasStillReferences(const StressBlock& block) const;
};

/// Locks hashes as eviction does, and checks that their references stay as they are.
class StressHashHolder : public StressRole
{
public:
    using StressRole::StressRole;
    void step() override;
};

/// Drops the last references of blocks that another thread adds again or looks up at that time.
class StressReleaser : public StressRole
{
public:
    StressReleaser(StressShared& shared, StressActivity& activity, quint32 seed);
    void step() override;

private:
    static constexpr int s_Blocks = 3;
    static QByteArray bytesOf(int which);
    static void requireBytes(const ZebDataReference& reference, int which);

    std::array<QString, s_Blocks> m_Texts;
};

/// Starts threads that read a little and end, some of which close their last accessors only after
/// most of their thread-local objects are gone.
class StressChurner : public StressRole
{
public:
    using StressRole::StressRole;
    void step() override;

private:
    static void live(StressActivity& activity, StressBlock& block,
                     const ZebDataReference& reference, bool isLate);
};

/// Asks for figures, and sets the limit of memory.
class StressReporter : public StressRole
{
public:
    using StressRole::StressRole;
    void step() override;
    static void setLimit(const StressRound& round, int choice);
};
