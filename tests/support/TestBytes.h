#pragma once

#include "data/ZebDataReference.h"

#include <QByteArray>
#include <QtGlobal>

#include <array>
#include <cstring>

/// `size` bytes that depend on `seed` alone. Bytes of two seeds differ if they are 8 or more, every
/// byte depends on its position, and they compress well, so that writing stays cheap.
inline QByteArray testBytes(int size, quint32 seed)
{
    std::array<char, 64> key;
    quint64 state = (quint64(seed) + 1) * Q_UINT64_C(0x9E3779B97F4A7C15);
    std::memcpy(key.data(), &state, sizeof state);
    for (std::size_t i = sizeof state; i < key.size(); ++i) {
        state = state * Q_UINT64_C(6364136223846793005) + Q_UINT64_C(1442695040888963407);
        key[i] = static_cast<char>(state >> 56);
    }
    QByteArray bytes(size, '\0');
    char* const out = bytes.data();
    for (int i = 0; i < size; ++i)
        out[i] = static_cast<char>(key[static_cast<std::size_t>(i) % key.size()] ^ (i >> 6));
    return bytes;
}

/// Whether the block can be loaded and holds exactly testBytes(size, seed).
inline bool holdsTestBytes(const ZebDataReference& reference, int size, quint32 seed)
{
    const ZebConstAccessor accessor = reference.constAccessor();
    if (accessor.isNull() || accessor.size() != size)
        return false;
    const QByteArray expected = testBytes(size, seed);
    return std::memcmp(accessor.data(), expected.constData(), static_cast<std::size_t>(size)) == 0;
}
