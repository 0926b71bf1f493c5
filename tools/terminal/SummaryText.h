#pragma once

#include <QElapsedTimer>
#include <QJsonObject>
#include <QString>
#include <QtGlobal>

#include <string>
#include <vector>

class ErrorReport;

/// The result of a command: aligned lines for people, one JSON object for programs.
class SummaryText
{
public:
    /// A number, with a remark after it for people.
    void addCount(const QString& key, const std::string& name, qint64 number,
                  const std::string& remark = {});

    /// The same, with the short size as the remark.
    void addBytes(const QString& key, const std::string& name, qint64 bytes);

    /// Millions of bytes per second. The keys are "seconds" and "mb_per_s" with the suffix.
    void addRate(const QString& suffix, const std::string& name, qint64 bytes, double seconds);

    /// A number with two decimals.
    void addDecimal(const QString& key, const std::string& name, double number,
                    const std::string& remark = {});

    /// In the JSON object only.
    void addJson(const QString& key, const QJsonValue& value);

    /// In the text only: a separate line, after all others.
    void addLine(const std::string& line);

    std::string text() const;
    std::string json() const;

    /// Writes one of the two to standard output, which is an error if it fails. Returns the status
    /// of `errors`.
    int print(bool asJson, ErrorReport& errors) const;

    static double secondsOf(const QElapsedTimer& timer);

    /// Lines of cells: the first column is left-aligned, the others right-aligned.
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
