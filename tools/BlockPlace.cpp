#include "tools/BlockPlace.h"

#include "tools/BlockName.h"

#include <QtGlobal>

#include <string>

namespace {

// The root follows from this many characters at the beginning of the name.
constexpr int s_RootCharacters = 4;

} // namespace

BlockPlace BlockPlace::of(const BlockName& name, int roots, int buckets)
{
    const quint32 first = name.word(0);
    // The characters may reach into the next number, but never into the third.
    const std::string text = std::to_string(first) + "-" + std::to_string(name.word(1)) + "-" +
                             std::to_string(name.word(2));
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
