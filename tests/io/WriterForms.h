#pragma once

#include "support/BlockInside.h"
#include "support/StoreInside.h"
#include "support/WriterStation.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

// The forms of writer that the conformance suites test. Each form is a station that starts without
// arguments. The constants say what a form counts differently, and how often its races are run.

/// The writer that compresses on its own thread.
class OneThreadForm : public WriterStation
{
public:
    using Writer = ZebDataBlockWriteThread_Pattern1;

    static constexpr const char* s_ClassName = "ZebDataBlockWriteThread_Pattern1";

    /// Whether requestsHandled() includes blocks whose file was found.
    static constexpr bool s_CountsFoundFiles = true;

    /// Whether a block is in progress until its request is deleted.
    static constexpr bool s_InProgressToTheEnd = true;

    static constexpr int s_FlushRounds = 15;
    static constexpr int s_DrainRounds = 3000;
    static constexpr int s_DrainRoundsPerFile = 100;

    static std::string name() { return "OneThread"; }

    static std::unique_ptr<Writer> makeWriter(const QString& root, int buckets)
    {
        return std::make_unique<Writer>(root, buckets, nullptr);
    }
};

/// The writer with workers.
template <int Workers>
class WorkersForm : public Pattern2Station
{
public:
    using Writer = ZebDataBlockWriteThread_Pattern2;

    static constexpr const char* s_ClassName = "ZebDataBlockWriteThread_Pattern2";
    static constexpr bool s_CountsFoundFiles = false;
    static constexpr bool s_InProgressToTheEnd = false;
    static constexpr int s_FlushRounds = 60;
    static constexpr int s_DrainRounds = 80;
    static constexpr int s_DrainRoundsPerFile = 2;

    WorkersForm() : Pattern2Station(Workers) {}

    static std::string name() { return std::to_string(Workers) + "Workers"; }

    static std::unique_ptr<Writer> makeWriter(const QString& root, int buckets)
    {
        return std::make_unique<Writer>(root, buckets, Workers, nullptr);
    }
};

using WriterForms = ::testing::Types<OneThreadForm, WorkersForm<1>, WorkersForm<2>>;

/// The forms that write in the order of their list.
using OrderedWriterForms = ::testing::Types<OneThreadForm, WorkersForm<1>>;

/// How a conformance suite names its forms.
struct WriterFormNames
{
    template <typename Form>
    static std::string GetName(int)
    {
        return Form::name();
    }
};

/// The number of payload bytes in the file of the block of this name.
inline qint64 payloadBytes(const std::string& name)
{
    return qCompress(QByteArray::fromStdString(name), 2).size();
}

/// The message of a write that fails since a file is in the place of its directory.
template <typename Station>
QString cannotOpen(Station& station, const std::string& name)
{
    return "Cannot Open File " + station.file(name) + " : '" + qt_error_string(ENOTDIR) + "'";
}

/// Makes the block of this name one whose stored bytes are an empty payload.
template <typename Station>
void emptyPayload(Station& station, const std::string& name)
{
    BlockInside::storedBytes(station.block(name)) = QByteArray("");
    BlockInside::compressed(station.block(name)) = true;
}
