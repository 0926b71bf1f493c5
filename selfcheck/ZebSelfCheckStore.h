#pragma once

// Internal: the frame of a check. Not installed.

#include <QFileInfo>
#include <QList>
#include <QString>
#include <QStringList>

/// The process's store for the length of one check: set up on empty cache roots, cleaned up at the
/// end with the roots emptied again, however the check ends.
///
/// Whatever may hold an accessor is declared after this object, so that it ends first.
///
/// Thread safety: belongs to the thread that runs the check.
class ZebSelfCheckStore
{
public:
    /// Empties the roots, if need be, and sets the store up on them.
    ZebSelfCheckStore(const QStringList& roots, qint64 memoryBytes, int buckets);

    /// As close().
    ~ZebSelfCheckStore();
    ZebSelfCheckStore(const ZebSelfCheckStore&) = delete;
    ZebSelfCheckStore& operator=(const ZebSelfCheckStore&) = delete;

    /// What setup() said.
    bool isReady() const { return m_IsReady; }

    /// Cleans the store up, and leaves its files. Once is enough.
    void cleanUp();

    /// The same, and empties the roots. Once is enough.
    void close();

    /// The first `count` cache roots of a data folder.
    static QStringList rootsIn(const QString& dataDirectory, int count);

    /// Removes all that lies in these folders and leaves them there. What cannot be removed is told
    /// in the debug log. Links are removed and not followed.
    static void clear(const QStringList& folders);

    /// The block files below these folders. Nothing else counts: the log lies among them.
    static QList<QFileInfo> blockFiles(const QStringList& folders);

private:
    QStringList m_Roots;
    bool m_IsReady;
    bool m_IsCleanedUp;
    bool m_IsClosed;
};
