#include "selfcheck/ZebByteChain.h"

#include <QMutexLocker>

QMutex ZebByteChain::m_SharedMutex;

QByteArray ZebByteChain::bytes(quint32 seed, int size)
{
    ZebByteChain chain(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char& byte : bytes)
        byte = static_cast<char>(chain.nextByte());
    return bytes;
}

int ZebByteChain::sharedIndex(int count)
{
    static ZebByteChain shared(1);
    const QMutexLocker locker(&m_SharedMutex);
    return static_cast<int>(shared.next() % static_cast<quint32>(count));
}
