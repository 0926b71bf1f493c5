#include "io/ZebWriteErrorForwarder.h"

#include "io/ZebDataBlockWriteThread_Pattern1.h"
#include "support/Manager.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"

#include <QCoreApplication>
#include <QObject>
#include <QStringList>

#include <gtest/gtest.h>

#include <memory>
#include <thread>

namespace {

constexpr int s_Max = ZebWriteErrorForwarder::s_MaxUndelivered;

// Emits this many errors of a writer on a thread of their own.
void emitErrors(ZebDataBlockWriteThread& writer, int count)
{
    std::thread([&] {
        for (int i = 0; i < count; ++i)
            Q_EMIT writer.writeError(QString::number(i));
    }).join();
}

} // namespace

TEST(ZebWriteErrorForwarder, AtMostAThousandErrorsOfAWriterWaitForTheStoresThread)
{
    ASSERT_EQ(s_Max, 1000);
    TemporaryStore::Options options;
    options.m_Roots = 2;
    TemporaryStore store(options);
    QStringList received;
    QObject receiver;
    QObject::connect(&manager(), &ZebDataBlockManager::writeError, &receiver,
                     [&](const QString& text) { received.append(text); });
    ZebDataBlockWriteThread& writer = *StoreInside::writers()[0];
    int seen = 0;
    QObject::connect(
        &writer, &ZebDataBlockWriteThread::writeError, &receiver, [&] { ++seen; },
        Qt::DirectConnection);
    emitErrors(writer, 5 * s_Max);
    EXPECT_EQ(seen, 5 * s_Max) << "a direct connection misses none";
    EXPECT_TRUE(received.isEmpty()) << "only the event loop delivers them";
    QCoreApplication::processEvents();
    ASSERT_EQ(received.size(), s_Max);
    EXPECT_EQ(received.first(), "0");
    EXPECT_EQ(received.last(), QString::number(s_Max - 1));
    // What is delivered makes room again.
    emitErrors(writer, s_Max + 1);
    QCoreApplication::processEvents();
    EXPECT_EQ(received.size(), 2 * s_Max);
    // Each writer has its own thousand.
    emitErrors(writer, s_Max);
    emitErrors(*StoreInside::writers()[1], s_Max);
    QCoreApplication::processEvents();
    EXPECT_EQ(received.size(), 4 * s_Max);
}

TEST(ZebWriteErrorForwarder, ErrorsThatWaitOutliveTheirWriter)
{
    int received = 0;
    auto receiver = std::make_unique<QObject>();
    auto writer = std::make_unique<ZebDataBlockWriteThread_Pattern1>("/nowhere", 1, nullptr);
    QObject::connect(writer.get(), &ZebDataBlockWriteThread::writeError, receiver.get(),
                     ZebWriteErrorForwarder(receiver.get(), [&](const QString&) { ++received; }),
                     Qt::DirectConnection);
    emitErrors(*writer, 3);
    writer.reset();
    QCoreApplication::processEvents();
    EXPECT_EQ(received, 3);
}

TEST(ZebWriteErrorForwarder, ErrorsThatWaitEndWithTheReceiver)
{
    int received = 0;
    auto receiver = std::make_unique<QObject>();
    const ZebWriteErrorForwarder forward(receiver.get(), [&](const QString&) { ++received; });
    std::thread([&] { forward("an error"); }).join();
    receiver.reset();
    QCoreApplication::processEvents();
    EXPECT_EQ(received, 0);
}

TEST(ZebWriteErrorForwarder, DeliversAtOnceOnTheReceiversThread)
{
    int received = 0;
    QObject receiver;
    const ZebWriteErrorForwarder forward(&receiver, [&](const QString&) { ++received; });
    for (int i = 0; i < 2 * s_Max; ++i)
        forward("an error");
    EXPECT_EQ(received, 2 * s_Max);
}
