#include "hash/ZebBlockName.h"

#include "hash/ZebDataHash.h"
#include "support/ZebPlainNumber.h"

#include <QtEndian>

#include <algorithm>
#include <cstring>

std::optional<ZebBlockName> ZebBlockName::parse(const std::string& text)
{
    ZebBlockName name;
    const char* begin = text.data();
    const char* const end = begin + text.size();
    for (int word = 0; word < ZebHashText::s_BlockWords; ++word) {
        const char* const stop = std::find(begin, end, '-');
        const std::optional<quint32> number = ZebPlainNumber<quint32>(begin, stop);
        if (!number || (stop == end) != (word == ZebHashText::s_BlockWords - 1))
            return std::nullopt;
        qToLittleEndian<quint32>(*number, name.m_Digest.data() + word * ZebHashText::s_WordBytes);
        begin = stop + 1;
    }
    return name;
}

quint32 ZebBlockName::word(int index) const
{
    return ZebHashText::wordAt(m_Digest.data(), s_Bytes, index * ZebHashText::s_WordBytes);
}

std::string ZebBlockName::text() const
{
    std::string text;
    appendTo(text);
    return text;
}

void ZebBlockName::appendTo(std::string& text) const
{
    std::array<char, ZebHashText::s_MaxBlockCharacters> characters;
    text.append(characters.data(), ZebHashText::writeBlockText(m_Digest.data(), characters.data()));
}

bool ZebBlockName::isOf(const unsigned char* digest) const
{
    return std::memcmp(digest, m_Digest.data(), m_Digest.size()) == 0;
}

bool ZebBlockName::isDigestOf(const unsigned char* bytes, qint64 size) const
{
    return isOf(ZebDataHash(bytes, size, ZebDataHash::Hash512).data());
}
