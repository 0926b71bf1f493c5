#pragma once

// Internal: the store of a check. Not installed.

#include <QFileInfo>
#include <QList>
#include <QString>
#include <QStringList>

/// The process's store for the length of one check: set up on empty cache roots, cleaned up at the
/// end with the roots emptied again, however the check ends.
///
/// Declare everything that may hold an accessor after this object, so that it is destroyed first.
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

    /// What setup() returned.
    bool isReady() const { return m_IsReady; }

    /// Cleans the store up, and leaves its files. Further calls do nothing.
    void cleanUp();

    /// The same, and empties the roots. Further calls do nothing.
    void close();

    /// The first `count` cache roots of a data folder.
    static QStringList rootsIn(const QString& dataDirectory, int count);

    /// Removes everything inside these folders, but not the folders. Logs what cannot be removed.
    /// Removes links without following them.
    static void clear(const QStringList& folders);

    /// The block files below these folders. Other files, such as the log, do not count.
    static QList<QFileInfo> blockFiles(const QStringList& folders);

private:
    QStringList m_Roots;
    bool m_IsReady;
    bool m_IsCleanedUp;
    bool m_IsClosed;
};
