#pragma once

// Internal: the name of a block file as a value. Not installed.

#include "hash/ZebHashText.h"

#include <QtGlobal>

#include <array>
#include <optional>
#include <string>

/// The name of a block file: the digest of the block's bytes, whose text form is the file's name.
///
/// Keeps the 64 bytes of the digest, which take less than half of the text, so that a list of very
/// many files fits into memory.
class ZebBlockName
{
public:
    static constexpr int s_Bytes = ZebHashText::s_BlockWords * ZebHashText::s_WordBytes;

    /// Empty when the text is not exactly the text form of a block's digest, as the store writes
    /// it. Stricter than ZebDataHash::fromString(), which accepts what a host may have typed.
    static std::optional<ZebBlockName> parse(const std::string& text);

    std::string text() const;
    void appendTo(std::string& text) const;

    /// The numbers of the text, the first one with index 0.
    quint32 word(int index) const;

    /// The digest, of s_Bytes bytes.
    const unsigned char* digest() const { return m_Digest.data(); }

    /// Whether this is the name for that digest of s_Bytes bytes.
    bool isOf(const unsigned char* digest) const;

    /// Whether this is the name for these bytes. Digests them.
    bool isDigestOf(const unsigned char* bytes, qint64 size) const;

private:
    std::array<unsigned char, s_Bytes> m_Digest = {};
};
