#pragma once

#include "data/ZebDataReference.h"
#include "tools/cache/StorePlace.h"

#include <QtGlobal>

#include <vector>

class ErrorReport;
class ManifestReader;
class ProgressBar;
class ToolStore;

/// Removes the block files of a cache that no manifest references, with the store's own collector:
/// the file of a block stays while a reference to the block exists.
///
/// No other thread may use the store, and collection must be off.
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

    /// References everything that the manifest lists from now on: its lists of blocks, and the
    /// blocks. A list that cannot be read is an error: its blocks are unknown, so nothing may be
    /// removed then. Returns whether all lists could be read. Throws a ToolError when the manifest
    /// cannot be read to its end.
    ///
    /// @param files how many files it lists, for the progress
    bool keep(ManifestReader& manifest, qint64 files);

    /// Counts the files with and without a reference.
    void count();

    const Sum& kept() const { return m_Kept; }
    const Sum& unreferenced() const { return m_Unreferenced; }

    /// Removes the unreferenced files and counts again. Returns whether none is left.
    bool removeUnreferenced();

private:
    /// One pass of the collector on this thread. The collection is off afterwards, also after an
    /// exception: what is referenced here must outlive it.
    void pass();

    const StorePlace m_Place;
    const ToolStore& m_Store;
    ErrorReport& m_Errors;
    ProgressBar& m_Progress;
    std::vector<ZebDataReference> m_Held;
    Sum m_Kept;
    Sum m_Unreferenced;
};
