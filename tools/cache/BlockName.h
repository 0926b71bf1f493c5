#pragma once

#include <QtGlobal>

#include <array>
#include <optional>
#include <string>

/// The name of a block file: the digest of its bytes, as 16 numbers joined by "-".
///
/// It is kept as the 64 bytes of the digest, which is less than half of the text, so that a list of
/// very many files fits into memory.
class BlockName
{
public:
    static constexpr int s_Words = 16;
    static constexpr int s_Bytes = 4 * s_Words;
    /// The longest text of a name.
    static constexpr int s_MostCharacters = 10 * s_Words + s_Words - 1;

    /// Nothing when the text is not the text form of a hash as blocks have it.
    static std::optional<BlockName> parse(const std::string& text);

    std::string text() const;
    void appendTo(std::string& text) const;

    /// The numbers of the text, the first one with index 0.
    quint32 word(int index) const;

    /// Whether this is the text of that digest of s_Bytes bytes.
    bool isOf(const unsigned char* digest) const;

    /// Whether this is the name of these bytes.
    bool isDigestOf(const unsigned char* bytes, qint64 size) const;

private:
    std::array<unsigned char, s_Bytes> m_Digest = {};
};
