#pragma once

// Internal: the frame of a check that uses the store. Not installed.

#include "selfcheck/ZebSelfCheck.h"
#include "selfcheck/ZebSelfCheckStore.h"

#include <QString>
#include <QStringList>
#include <QtGlobal>

/// What a check that uses the store does around its own work, and the settings of its store. Fill
/// in the settings, then run().
///
/// Thread safety: belongs to the thread that runs the check.
struct ZebSelfCheckFrame
{
    /// The first line, and the last line of success.
    const char* m_StartLine;
    const char* m_PassedLine;

    QStringList m_Roots = {};
    qint64 m_MemoryBytes = 100 * ZebByteUnits::s_BytesPerMiB;
    int m_Buckets = ZebSelfCheck::s_Buckets;

    /// The line of failure for a store that is not set up, or null for a check without such a line.
    /// Kept on purpose: setup() returns true or ends the process, so the line is never printed.
    const char* m_NotReadyLine = nullptr;

    /// Set before the collection starts, which fixes it. An empty name is not set.
    QString m_SubCache = {};

    /// Whether the garbage collection is on during the work.
    bool m_IsCollecting = true;

    /// Prints the first line, sets the store up on empty roots, does the work, closes the store,
    /// does what comes afterwards, and prints the last line. Returns false at the first step that
    /// does. The store is closed in every case.
    ///
    /// The steps are template arguments because std::function would export the type information of
    /// their types.
    template <typename Work, typename Afterwards>
    bool run(const Work& work, const Afterwards& afterwards) const
    {
        ZebSelfCheck::line("%s", m_StartLine);
        ZebSelfCheckStore store(m_Roots, m_MemoryBytes, m_Buckets);
        if (!begin(store) || !work())
            return false;
        store.close();
        if (!afterwards())
            return false;
        ZebSelfCheck::line("%s", m_PassedLine);
        return true;
    }

    /// The same, with nothing afterwards.
    template <typename Work>
    bool run(const Work& work) const
    {
        return run(work, [] { return true; });
    }

    /// Whether the store is ready for the work. Starts the collection, as the settings say. A
    /// part of run().
    bool begin(const ZebSelfCheckStore& store) const;
};
