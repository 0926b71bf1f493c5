#pragma once

#include "support/MessageCapture.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>
#include <vector>

/// The process's store, set up on cache roots of its own for the length of a scope, and cleaned up
/// with the roots removed at the end. Keeps the store's messages off the terminal and holds them.
class TemporaryStore
{
public:
    struct Options
    {
        qint64 m_Memory = 64 * 1024 * 1024;
        int m_Roots = 1;
        int m_Buckets = 10;
        int m_CompressionThreads = 0;
    };

    TemporaryStore();
    explicit TemporaryStore(const Options& options);
    ~TemporaryStore();
    TemporaryStore(const TemporaryStore&) = delete;
    TemporaryStore& operator=(const TemporaryStore&) = delete;

    /// Cleans the store up now; the roots stay until the end of the scope.
    void cleanUp();

    /// Sets the store up again on the same roots.
    void setupAgain();

    const QStringList& roots() const { return m_RootPaths; }
    MessageCapture& messages() { return m_Messages; }

private:
    MessageCapture m_Messages;
    Options m_Options;
    std::vector<std::unique_ptr<QTemporaryDir>> m_Directories;
    QStringList m_RootPaths;
};
