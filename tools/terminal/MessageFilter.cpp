#include "tools/terminal/MessageFilter.h"

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <atomic>
#include <cstdio>

namespace {

std::atomic<bool> s_Verbose(false);

void handle(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    Q_UNUSED(context)
    if (type == QtDebugMsg && !s_Verbose.load())
        return;
    std::fprintf(stderr, "zebtdx: %s\n", text.toUtf8().constData());
}

} // namespace

void MessageFilter::install(bool verbose)
{
    s_Verbose.store(verbose);
    qInstallMessageHandler(&handle);
}
