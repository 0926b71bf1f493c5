#include "tools/cache/BlockName.h"

#include "hash/ZebDataHash.h"
#include "tools/terminal/PlainNumber.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace {

constexpr int s_BytesOfAWord = 4;
constexpr int s_BitsOfAByte = 8;

} // namespace

std::optional<BlockName> BlockName::parse(const std::string& text)
{
    BlockName name;
    const char* begin = text.data();
    const char* const end = begin + text.size();
    for (int word = 0; word < s_Words; ++word) {
        const char* const stop = std::find(begin, end, '-');
        const std::optional<quint32> number = plainNumber<quint32>(begin, stop);
        if (!number || (stop == end) != (word == s_Words - 1))
            return std::nullopt;
        for (int byte = 0; byte < s_BytesOfAWord; ++byte) {
            name.m_Digest[static_cast<std::size_t>(word * s_BytesOfAWord + byte)] =
                static_cast<unsigned char>(*number >> (byte * s_BitsOfAByte));
        }
        begin = stop + 1;
    }
    return name;
}

quint32 BlockName::word(int index) const
{
    quint32 number = 0;
    for (int byte = s_BytesOfAWord - 1; byte >= 0; --byte) {
        number = (number << s_BitsOfAByte) |
                 m_Digest[static_cast<std::size_t>(index * s_BytesOfAWord + byte)];
    }
    return number;
}

std::string BlockName::text() const
{
    std::string text;
    appendTo(text);
    return text;
}

void BlockName::appendTo(std::string& text) const
{
    std::array<char, s_MostCharacters> characters = {};
    char* const end = characters.data() + characters.size();
    char* next = characters.data();
    for (int i = 0; i < s_Words; ++i) {
        if (i > 0)
            *next++ = '-';
        next = std::to_chars(next, end, word(i)).ptr;
    }
    text.append(characters.data(), next);
}

bool BlockName::isOf(const unsigned char* digest) const
{
    return std::memcmp(digest, m_Digest.data(), m_Digest.size()) == 0;
}

bool BlockName::isDigestOf(const unsigned char* bytes, qint64 size) const
{
    return isOf(ZebDataHash(bytes, size, ZebDataHash::Hash512).data());
}
