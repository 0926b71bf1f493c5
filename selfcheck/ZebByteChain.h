#pragma once

// Internal: sample bytes. Not installed.

#include <QByteArray>
#include <QtGlobal>

/// A linear congruential generator of which each value seeds the next: bytes that are the same on
/// every machine, whatever the host does with rand(). The seeds below 11000 give distinct bytes.
/// The values soon repeat with a period of at most 135, so the bytes compress well.
///
/// Thread safety: a value.
class ZebByteChain
{
public:
    explicit ZebByteChain(quint32 seed) : m_Value(seed) {}

    /// The next value, from 0 to 32767.
    quint32 next()
    {
        m_Value = ((m_Value * 214013U + 2531011U) >> 16U) & 0x7FFFU;
        return m_Value;
    }

    /// The low eight bits of the next value.
    unsigned char nextByte() { return static_cast<unsigned char>(next() & 0xFFU); }

    /// The first `size` bytes of the chain of this seed.
    static QByteArray bytes(quint32 seed, int size);

private:
    quint32 m_Value;
};
