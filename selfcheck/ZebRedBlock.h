#pragma once

// Internal: a deferred block of the compositing check. Not installed.

#include "data/ZebBlockFuture.h"
#include "data/ZebDataReference.h"

#include <QFuture>

/// A block of opaque red pixels that is as large as another block. It exists once its work is done.
/// The work starts in Qt's global pool on construction.
///
/// Thread safety: data() may be called from several threads at once. A thread that waits for work
/// that has not begun does the work itself, so a small pool cannot deadlock.
class ZebRedBlock : public ZebBlockFuture
{
public:
    /// Only the size of the source is used; a source that cannot be loaded gives a null reference.
    explicit ZebRedBlock(const ZebDataReference& source);

    /// Drops the future; work that has begun continues.
    ~ZebRedBlock() override;

    ZebDataReference data() override;

private:
    Q_DISABLE_COPY(ZebRedBlock)

    static ZebDataReference work(const ZebDataReference& source);

    QFuture<ZebDataReference> m_Future;
};
