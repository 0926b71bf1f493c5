#pragma once

#include "reads/StressRole.h"

#include <memory>
#include <vector>

/// An accessor that knows its block.
class StressOpening
{
public:
    StressOpening(StressActivity& activity, StressBlock& block, const ZebDataReference& reference);
    /// Copies the accessor.
    StressOpening(StressActivity& activity, const StressOpening& other);
    ~StressOpening();
    StressOpening(const StressOpening&) = delete;
    StressOpening& operator=(const StressOpening&) = delete;

    StressBlock& block() const { return m_Block; }
    const ZebConstAccessor& accessor() const { return *m_Accessor; }
    void check() const;

private:
    StressActivity& m_Activity;
    StressBlock& m_Block;
    std::optional<ZebConstAccessor> m_Accessor;
};

/// Reads blocks in every way that a host has.
class StressReader : public StressRole
{
public:
    StressReader(StressShared& shared, StressActivity& activity, quint32 seed, int number)
        : StressRole(shared, activity, seed), m_Number(number)
    {}
    ~StressReader() override;

    void step() override;
    void prepareToStand() override;

private:
    void open();
    void openAndClose();
    void readOwn();
    void copyAccessor();
    void query();
    void preload();
    void modify();
    void copyReferences();
    void lookUp();
    void closeSome();
    void dropKept();

    int m_Number;
    std::vector<std::unique_ptr<StressOpening>> m_Open;
    // Those of m_Open that count in StressBlock::m_Kept.
    std::vector<StressBlock*> m_Kept;
};
