#include "selfcheck/ZebRedBlock.h"

#include "manager/ZebDataBlockManager.h"

#include <QByteArray>
#include <QtConcurrent>

#include <cstring>

namespace {

constexpr quint32 s_OpaqueRed = 0xFFFF0000U;

} // namespace

ZebRedBlock::ZebRedBlock(const ZebDataReference& source)
    : m_Future(QtConcurrent::run(&ZebRedBlock::work, source))
{}

ZebRedBlock::~ZebRedBlock() = default;

ZebDataReference ZebRedBlock::data()
{
    return m_Future.result();
}

ZebDataReference ZebRedBlock::work(const ZebDataReference& source)
{
    QByteArray bytes;
    {
        const ZebConstAccessor accessor = source.constAccessor();
        if (accessor.isNull())
            return ZebDataReference();
        bytes = QByteArray(static_cast<int>(accessor.size()), '\0');
    }
    constexpr int pixel = sizeof s_OpaqueRed;
    for (int i = 0; i + pixel <= bytes.size(); i += pixel)
        std::memcpy(bytes.data() + i, &s_OpaqueRed, sizeof s_OpaqueRed);
    return ZebDataBlockManager::instance().addBlock(bytes, ZebModifyAccessor::Cached, false);
}
