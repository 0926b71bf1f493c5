#pragma once

#include <QJsonObject>
#include <QtGlobal>

#include <array>
#include <mutex>
#include <string>

class ErrorReport;
class SummaryText;

/// What is seen in a cache beside damage: it does no harm by itself, but somebody should know.
/// There is a line for each of the first few of a kind, and a number for all of them.
///
/// Thread safety: any thread may call every operation.
class CacheWarnings
{
public:
    enum Kind
    {
        /// Something that the store has not put there.
        Foreign,
        /// A symbolic link, which is not followed.
        Link,
        /// A file or folder that others than its owner may write.
        Loose,
        /// What is left of a write that was broken off.
        Stump,
        /// A file that a process wrote or removed meanwhile.
        Moving
    };

    explicit CacheWarnings(ErrorReport& errors);

    /// "zebtdx: <path>: <text>"
    void add(Kind kind, const std::string& path, const std::string& text);

    qint64 count(Kind kind) const;

    /// The numbers of all kinds.
    void addTo(SummaryText& summary) const;

private:
    static constexpr std::size_t s_Kinds = Moving + 1;

    ErrorReport& m_Errors;
    // Guards the numbers. Nothing is called inside it.
    mutable std::mutex m_Mutex;
    std::array<qint64, s_Kinds> m_Counts;
};
