#pragma once

#include "manager/ZebDataBlockManager.h"

#include <QString>

#include <gtest/gtest.h>

#include <functional>
#include <utility>
#include <vector>

/// A host's progress reporter that keeps the values it receives, and may act on them. A collector
/// calls update() alone.
class RecordingReporter : public ZebDataBlockManager::ProgressReporter
{
public:
    /// What happens in each update; set before the first.
    void onUpdate(std::function<void(int)> action) { m_OnUpdate = std::move(action); }

    const std::vector<int>& values() const { return m_Values; }

    void start(const QString&, int) override { FAIL() << "a collector does not start it"; }
    void finish() override { FAIL() << "a collector does not finish it"; }
    void update(int value, const QString& text) override
    {
        EXPECT_EQ(text, QString());
        m_Values.push_back(value);
        if (m_OnUpdate)
            m_OnUpdate(value);
    }

private:
    std::vector<int> m_Values;
    std::function<void(int)> m_OnUpdate;
};
