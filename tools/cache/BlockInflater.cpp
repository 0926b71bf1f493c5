#include "tools/cache/BlockInflater.h"

#include <new>

BlockInflater::BlockInflater() : m_Stream()
{
    if (::inflateInit(&m_Stream) != Z_OK)
        throw std::bad_alloc();
}

BlockInflater::~BlockInflater()
{
    ::inflateEnd(&m_Stream);
}

void BlockInflater::begin(unsigned char* out, qint64 outBytes)
{
    ::inflateReset(&m_Stream);
    m_Stream.next_out = out;
    m_Stream.avail_out = static_cast<uInt>(outBytes);
}

BlockInflater::State BlockInflater::feed(const char* bytes, qint64 size)
{
    // zlib only reads it.
    m_Stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes));
    m_Stream.avail_in = static_cast<uInt>(size);
    const int result = ::inflate(&m_Stream, Z_NO_FLUSH);
    if (result == Z_STREAM_END)
        return State::Ended;
    if (result == Z_MEM_ERROR)
        throw std::bad_alloc();
    if (result != Z_OK && result != Z_BUF_ERROR)
        return State::Broken;
    return m_Stream.avail_out == 0 ? State::Full : State::Hungry;
}

qint64 BlockInflater::produced() const
{
    return static_cast<qint64>(m_Stream.total_out);
}

std::string BlockInflater::reason() const
{
    return m_Stream.msg == nullptr ? "no zlib stream" : m_Stream.msg;
}
