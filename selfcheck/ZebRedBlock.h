#pragma once

// Internal: a deferred block of the compositing check. Not installed.

#include "data/ZebBlockFuture.h"
#include "data/ZebDataReference.h"

#include <QFuture>

/// A block of opaque red pixels that is as large as another block, and does not exist before its
/// work has ended. The work runs in Qt's global pool from the construction on.
///
/// Thread safety: data() may be called from several threads at once. A thread that waits for work
/// which has not begun does it itself, so no pool is too small.
class ZebRedBlock : public ZebBlockFuture
{
public:
    /// Of the source only the size is used; a source that cannot be had gives a null reference.
    explicit ZebRedBlock(const ZebDataReference& source);

    /// Drops the future; the work goes on if it has begun.
    ~ZebRedBlock() override;

    ZebDataReference data() override;

private:
    Q_DISABLE_COPY(ZebRedBlock)

    static ZebDataReference work(const ZebDataReference& source);

    QFuture<ZebDataReference> m_Future;
};
