#include "support/ZebCompression.h"

#include <QtEndian>

#include <algorithm>

#include <zlib.h>

namespace {

constexpr int s_LengthBytes = 4;

// A zlib stream that ends with its scope.
class Deflater
{
public:
    explicit Deflater(int level) : m_Stream(), m_IsReady(::deflateInit(&m_Stream, level) == Z_OK) {}
    ~Deflater()
    {
        if (m_IsReady)
            ::deflateEnd(&m_Stream);
    }
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;

    // False when zlib could not allocate.
    bool isReady() const { return m_IsReady; }

    z_stream& stream() { return m_Stream; }

private:
    z_stream m_Stream;
    bool m_IsReady;
};

} // namespace

ZebCompression::Result ZebCompression::compress(const QByteArray& plain, int level,
                                                QByteArray* payload)
{
    if (plain.size() > s_MaxQtBytes)
        return compressDirectly(plain, level, s_MaxPayloadBytes, payload);
    *payload = qCompress(plain, level);
    return payload->isEmpty() ? Result::OutOfMemory : Result::Made;
}

ZebCompression::Result ZebCompression::compressDirectly(const QByteArray& plain, int level,
                                                        qint64 maxBytes, QByteArray* payload)
{
    // qCompress() takes any other level for the default, too.
    Deflater deflater(level < -1 || level > Z_BEST_COMPRESSION ? -1 : level);
    if (!deflater.isReady()) {
        payload->clear();
        return Result::OutOfMemory;
    }
    z_stream& stream = deflater.stream();
    const qint64 bound = static_cast<qint64>(
        ::deflateBound(&stream, static_cast<uLong>(static_cast<unsigned>(plain.size()))));
    // One buffer, of which the system provides only what is written.
    QByteArray made(static_cast<int>(std::min(s_LengthBytes + bound, maxBytes)), Qt::Uninitialized);
    qToBigEndian<quint32>(static_cast<quint32>(plain.size()), made.data());
    // zlib only reads it.
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(plain.constData()));
    stream.avail_in = static_cast<uInt>(plain.size());
    stream.next_out = reinterpret_cast<Bytef*>(made.data() + s_LengthBytes);
    stream.avail_out = static_cast<uInt>(made.size() - s_LengthBytes);
    if (::deflate(&stream, Z_FINISH) != Z_STREAM_END) {
        payload->clear();
        return Result::TooLarge;
    }
    made.resize(s_LengthBytes + static_cast<int>(stream.total_out));
    made.squeeze();
    payload->swap(made);
    return Result::Made;
}
