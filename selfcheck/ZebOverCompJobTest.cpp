#include "selfcheck/ZebOverCompJobTest.h"

#include "manager/ZebDataBlockManager.h"

#include <QByteArray>
#include <QtConcurrent>

namespace {

constexpr int s_PixelBytes = 4;
constexpr int s_ColourBytes = 3;
constexpr double s_Half = 0.5;

QByteArray mixed(const ZebConstAccessor& a, const ZebConstAccessor& b)
{
    QByteArray bytes(static_cast<int>(a.size()), '\0');
    const unsigned char* const from = a.data();
    const unsigned char* const over = b.data();
    char* const to = bytes.data();
    const qint64 common = qMin(a.size(), b.size());
    for (qint64 pixel = 0; pixel + s_PixelBytes <= common; pixel += s_PixelBytes) {
        const qint64 last = pixel + s_ColourBytes;
        for (qint64 i = pixel; i < last; ++i)
            to[i] = static_cast<char>(static_cast<int>((from[i] + over[i]) * s_Half));
        to[last] = static_cast<char>(from[last]);
    }
    return bytes;
}

} // namespace

ZebOverCompJobTest::ZebOverCompJobTest(const ZebDataReference& a, const ZebDataReference& b)
    : m_Future(QtConcurrent::run(&ZebOverCompJobTest::work, a, b))
{}

ZebOverCompJobTest::~ZebOverCompJobTest() = default;

ZebDataReference ZebOverCompJobTest::data()
{
    return m_Future.result();
}

ZebDataReference ZebOverCompJobTest::work(const ZebDataReference& a, const ZebDataReference& b)
{
    QByteArray bytes;
    {
        const ZebConstAccessor first = a.constAccessor();
        const ZebConstAccessor second = b.constAccessor();
        if (first.isNull() || second.isNull())
            return ZebDataReference();
        bytes = mixed(first, second);
    }
    return ZebDataBlockManager::instance().addBlock(bytes, ZebModifyAccessor::Cached, false);
}
