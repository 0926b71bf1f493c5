#include "selfcheck/ZebSharedRandom.h"

#include <QMutex>
#include <QMutexLocker>

#include <cstdlib>

int ZebSharedRandom::value()
{
    // Nothing else is taken inside it.
    static QMutex mutex;
    const QMutexLocker locker(&mutex);
    return std::rand();
}

int ZebSharedRandom::below(int count)
{
    return value() % count;
}
