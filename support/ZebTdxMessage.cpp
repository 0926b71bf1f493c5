#include "support/ZebTdxMessage.h"

#include <QMessageLogger>

#include <cstdlib>

void ZebTdxMessage::debug(const QString& text)
{
    QMessageLogger().debug("%s", text.toLocal8Bit().constData());
}

void ZebTdxMessage::fatal(const QString& text)
{
    QMessageLogger().fatal("%s", text.toLocal8Bit().constData());
    std::abort();
}

void ZebTdxMessage::fatalNotInitialized()
{
    fatal(QStringLiteral("Data Block Manager Not Initialized. Aborting"));
}
