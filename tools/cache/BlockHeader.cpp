#include "tools/cache/BlockHeader.h"

#include "tools/files/FileReader.h"

#include <QByteArray>
#include <QtEndian>

#include <cstring>

std::string BlockHeader::read(FileReader& reader)
{
    QByteArray bytes;
    std::string reason = reader.readBlock(0, s_Bytes, bytes);
    if (!reason.empty())
        return reason;
    if (bytes.size() < s_Bytes)
        return "is too short for a block";
    take(bytes.constData());
    return {};
}

void BlockHeader::take(const char* bytes)
{
    // In the byte order of the machine.
    std::memcpy(&m_BlockSize, bytes, sizeof m_BlockSize);
    std::memcpy(&m_PayloadSize, bytes + sizeof m_BlockSize, sizeof m_PayloadSize);
}

qint64 BlockHeader::plainSizeOf(const char* payload)
{
    return qFromBigEndian<quint32>(payload);
}
