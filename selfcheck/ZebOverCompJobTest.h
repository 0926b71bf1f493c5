#pragma once

// Internal: a deferred block of the compositing check. Not installed.

#include "data/ZebBlockFuture.h"
#include "data/ZebDataReference.h"

#include <QFuture>

/// The block of the pixels half-way between those of two others, which may be deferred themselves.
/// The work runs in Qt's global pool from the construction on.
///
/// Of each pixel of four bytes the first three are half the sum, rounded down, and the fourth is
/// that of the first block.
///
/// Thread safety: data() may be called from several threads at once. A thread that waits for work
/// which has not begun does it itself, so no pool is too small.
class ZebOverCompJobTest : public ZebBlockFuture
{
public:
    /// The result is as large as `a`; where `b` has ended, zeros stand. A block that cannot be had
    /// gives a null reference.
    ZebOverCompJobTest(const ZebDataReference& a, const ZebDataReference& b);

    /// Drops the future; the work goes on if it has begun.
    ~ZebOverCompJobTest() override;

    ZebDataReference data() override;

private:
    Q_DISABLE_COPY(ZebOverCompJobTest)

    static ZebDataReference work(const ZebDataReference& a, const ZebDataReference& b);

    QFuture<ZebDataReference> m_Future;
};
