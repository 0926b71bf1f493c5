#include "tools/terminal/SummaryText.h"

#include "support/ZebByteUnits.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/SizeText.h"

#include <QJsonDocument>

#include <algorithm>
#include <cmath>
#include <iostream>

namespace {

constexpr double s_NanosecondsPerSecond = 1e9;
constexpr double s_BytesPerMB = static_cast<double>(ZebByteUnits::s_BytesPerMB);

// The clock is not worth more than three decimals.
double rounded(double value)
{
    return std::round(value * 1000) / 1000;
}

std::string decimal(double value, int places)
{
    return QString::number(value, 'f', places).toStdString();
}

} // namespace

void SummaryText::addCount(const QString& key, const std::string& name, qint64 number,
                           const std::string& remark)
{
    m_Lines.push_back({name, SizeText::grouped(number), remark});
    m_Object[key] = number;
}

void SummaryText::addBytes(const QString& key, const std::string& name, qint64 bytes)
{
    addCount(key, name, bytes, "(" + SizeText::print(bytes) + ")");
}

void SummaryText::addRate(const QString& suffix, const std::string& name, qint64 bytes,
                          double seconds)
{
    const double rate = seconds > 0 ? static_cast<double>(bytes) / s_BytesPerMB / seconds : 0;
    m_Lines.push_back({name, decimal(rate, 1), "in " + decimal(seconds, 2) + " s"});
    m_Object[QStringLiteral("seconds") + suffix] = rounded(seconds);
    m_Object[QStringLiteral("mb_per_s") + suffix] = rounded(rate);
}

void SummaryText::addDecimal(const QString& key, const std::string& name, double number,
                             const std::string& remark)
{
    m_Lines.push_back({name, decimal(number, 2), remark});
    m_Object[key] = rounded(number);
}

void SummaryText::addJson(const QString& key, const QJsonValue& value)
{
    m_Object[key] = value;
}

void SummaryText::addLine(const std::string& line)
{
    m_Tail += line + '\n';
}

std::string SummaryText::text() const
{
    std::size_t nameWidth = 0;
    std::size_t valueWidth = 0;
    for (const Line& line : m_Lines) {
        nameWidth = std::max(nameWidth, line.m_Name.size());
        valueWidth = std::max(valueWidth, line.m_Value.size());
    }
    std::string text;
    for (const Line& line : m_Lines) {
        text += line.m_Name + std::string(nameWidth - line.m_Name.size() + 2, ' ');
        text += std::string(valueWidth - line.m_Value.size(), ' ') + line.m_Value;
        if (!line.m_Remark.empty())
            text += "  " + line.m_Remark;
        text += '\n';
    }
    return text + m_Tail;
}

std::string SummaryText::json() const
{
    return QJsonDocument(m_Object).toJson(QJsonDocument::Compact).toStdString() + '\n';
}

int SummaryText::print(bool asJson, ErrorReport& errors) const
{
    std::cout << (asJson ? json() : text());
    errors.flushOutput();
    return errors.status();
}

double SummaryText::secondsOf(const QElapsedTimer& timer)
{
    return static_cast<double>(timer.nsecsElapsed()) / s_NanosecondsPerSecond;
}

std::string SummaryText::table(const std::vector<std::vector<std::string>>& rows)
{
    std::vector<std::size_t> widths;
    for (const std::vector<std::string>& row : rows) {
        widths.resize(std::max(widths.size(), row.size()), 0);
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    for (const std::vector<std::string>& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::string blanks(widths[i] - row[i].size(), ' ');
            text += i == 0 ? row[i] + (row.size() > 1 ? blanks : "") : "  " + blanks + row[i];
        }
        text += '\n';
    }
    return text;
}
