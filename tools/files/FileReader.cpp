#include "tools/files/FileReader.h"

#include "tools/files/FileSystem.h"
#include "tools/terminal/ToolError.h"

void FileReader::open(const std::string& path, ZebFileReader::Links links)
{
    const int error = m_Reader.open(path, links);
    if (error == ZebFileReader::s_NotRegular)
        throw ToolError(FileSystem::whyNotAFile(stamp().m_Mode));
    if (error != 0)
        throw ToolError::ofSystem(error);
}

QByteArray FileReader::read(qint64 offset, qint64 size)
{
    QByteArray bytes;
    const int error = m_Reader.readBlock(offset, size, bytes);
    if (error != 0)
        throw ToolError::ofSystem(error);
    return bytes;
}
