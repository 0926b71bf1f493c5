#include "support/ZebDecompression.h"

#include "support/ZebBlockInflater.h"

#include <QtEndian>

#include <algorithm>
#include <array>
#include <limits>
#include <new>

namespace {

constexpr int s_LengthBytes = 4;

// From this size on qUncompress() refuses to make a QByteArray.
constexpr qint64 s_QtLimit = std::numeric_limits<int>::max() - qint64(sizeof(QArrayData));

const char* streamOf(const QByteArray& payload)
{
    return payload.constData() + s_LengthBytes;
}

qint64 streamBytes(const QByteArray& payload)
{
    return payload.size() - s_LengthBytes;
}

// Decompresses the stream if it has exactly as many bytes as stated.
bool decompressExactly(const QByteArray& payload, qint64 stated, QByteArray* plain)
{
    QByteArray made(static_cast<int>(stated), Qt::Uninitialized);
    ZebBlockInflater inflater;
    inflater.begin(reinterpret_cast<unsigned char*>(made.data()), stated);
    const auto state = inflater.feed(streamOf(payload), streamBytes(payload));
    if (state != ZebBlockInflater::State::Ended || inflater.produced() != stated)
        return false;
    plain->swap(made);
    return true;
}

// How many bytes the stream decompresses to; -1 when it is damaged.
qint64 plainBytesOf(const QByteArray& payload)
{
    std::array<unsigned char, 65536> scratch;
    ZebBlockInflater inflater;
    inflater.begin(scratch.data(), scratch.size());
    auto state = inflater.feed(streamOf(payload), streamBytes(payload));
    while (state == ZebBlockInflater::State::Full)
        state = inflater.resume(scratch.data(), scratch.size());
    return state == ZebBlockInflater::State::Ended ? inflater.produced() : -1;
}

// Whether qUncompress() gives up a stream of `actual` bytes: it doubles its memory, which begins at
// the stated length, until the bytes fit or the limit is reached.
bool isRefusedByQt(qint64 stated, qint64 actual)
{
    qint64 room = std::max<qint64>(stated, 1);
    while (room < actual)
        room *= 2;
    return room >= s_QtLimit;
}

// The payload with another length in front, by which qUncompress() allocates.
QByteArray withLength(const QByteArray& payload, qint64 length)
{
    QByteArray changed = payload;
    qToBigEndian<quint32>(static_cast<quint32>(length), changed.data());
    return changed;
}

// What qUncompress() makes of a payload that does not have the stated length.
QByteArray decompressByQt(const QByteArray& payload, qint64 stated, qint64 bound)
{
    const qint64 actual = plainBytesOf(payload);
    if (actual < 0)
        return qUncompress(stated <= bound ? payload : withLength(payload, bound));
    if (isRefusedByQt(stated, actual))
        return qUncompress(payload);
    QByteArray plain = qUncompress(withLength(payload, actual));
    // The stream is sound, so only memory can have been missing.
    if (plain.size() != actual)
        throw std::bad_alloc();
    return plain;
}

} // namespace

QByteArray ZebDecompression::decompress(const QByteArray& payload)
{
    if (payload.size() <= s_LengthBytes)
        return qUncompress(payload);
    const qint64 stated = qFromBigEndian<quint32>(payload.constData());
    // Refused before any memory is taken.
    if (stated >= s_QtLimit)
        return qUncompress(payload);
    const qint64 bound = s_MaxExpansion * payload.size();
    QByteArray plain;
    if (stated <= bound && decompressExactly(payload, stated, &plain))
        return plain;
    return decompressByQt(payload, stated, bound);
}
