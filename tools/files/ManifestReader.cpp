#include "tools/files/ManifestReader.h"

#include "tools/terminal/ToolError.h"

namespace {

constexpr qint64 s_PieceBytes = 256LL * 1024;

} // namespace

ManifestReader::ManifestReader(const std::string& path)
{
    m_File.open(path);
    const std::optional<QByteArray> line = nextLine();
    if (!line)
        m_Parser.finish();
    else
        m_Parser.take(line->constData(), line->size());
}

std::optional<Manifest::File> ManifestReader::next()
{
    while (const std::optional<QByteArray> line = nextLine()) {
        std::optional<Manifest::File> file = m_Parser.take(line->constData(), line->size());
        if (file)
            return file;
    }
    m_Parser.finish();
    return std::nullopt;
}

std::optional<QByteArray> ManifestReader::nextLine()
{
    int searched = m_Taken;
    for (;;) {
        const int end = m_Buffer.indexOf('\n', searched);
        if (end >= 0) {
            const QByteArray line = m_Buffer.mid(m_Taken, end - m_Taken);
            m_Taken = end + 1;
            return line;
        }
        m_Buffer.remove(0, m_Taken);
        m_Taken = 0;
        searched = m_Buffer.size();
        if (m_Buffer.size() > ManifestText::s_MostLineBytes) {
            throw ToolError(m_Parser.lines() == 0
                                ? ManifestText::s_NoManifest
                                : "line " + std::to_string(m_Parser.lines() + 1) + " is too long");
        }
        const QByteArray piece = m_File.read(m_Offset, s_PieceBytes);
        m_Offset += piece.size();
        m_Buffer += piece;
        if (piece.isEmpty())
            break;
    }
    if (m_Buffer.isEmpty())
        return std::nullopt;
    QByteArray line;
    line.swap(m_Buffer);
    return line;
}
