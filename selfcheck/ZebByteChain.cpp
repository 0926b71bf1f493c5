#include "selfcheck/ZebByteChain.h"

QByteArray ZebByteChain::bytes(quint32 seed, int size)
{
    ZebByteChain chain(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char& byte : bytes)
        byte = static_cast<char>(chain.nextByte());
    return bytes;
}
