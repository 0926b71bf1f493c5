#pragma once

// Internal: sample bytes. Not installed.

#include <QByteArray>
#include <QMutex>
#include <QtGlobal>

/// A linear congruential generator: pseudo-random bytes that are the same on every machine.
/// Distinct seeds give distinct bytes. The process's rand() is left to the host.
///
/// Thread safety: a value; sharedIndex() may be called from any thread.
class ZebByteChain
{
public:
    explicit ZebByteChain(quint32 seed) : m_State(seed) {}

    /// The next number, from 0 to 32767.
    quint32 next()
    {
        m_State = m_State * 214013U + 2531011U;
        return (m_State >> 16U) & 0x7FFFU;
    }

    /// The low eight bits of the next number.
    unsigned char nextByte() { return static_cast<unsigned char>(next() & 0xFFU); }

    /// The first `size` bytes of the chain of this seed.
    static QByteArray bytes(quint32 seed, int size);

    /// A number below `count`, from a chain that all workers share.
    static int sharedIndex(int count);

private:
    quint32 m_State;

    // Guards the shared chain. Nothing else is taken inside it.
    static QMutex m_SharedMutex;
};
