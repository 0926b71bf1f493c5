#include "support/ZebThreadStart.h"

#include "support/ZebTdxMessage.h"

void ZebThreadStart(QThread* thread, QThread::Priority priority)
{
    thread->start(priority);
    // Read in this order: a started thread is either running or, from then on, finished.
    if (thread->isRunning() || thread->isFinished())
        return;
    ZebTdxMessage::fatal(QStringLiteral("Cannot Start Thread '%1': the system refused another "
                                        "thread, check the limits on processes and memory. "
                                        "Aborting")
                             .arg(thread->objectName()));
}
