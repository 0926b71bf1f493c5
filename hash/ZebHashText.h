#pragma once

// Internal: the text form of a digest, in both directions. Not installed.

#include <QChar>
#include <QString>

/// The text form of a digest: its 32-bit little-endian words in decimal, joined by "-". It names
/// block files, so existing caches depend on every character of it.
///
/// Thread safety: every function uses its arguments only.
namespace ZebHashText {

constexpr int s_WordBytes = 4;
constexpr int s_MaxWordDigits = 10;

/// The text form of a block's digest, which has 64 bytes.
constexpr int s_BlockWords = 16;
constexpr int s_BlockDashes = s_BlockWords - 1;
constexpr int s_MaxBlockCharacters = s_BlockWords * s_MaxWordDigits + s_BlockDashes;

/// The word at byte `offset` of the digest. Bytes after the end of the digest count as 0.
quint32 wordAt(const unsigned char* digest, int digestBytes, int offset);

/// The whole text form.
QString toText(const unsigned char* digest, int digestBytes);

/// Writes the first `length` characters of the text form to `out`, or all of it when it is
/// shorter. Returns how many characters it wrote.
int writeLeading(const unsigned char* digest, int digestBytes, QChar* out, int length);

/// Writes the whole text form of a block's digest to `out`, which has room for
/// s_MaxBlockCharacters. Returns the end of the text.
char* writeBlockText(const unsigned char* digest, char* out);

/// Reads the words of a text, as "-" divides it; empty groups do not count. Writes the digest that
/// the first `maxWords` of them stand for to `out`, s_WordBytes for each. A word that is not a
/// number, or exceeds 32 bits, counts as 0. Returns how many words the text has. Allocates nothing
/// for a text of plain numbers.
int readDigest(const QString& text, unsigned char* out, int maxWords);

/// Whether a file of this name may be a block file: the name has as many dashes as the text form
/// of a block's digest.
/// Kept on purpose: the dashes alone decide. The collector removes any other file with so many.
bool isBlockFileName(const QString& name);

} // namespace ZebHashText
