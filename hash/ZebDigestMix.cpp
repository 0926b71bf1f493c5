#include "hash/ZebDigestMix.h"

#include <QRandomGenerator>

#include <algorithm>
#include <cstring>

ZebDigestMix::ZebDigestMix()
{
    QRandomGenerator* const random = QRandomGenerator::system();
    for (quint64& factor : m_Factors)
        factor = random->generate64();
    m_Spread = random->generate64() | 1U;
}

quint64 ZebDigestMix::operator()(const ZebDigestView& digest) const
{
    // A digest is a vector of 32-bit words w. In the sum of w[i] * factor[i], modulo 2^64, two
    // different vectors are equal with a chance of at most 2^-33 over the choice of the factors.
    const int length = std::min(digest.m_Length, s_MaxBytes);
    const int words = length / s_WordBytes;
    quint64 sum = static_cast<quint64>(length) * m_Factors.back();
    for (int i = 0; i < words; ++i) {
        quint32 word;
        std::memcpy(&word, digest.m_Bytes + i * s_WordBytes, s_WordBytes);
        sum += word * m_Factors[static_cast<std::size_t>(i)];
    }
    if (const int rest = length % s_WordBytes; rest != 0) {
        quint32 word = 0;
        std::memcpy(&word, digest.m_Bytes + words * s_WordBytes, static_cast<std::size_t>(rest));
        sum += word * m_Factors[static_cast<std::size_t>(words)];
    }
    // Each step can be undone, so it adds no collision. Numbers in arithmetic progression, which
    // are sums of similar digests, do not stay one.
    sum = (sum ^ (sum >> 32)) * m_Spread;
    sum = (sum ^ (sum >> 29)) * m_Spread;
    return sum ^ (sum >> 32);
}
