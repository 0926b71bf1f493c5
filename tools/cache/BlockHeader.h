#pragma once

#include <QtGlobal>

#include <string>

class FileReader;

/// The twelve bytes that a block file begins with.
struct BlockHeader
{
    static constexpr qint64 s_Bytes = 12;

    /// The size of the plain block in bytes.
    qint64 m_BlockSize = 0;
    /// How many bytes follow.
    qint32 m_PayloadSize = 0;

    /// Takes them from so many bytes.
    void take(const char* bytes);

    /// The size of the plain block, which the payload begins with once more, in four bytes.
    static qint64 plainSizeOf(const char* payload);

    /// Reads the header of the file that is open. Gives the reason when there is none.
    [[nodiscard]] std::string read(FileReader& reader);
};
