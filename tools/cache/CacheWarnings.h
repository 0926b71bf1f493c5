#pragma once

#include <QtGlobal>

#include <array>
#include <mutex>
#include <string>

class ErrorReport;
class SummaryText;

/// What a check of a cache finds besides damage: harmless by itself, but worth attention. Prints a
/// line for each of the first few of a kind, and counts all of them.
///
/// Thread safety: any thread may call every operation.
class CacheWarnings
{
public:
    enum Kind
    {
        /// Something that the store did not create.
        Unexpected,
        /// A symbolic link, which is not followed.
        Link,
        /// A group- or world-writable file or directory.
        Writable,
        /// A file that an interrupted write left.
        Truncated,
        /// A file that another process wrote or removed during the check.
        Changed,
        /// The mark of an ingest that has not finished.
        Unfinished
    };

    explicit CacheWarnings(ErrorReport& errors);

    /// "zebtdx: <path>: <text>"
    void add(Kind kind, const std::string& path, const std::string& text);

    /// Whether a file or directory of this mode is group- or world-writable. A link never is.
    static bool isWritableByOthers(unsigned int mode);

    /// Adds a warning in that case.
    void addIfWritable(const std::string& path, unsigned int mode);

    qint64 count(Kind kind) const;

    /// The numbers of all kinds.
    void addTo(SummaryText& summary) const;

private:
    static constexpr std::size_t s_Kinds = Unfinished + 1;

    ErrorReport& m_Errors;
    // Guards the numbers. A leaf lock.
    mutable std::mutex m_Mutex;
    std::array<qint64, s_Kinds> m_Counts = {};
};
