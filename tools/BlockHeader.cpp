#include "tools/BlockHeader.h"

#include "tools/FileReader.h"

#include <QByteArray>

#include <cstring>

std::string BlockHeader::read(FileReader& reader)
{
    QByteArray bytes;
    std::string reason = reader.readBlock(0, s_Bytes, bytes);
    if (!reason.empty())
        return reason;
    if (bytes.size() < s_Bytes)
        return "is too short for a block";
    // In the byte order of the machine.
    std::memcpy(&m_BlockSize, bytes.constData(), sizeof m_BlockSize);
    std::memcpy(&m_PayloadSize, bytes.constData() + sizeof m_BlockSize, sizeof m_PayloadSize);
    return {};
}
