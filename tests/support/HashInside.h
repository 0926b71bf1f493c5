#pragma once

#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"
#include "support/PrivateAccess.h"
#include "support/ZebTdxMutex.h"

#include <QByteArray>
#include <QChar>

using HashInsidePointer = ZebSmartPointer<ZebDataHash>;

ZEBTDX_ACCESS(HashInsideSizeField, ZebDataHash, ZebDataHash::Size ZebDataHash::*, m_Size)
ZEBTDX_ACCESS(HashInsideDigest, ZebDataHash, QByteArray ZebDataHash::*, m_Data)
ZEBTDX_ACCESS(HashInsideMutex, ZebDataHash, ZebTdxMutex ZebDataHash::*, m_Mutex)
ZEBTDX_ACCESS(HashInsideStamp, ZebDataHash, std::atomic<quint64> ZebDataHash::*, m_Stamp)
ZEBTDX_ACCESS(HashInsideCalculate, ZebDataHash, void (ZebDataHash::*)(const unsigned char*, qint64),
              calculate)
ZEBTDX_ACCESS(HashInsideIncRef, ZebDataHash, void (ZebDataHash::*)(void*), incRef)
ZEBTDX_ACCESS(HashInsideDecRef, ZebDataHash, void (ZebDataHash::*)(void*), decRef)
ZEBTDX_ACCESS(HashInsideSwap, ZebDataHash, void (ZebDataHash::*)(void*, void*), swap)
ZEBTDX_ACCESS(HashInsideHoldUnlessEnding, ZebDataHash, HashInsidePointer (ZebDataHash::*)(),
              holdUnlessEnding)
ZEBTDX_ACCESS(HashInsideLeadingText, ZebDataHash, int (ZebDataHash::*)(QChar*, int) const,
              leadingText)

/// The private members of ZebDataHash. None of the functions takes a lock of its own.
namespace HashInside {

inline ZebDataHash::Size& sizeField(ZebDataHash& object)
{
    return object.*privateMember(HashInsideSizeField());
}

inline QByteArray& digest(ZebDataHash& object)
{
    return object.*privateMember(HashInsideDigest());
}

inline const QByteArray& digest(const ZebDataHash& object)
{
    return object.*privateMember(HashInsideDigest());
}

inline ZebTdxMutex& mutex(ZebDataHash& object)
{
    return object.*privateMember(HashInsideMutex());
}

/// When the block was used, by the clock of the store.
inline quint64 stamp(const ZebDataHash& object)
{
    return (object.*privateMember(HashInsideStamp())).load();
}

inline void calculate(ZebDataHash& object, const unsigned char* bytes, qint64 length)
{
    (object.*privateMember(HashInsideCalculate()))(bytes, length);
}

inline void incRef(ZebDataHash& object, void* holder)
{
    (object.*privateMember(HashInsideIncRef()))(holder);
}

inline void decRef(ZebDataHash& object, void* holder)
{
    (object.*privateMember(HashInsideDecRef()))(holder);
}

inline void swap(ZebDataHash& object, void* from, void* to)
{
    (object.*privateMember(HashInsideSwap()))(from, to);
}

inline HashInsidePointer holdUnlessEnding(ZebDataHash& object)
{
    return (object.*privateMember(HashInsideHoldUnlessEnding()))();
}

/// Writes the first `length` characters of the text to `out`; returns how many it wrote.
inline int leadingText(const ZebDataHash& hash, QChar* out, int length)
{
    return (hash.*privateMember(HashInsideLeadingText()))(out, length);
}

} // namespace HashInside
