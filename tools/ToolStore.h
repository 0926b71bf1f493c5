#pragma once

#include <QTemporaryDir>
#include <QtGlobal>

#include <memory>
#include <string>

/// The process's store, set up for the length of a command.
///
/// Its cache root is a temporary folder of its own, which goes with it. One at a time.
class ToolStore
{
public:
    /// Sets the store up, with `memory` as the limit of the resident bytes. Gives null and the
    /// reason when there is no place for the cache root.
    static std::unique_ptr<ToolStore> open(qint64 memory, std::string& reason);

    /// Cleans the store up. References may outlive it, accessors may not.
    ~ToolStore();
    ToolStore(const ToolStore&) = delete;
    ToolStore& operator=(const ToolStore&) = delete;

private:
    ToolStore();

    QTemporaryDir m_Root;
};
