#pragma once

#include "data/ZebDataReference.h"
#include "tools/cache/StorePlace.h"

#include <QtGlobal>

#include <string>
#include <vector>

class ErrorReport;
class ProgressBar;
class ToolStore;
struct Manifest;

/// Removes from a cache on disk what no manifest names, by the store's own collector: while
/// somebody holds a reference on a content, its file stays.
///
/// Nobody else may use the store, and the collection must be off.
class CacheCleaner
{
public:
    struct Sum
    {
        qint64 m_Files = 0;
        qint64 m_Bytes = 0;
    };

    CacheCleaner(const StorePlace& place, const ToolStore& store, ErrorReport& errors,
                 ProgressBar& progress);

    /// Holds everything that the manifest names from now on: its lists of blocks, and the blocks.
    /// A list that cannot be read is an error: what it names is not known, so nothing may be
    /// removed then. Gives whether all lists could be read.
    bool keep(const Manifest& manifest);

    /// Looks at the files: what is held, and what is not.
    void count();

    const Sum& kept() const { return m_Kept; }
    const Sum& rest() const { return m_Rest; }

    /// Removes what is not held. Gives whether nothing of it is left; count() tells what is.
    bool removeRest();

private:
    /// One pass of the collector on this thread.
    void pass();

    /// Whether the group block can be read and is what its name says.
    bool isSound(const ZebDataReference& group) const;

    const StorePlace m_Place;
    const ToolStore& m_Store;
    ErrorReport& m_Errors;
    ProgressBar& m_Progress;
    std::vector<ZebDataReference> m_Held;
    Sum m_Kept;
    Sum m_Rest;
};
