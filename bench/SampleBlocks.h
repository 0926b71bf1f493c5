#pragma once

#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"

#include <QByteArray>

#include <cstddef>
#include <cstring>
#include <iterator>
#include <random>
#include <vector>

/// The bytes and the hashes that the benchmarks use. Equal seeds give equal results.
namespace SampleBlocks {

using Hashes = std::vector<ZebSmartPointer<ZebDataHash>>;

/// Bytes that compress as prose does.
inline QByteArray text(std::mt19937* random, int size)
{
    static const char* const words[] = {"block", "writes", "the",  "reader", "of",    "a",
                                        "cache", "which",  "disk", "hash",   "holds", "every"};
    constexpr unsigned wordsPerLine = 12;
    QByteArray bytes;
    while (bytes.size() < size) {
        bytes += words[(*random)() % std::size(words)];
        bytes += (*random)() % wordsPerLine == 0
                     ? "\n" + QByteArray::number(static_cast<quint32>((*random)()))
                     : QByteArray(" ");
    }
    bytes.truncate(size);
    return bytes;
}

/// Random bytes; `mask` limits the values. With the full mask they do not compress.
inline QByteArray noise(std::mt19937* random, int size, unsigned mask = 0xFFU)
{
    QByteArray bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>((*random)() & mask);
    return bytes;
}

/// Makes the bytes differ from those with any other number. They need at least 8.
inline void stamp(QByteArray* bytes, quint64 number)
{
    std::memcpy(bytes->data(), &number, sizeof number);
}

/// Random digests as interned hashes, for blocks whose digests are not computed and not measured.
inline Hashes hashes(unsigned seed, int count)
{
    std::mt19937 random(seed);
    Hashes hashes;
    hashes.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        QByteArray digest = noise(&random, ZebDataHash::Hash512);
        hashes.push_back(ZebHashManager::instance().addHash(new ZebDataHash(
            ZebDataHash::Hash512, reinterpret_cast<unsigned char*>(digest.data()))));
    }
    return hashes;
}

} // namespace SampleBlocks
