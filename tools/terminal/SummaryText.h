#pragma once

#include <QElapsedTimer>
#include <QJsonObject>
#include <QString>
#include <QtGlobal>

#include <string>
#include <vector>

class ErrorReport;

/// What a command has come to: aligned lines for people, one JSON object for programs.
class SummaryText
{
public:
    /// A number, with a remark behind it for people.
    void addCount(const QString& key, const std::string& name, qint64 number,
                  const std::string& remark = {});

    /// The same, with the size in short for people.
    void addBytes(const QString& key, const std::string& name, qint64 bytes);

    /// Millions of bytes per second. `what` says what took that long. The keys are "seconds" and
    /// "mb_per_s", each with the suffix behind it.
    void addRate(const QString& suffix, const std::string& name, qint64 bytes, double seconds,
                 const std::string& what);

    /// A number with two decimals.
    void addDecimal(const QString& key, const std::string& name, double number,
                    const std::string& remark = {});

    /// For programs alone.
    void addJson(const QString& key, const QJsonValue& value);

    /// For people alone: a line of its own, behind all others.
    void addLine(const std::string& line);

    std::string text() const;
    std::string json() const;

    /// Writes one of the two to standard output, and gives the exit status: failed when there were
    /// errors, or when the output cannot be written, which is one.
    int print(bool asJson, ErrorReport& errors) const;

    static double secondsOf(const QElapsedTimer& timer);

    /// Lines of cells: the first column from the left, the others from the right.
    static std::string table(const std::vector<std::vector<std::string>>& rows);

private:
    struct Line
    {
        std::string m_Name;
        std::string m_Value;
        std::string m_Remark;
    };

    std::vector<Line> m_Lines;
    std::string m_Tail;
    QJsonObject m_Object;
};
