#pragma once

#include "io/ZebFileReader.h"

#include <QByteArray>
#include <QtGlobal>

#include <string>

/// ZebFileReader, with failures as ToolError.
class FileReader
{
public:
    /// Opens a regular file and closes the previous one.
    void open(const std::string& path, ZebFileReader::Links links = ZebFileReader::Links::Follow);

    /// The state of the file when it was opened.
    const ZebFileStamp& stamp() const { return m_Reader.stamp(); }

    /// Up to `size` bytes at `offset`, in an array that shares no memory; fewer only at the end of
    /// the file.
    QByteArray read(qint64 offset, qint64 size);

private:
    ZebFileReader m_Reader;
};
