#pragma once

// Internal: the lane form of Skein-512, for vectors of any width. Not installed.

#include "hash/SkeinCipher512.h"
#include "hash/SkeinLaneForm.h"

#include <cstddef>
#include <cstring>
#include <utility>

// Vectors as a language extension, shuffles by index included. Without them there are no lanes.
#if defined(__has_builtin)
#if __has_builtin(__builtin_shufflevector)
#define ZEB_SKEIN_HAS_VECTORS 1
#endif
#endif

#ifdef ZEB_SKEIN_HAS_VECTORS

namespace ZebSkein {

typedef Word WordsOf4 __attribute__((vector_size(32)));
typedef Word WordsOf8 __attribute__((vector_size(64)));

template <typename Vector>
constexpr std::size_t s_LanesOf = sizeof(Vector) / sizeof(Word);

// One step of a transposition: exchanges, for a square of two rows, the words that lie `Distance`
// off the diagonal.
template <std::size_t Distance, typename Vector, std::size_t... Index>
ZEB_SKEIN_INLINE void exchange(Vector& upper, Vector& lower, std::index_sequence<Index...>)
{
    constexpr std::size_t other = sizeof...(Index);
    const Vector newUpper = __builtin_shufflevector(
        upper, lower, ((Index & Distance) != 0 ? other + (Index ^ Distance) : Index)...);
    lower = __builtin_shufflevector(
        upper, lower, ((Index & Distance) != 0 ? other + Index : (Index ^ Distance))...);
    upper = newUpper;
}

template <std::size_t Distance, std::size_t Row, typename Vector>
ZEB_SKEIN_INLINE void exchangeRow(Vector* rows)
{
    if constexpr ((Row & Distance) == 0) {
        exchange<Distance>(rows[Row], rows[Row | Distance],
                           std::make_index_sequence<s_LanesOf<Vector>>());
    }
}

template <std::size_t Distance, typename Vector, std::size_t... Row>
ZEB_SKEIN_INLINE void exchangeRows(Vector* rows, std::index_sequence<Row...>)
{
    (exchangeRow<Distance, Row>(rows), ...);
}

// Turns a square of words: row i becomes column i.
template <typename Vector>
ZEB_SKEIN_INLINE void transpose(Vector* rows)
{
    constexpr auto indices = std::make_index_sequence<s_LanesOf<Vector>>();
    exchangeRows<1>(rows, indices);
    exchangeRows<2>(rows, indices);
    if constexpr (s_LanesOf < Vector >> 4)
        exchangeRows<4>(rows, indices);
}

template <typename Vector, std::size_t... Lane>
ZEB_SKEIN_INLINE void loadRows(Vector* rows, const unsigned char* const* data, std::size_t offset,
                               std::index_sequence<Lane...>)
{
    (std::memcpy(&rows[Lane], data[Lane] + offset, sizeof(Vector)), ...);
}

// Loads the next block of every lane, word by word: each vector holds one word of every message.
template <typename Vector, std::size_t... Square>
ZEB_SKEIN_INLINE void loadBlocks(Values<Vector, 8>& block, const unsigned char* const* data,
                                 std::index_sequence<Square...>)
{
    constexpr std::size_t lanes = s_LanesOf<Vector>;
    constexpr auto indices = std::make_index_sequence<lanes>();
    (loadRows(block.at + Square * lanes, data, Square * sizeof(Vector), indices), ...);
    (transpose(block.at + Square * lanes), ...);
}

template <typename Vector, std::size_t... Index>
ZEB_SKEIN_INLINE void loadChain(Vector* words, const SkeinLaneSet& set,
                                std::index_sequence<Index...>)
{
    (std::memcpy(&words[Index], set.chain[Index], sizeof(Vector)), ...);
}

template <typename Vector, std::size_t... Index>
ZEB_SKEIN_INLINE void storeChain(const Vector* words, SkeinLaneSet& set,
                                 std::index_sequence<Index...>)
{
    (std::memcpy(set.chain[Index], &words[Index], sizeof(Vector)), ...);
}

/// SkeinLaneForm::absorb, for as many lanes as a Vector has words.
///
/// To be called from a function whose target attribute says which instructions there are: all of
/// this becomes part of that function.
template <typename Vector>
struct SkeinLaneKernel
{
    static ZEB_SKEIN_INLINE void absorb(SkeinLaneSet& set, std::size_t blockCount)
    {
        constexpr std::size_t lanes = s_LanesOf<Vector>;
        constexpr auto indices = std::make_index_sequence<SkeinLaneSet::s_Words>();
        SkeinCipher512<Vector> cipher;
        loadChain(cipher.key.at, set, indices);
        Vector position;
        Vector flags;
        Vector bytesPerBlock;
        std::memcpy(&position, set.position, sizeof(Vector));
        std::memcpy(&flags, set.flags, sizeof(Vector));
        std::memcpy(&bytesPerBlock, set.bytesPerBlock, sizeof(Vector));
        const unsigned char* data[lanes];
        std::memcpy(data, set.data, sizeof(data));
        for (; blockCount > 0; --blockCount) {
            Values<Vector, SkeinLaneSet::s_Words> block;
            loadBlocks(block, data, std::make_index_sequence<SkeinLaneSet::s_Words / lanes>());
            position += bytesPerBlock;
            ZebSkein::absorb(cipher, position, flags, block);
            flags &= ~s_FlagFirst;
            for (const unsigned char*& next : data)
                next += sizeof(Word) * SkeinLaneSet::s_Words;
        }
        storeChain(cipher.key.at, set, indices);
    }
};

} // namespace ZebSkein

#endif
