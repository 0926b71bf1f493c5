#include "support/ZebBlockInflater.h"

#include <new>

ZebBlockInflater::ZebBlockInflater() : m_Stream()
{
    if (::inflateInit(&m_Stream) != Z_OK)
        throw std::bad_alloc();
}

ZebBlockInflater::~ZebBlockInflater()
{
    ::inflateEnd(&m_Stream);
}

void ZebBlockInflater::begin(unsigned char* out, qint64 outBytes)
{
    ::inflateReset(&m_Stream);
    m_Stream.next_out = out;
    m_Stream.avail_out = static_cast<uInt>(outBytes);
}

ZebBlockInflater::State ZebBlockInflater::feed(const char* bytes, qint64 size)
{
    // zlib only reads it.
    m_Stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes));
    m_Stream.avail_in = static_cast<uInt>(size);
    return inflate();
}

ZebBlockInflater::State ZebBlockInflater::resume(unsigned char* out, qint64 outBytes)
{
    m_Stream.next_out = out;
    m_Stream.avail_out = static_cast<uInt>(outBytes);
    return inflate();
}

ZebBlockInflater::State ZebBlockInflater::inflate()
{
    const int result = ::inflate(&m_Stream, Z_NO_FLUSH);
    if (result == Z_STREAM_END)
        return State::Ended;
    if (result == Z_MEM_ERROR)
        throw std::bad_alloc();
    if (result != Z_OK && result != Z_BUF_ERROR)
        return State::Broken;
    return m_Stream.avail_out == 0 ? State::Full : State::Hungry;
}

qint64 ZebBlockInflater::produced() const
{
    return static_cast<qint64>(m_Stream.total_out);
}

std::string ZebBlockInflater::reason() const
{
    return m_Stream.msg == nullptr ? "not a zlib stream" : m_Stream.msg;
}
