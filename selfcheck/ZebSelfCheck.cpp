#include "selfcheck/ZebSelfCheck.h"

#include "data/ZebDataBlock.h"
#include "support/ZebTdxMessage.h"

#include <atomic>
#include <cstdarg>

namespace {

constexpr double s_MillisecondsPerSecond = 1000.0;

std::atomic<int (*)()> s_BlockCountSource{&ZebDataBlock::blockCount};

} // namespace

const char* const ZebSelfCheck::s_SubCache = "SubCache";

void ZebSelfCheck::line(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const QString text = QString::vasprintf(format, arguments);
    va_end(arguments);
    ZebTdxMessage::debug(text);
}

bool ZebSelfCheck::failure(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const QString text = QString::vasprintf(format, arguments);
    va_end(arguments);
    ZebTdxMessage::debug(text);
    return false;
}

double ZebSelfCheck::megabytes(qint64 bytes)
{
    return static_cast<double>(bytes) / static_cast<double>(ZebByteUnits::s_BytesPerMiB);
}

double ZebSelfCheck::seconds(qint64 milliseconds)
{
    return static_cast<double>(milliseconds) / s_MillisecondsPerSecond;
}

double ZebSelfCheck::perSecond(double amount, qint64 milliseconds)
{
    return amount / seconds(qMax<qint64>(1, milliseconds));
}

int ZebSelfCheck::blockCount()
{
    return s_BlockCountSource.load(std::memory_order_relaxed)();
}

void ZebSelfCheck::setBlockCountSource(int (*source)())
{
    s_BlockCountSource.store(source == nullptr ? &ZebDataBlock::blockCount : source,
                             std::memory_order_relaxed);
}
