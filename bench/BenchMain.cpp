#include <QCoreApplication>
#include <QMessageLogContext>
#include <QString>

#include <benchmark/benchmark.h>

namespace {

// Drops the store's debug lines, so that no benchmark measures their output.
void dropMessage(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    Q_UNUSED(type)
    Q_UNUSED(context)
    Q_UNUSED(text)
}

} // namespace

int main(int argc, char** argv)
{
    qInstallMessageHandler(&dropMessage);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    const QCoreApplication application(argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
