#pragma once

// Internal: the frame of a check that uses the store. Not installed.

#include "selfcheck/ZebSelfCheck.h"

#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <functional>

/// What a check that uses the store does around its own work, and the settings of its store. Fill
/// in the settings, then run().
///
/// Thread safety: belongs to the thread that runs the check.
struct ZebSelfCheckFrame
{
    using Step = std::function<bool()>;

    /// The first line, and the last line of success.
    const char* m_StartLine;
    const char* m_PassedLine;

    QStringList m_Roots = {};
    qint64 m_MemoryBytes = 100 * ZebSelfCheck::s_BytesPerMegabyte;
    int m_Buckets = ZebSelfCheck::s_Buckets;

    /// The line of failure for a store that is not set up, or null for a check without such a line.
    /// Kept on purpose: setup() returns true or ends the process, so the line is never printed.
    const char* m_NotReadyLine = nullptr;

    /// Set before the collection starts, which fixes it. An empty name is not set.
    QString m_SubCache = {};

    /// Whether the garbage collection is on during the work.
    bool m_IsCollecting = true;

    /// Prints the first line, sets the store up on empty roots, does the work, closes the store,
    /// does `afterwards` if there is any, and prints the last line. Returns false at the first step
    /// that does. The store is closed in every case.
    bool run(const Step& work, const Step& afterwards = Step()) const;
};
