#pragma once

// Internal: a deferred block of the compositing check. Not installed.

#include "data/ZebBlockFuture.h"
#include "data/ZebDataReference.h"

#include <QFuture>

/// A block whose pixels are half-way between those of two other blocks, which may be deferred
/// themselves. The work starts in Qt's global pool on construction.
///
/// The first three bytes of each four-byte pixel are half the sum, rounded down; the fourth is that
/// of the first block.
///
/// Thread safety: data() may be called from several threads at once. A thread that waits for work
/// that has not begun does the work itself, so a small pool cannot deadlock.
class ZebOverCompJobTest : public ZebBlockFuture
{
public:
    /// The result is as large as `a`, with zeros past the end of `b`. A block that cannot be loaded
    /// gives a null reference.
    ZebOverCompJobTest(const ZebDataReference& a, const ZebDataReference& b);

    /// Drops the future; work that has begun continues.
    ~ZebOverCompJobTest() override;

    ZebDataReference data() override;

private:
    Q_DISABLE_COPY(ZebOverCompJobTest)

    static ZebDataReference work(const ZebDataReference& a, const ZebDataReference& b);

    QFuture<ZebDataReference> m_Future;
};
