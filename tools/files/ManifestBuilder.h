#pragma once

#include "tools/cache/StorePlace.h"
#include "tools/files/Manifest.h"

class ErrorReport;
struct StoredFiles;

/// Makes the manifest of what has been stored.
class ManifestBuilder
{
public:
    /// @param place where the store lies; its roots are kept as absolute paths, so that a restore
    ///        finds them from any folder
    ManifestBuilder(const StorePlace& place, ErrorReport& errors);

    /// The files that are stored whole. Two different files that would have the same name are an
    /// error, and the first one stays; a file that was given twice is one.
    Manifest build(const StoredFiles& stored);

private:
    StorePlace m_Place;
    ErrorReport& m_Errors;
};
