#include "tools/cache/BlockPlace.h"

#include "tools/cache/BlockName.h"

#include <QtGlobal>

#include <array>
#include <charconv>
#include <cstddef>

namespace {

// The root follows from this many characters at the beginning of the name.
constexpr int s_RootCharacters = 4;

// They stand in the first two numbers, of ten digits at most, with a "-" behind each.
constexpr int s_WordsRead = 2;
constexpr std::size_t s_Room = s_WordsRead * 11;

} // namespace

BlockPlace BlockPlace::of(const BlockName& name, int roots, int buckets)
{
    const quint32 first = name.word(0);
    std::array<char, s_Room> text = {};
    char* const end = text.data() + text.size();
    char* next = text.data();
    for (int i = 0; i < s_WordsRead; ++i) {
        next = std::to_chars(next, end, name.word(i)).ptr;
        *next++ = '-';
    }
    int sum = 0;
    for (int i = 0; i < s_RootCharacters; ++i) {
        const char character = text[static_cast<std::size_t>(i)];
        // Kept on purpose: a "-" counts as -1, as the store has it.
        sum += character == '-' ? -1 : character - '0';
    }
    BlockPlace place;
    const int root = sum % roots;
    place.m_Root = root < 0 ? -1 : root;
    place.m_Bucket = static_cast<int>(first % static_cast<quint32>(buckets));
    return place;
}
