#pragma once

#include "io/ZebDataBlockWriteRequest.h"
#include "support/PrivateAccess.h"

#include <QByteArray>
#include <QFile>

ZEBTDX_ACCESS(RequestInsidePayload, ZebDataBlockWriteRequest,
              QByteArray ZebDataBlockWriteRequest::*, m_CompressedData)
ZEBTDX_ACCESS(RequestInsideFile, ZebDataBlockWriteRequest, QFile ZebDataBlockWriteRequest::*,
              m_File)

/// The private members of ZebDataBlockWriteRequest.
namespace RequestInside {

inline QByteArray& payload(ZebDataBlockWriteRequest& object)
{
    return object.*privateMember(RequestInsidePayload());
}

inline QFile& file(ZebDataBlockWriteRequest& object)
{
    return object.*privateMember(RequestInsideFile());
}

} // namespace RequestInside
