// What garbage collection reports to the host: the progress of a pass that it requests, and the
// size of the disk cache.

#include "manager/ZebDataBlockManager.h"

#include "support/CollectedStore.h"
#include "support/CollectorInside.h"
#include "support/StoreInside.h"
#include "support/WaitUntil.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QObject>
#include <QTranslator>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <type_traits>
#include <vector>

using testing::ElementsAre;
using testing::SizeIs;

namespace {

constexpr int s_Block = 1000;

// Keeps the sizes that are signalled to the host.
class Updates
{
public:
    Updates()
    {
        QObject::connect(
            &StoreInside::manager(), &ZebDataBlockManager::cacheSizeUpdate, &m_Receiver,
            [this](qint64 size) {
                const std::lock_guard<std::mutex> guard(m_Mutex);
                m_Sizes.push_back(size);
            },
            Qt::DirectConnection);
    }

    std::vector<qint64> sizes() const
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        return m_Sizes;
    }

    bool waitFor(qint64 size) const
    {
        return waitUntil([&] {
            const std::vector<qint64> seen = sizes();
            return !seen.empty() && seen.back() == size;
        });
    }

private:
    QObject m_Receiver;
    mutable std::mutex m_Mutex;
    std::vector<qint64> m_Sizes;
};

// A reporter that records each call as a line.
class Reporter : public ZebDataBlockManager::ProgressReporter
{
public:
    void start(const QString& title, int total) override
    {
        m_Calls.append(QStringLiteral("start %1 %2").arg(title).arg(total));
    }
    void finish() override { m_Calls.append(QStringLiteral("finish")); }
    void update(int value, const QString& text) override
    {
        m_Calls.append(QStringLiteral("update %1%2").arg(value).arg(text));
    }

    QStringList m_Calls;
};

class Translator : public QTranslator
{
public:
    QString translate(const char* context, const char* text, const char*, int) const override
    {
        if (std::strcmp(context, "ZebDataBlockManager") != 0)
            return {};
        return QStringLiteral("<") + QString::fromLatin1(text) + QStringLiteral(">");
    }
    bool isEmpty() const override { return false; }
};

qint64 fileSize(const QString& path)
{
    return QFileInfo(path).size();
}

class ZebDataBlockManagerGarbageCollectionReports : public CollectedStore
{
protected:
    using CollectedStore::CollectedStore;

    static qint64 sizeOnDisk(const std::vector<ZebDataReference>& references)
    {
        qint64 size = 0;
        for (const ZebDataReference& reference : references)
            size += fileSize(fileOf(reference));
        return size;
    }
};

class ZebDataBlockManagerGarbageCollectionReportsThreeRoots
    : public ZebDataBlockManagerGarbageCollectionReports
{
protected:
    ZebDataBlockManagerGarbageCollectionReportsThreeRoots()
        : ZebDataBlockManagerGarbageCollectionReports(3)
    {}

    // Replaces the store's collectors, which may run first and close the gates, by idle ones for
    // the length of `action`.
    template <typename Action>
    void withIdleCollectors(Action action)
    {
        auto& own = StoreInside::collectors();
        const auto before = own;
        std::vector<std::unique_ptr<ZebGarbageCollectorThread>> idle;
        own.clear();
        for (const QString& root : m_Store.roots()) {
            idle.push_back(std::make_unique<ZebGarbageCollectorThread>(root, 1, nullptr));
            own.append(idle.back().get());
        }
        action();
        own = before;
    }
};

} // namespace

// Passes for the host

TEST_F(ZebDataBlockManagerGarbageCollectionReportsThreeRoots,
       ProgressCountsOverAllRootsAndPastItsTotal)
{
    m_Store.cleanUp();
    TemporaryStore::Options options;
    manager().setup(m_Store.roots(), options.m_Memory, 1);
    manager().setSubCache(subCache());
    QStringList dead;
    for (int root = 0; root < 3; ++root)
        dead.append(write(deadName(root), root));
    manager().startGarbageCollection();
    withIdleCollectors([&dead] {
        Reporter reporter;
        manager().collectGarbage(&reporter);
        EXPECT_THAT(reporter.m_Calls,
                    ElementsAre("start Garbage Collecting 3", "update 1", "update 2", "update 3",
                                "update 4", "update 5", "update 6", "finish"));
        for (const QString& file : dead)
            EXPECT_FALSE(QFile::exists(file));

        // The gates are closed now; start and finish still come.
        reporter.m_Calls.clear();
        manager().collectGarbage(&reporter);
        EXPECT_THAT(reporter.m_Calls, ElementsAre("start Garbage Collecting 3", "finish"));
    });
}

TEST_F(ZebDataBlockManagerGarbageCollectionReportsThreeRoots,
       ProgressStartsAndFinishesEvenIfNoPassRuns)
{
    Reporter reporter;
    manager().collectGarbage(&reporter);
    EXPECT_THAT(reporter.m_Calls, ElementsAre("start Garbage Collecting 30", "finish"));
}

TEST_F(ZebDataBlockManagerGarbageCollectionReports, TheTitleIsTranslatedInTheContextOfTheStore)
{
    Translator translator;
    QCoreApplication::installTranslator(&translator);
    Reporter reporter;
    manager().collectGarbage(&reporter);
    QCoreApplication::removeTranslator(&translator);
    EXPECT_EQ(reporter.m_Calls.front(), "start <Garbage Collecting> 10");
}

TEST_F(ZebDataBlockManagerGarbageCollectionReports, ASizeFoundForTheHostIsNotReported)
{
    const ZebDataReference reference = add(s_Block, 1);
    manager().flush(true);
    auto& own = StoreInside::collectors();
    const auto before = own;
    ZebGarbageCollectorThread idle(m_Store.roots().front(), 10, nullptr);
    own = {&idle};
    const Updates updates;
    ZebDataBlockManager& store = manager();
    // The store's own collector finds nothing: its gate is closed, with a size of 0.
    store.startGarbageCollection();
    store.collectGarbage(nullptr);
    EXPECT_EQ(CollectorInside::cacheSize(idle).load(), fileSize(fileOf(reference)));
    own = before;
    EXPECT_TRUE(updates.waitFor(fileSize(fileOf(reference))));
    EXPECT_THAT(updates.sizes(), SizeIs(1)) << "reported by the store's own collector";
}

// The size

TEST_F(ZebDataBlockManagerGarbageCollectionReportsThreeRoots,
       EveryChangeOfTheSizeOfAllRootsIsSignalled)
{
    const Updates updates;
    std::vector<ZebDataReference> references;
    for (quint32 i = 0; i < 30; ++i)
        references.push_back(add(s_Block, i));
    manager().flush(true);
    manager().startGarbageCollection();
    EXPECT_TRUE(updates.waitFor(sizeOnDisk(references)));
    EXPECT_EQ(manager().currentCacheSizeInBytes(), sizeOnDisk(references));
    references.resize(10);
    waitForPass();
    EXPECT_TRUE(updates.waitFor(sizeOnDisk(references)));
    EXPECT_EQ(manager().currentCacheSizeInBytes(), sizeOnDisk(references));
}

TEST_F(ZebDataBlockManagerGarbageCollectionReports, APassThatFindsTheSameSizeSignalsNothing)
{
    const ZebDataReference reference = add(s_Block, 1);
    manager().flush(true);
    const Updates updates;
    manager().startGarbageCollection();
    EXPECT_TRUE(updates.waitFor(fileSize(fileOf(reference))));
    waitForPass();
    waitForPass();
    EXPECT_THAT(updates.sizes(), SizeIs(1));
}

TEST_F(ZebDataBlockManagerGarbageCollectionReports,
       WithTheCollectionOffTheNextFreedBlockSetsTheSizeTo0)
{
    const ZebDataReference reference = add(s_Block, 1);
    manager().flush(true);
    const Updates updates;
    manager().startGarbageCollection();
    const qint64 size = fileSize(fileOf(reference));
    EXPECT_TRUE(updates.waitFor(size));
    manager().stopGarbageCollection();
    EXPECT_EQ(manager().currentCacheSizeInBytes(), size);
    freeABlock();
    EXPECT_TRUE(updates.waitFor(0));
    EXPECT_EQ(manager().currentCacheSizeInBytes(), 0);
    EXPECT_TRUE(QFile::exists(fileOf(reference)));
}

TEST_F(ZebDataBlockManagerGarbageCollectionReports, CleaningUpEndsWithASizeOf0)
{
    const ZebDataReference reference = add(s_Block, 1);
    manager().flush(true);
    const Updates updates;
    manager().startGarbageCollection();
    EXPECT_TRUE(updates.waitFor(fileSize(fileOf(reference))));
    m_Store.cleanUp();
    EXPECT_EQ(updates.sizes().back(), 0);
    EXPECT_EQ(manager().currentCacheSizeInBytes(), 0);
}

TEST_F(ZebDataBlockManagerGarbageCollectionReports,
       AReportReplacesTheOneBeforeAndIsSignalledUnderARecursiveMutex)
{
    ZebGarbageCollectorThread one("/nowhere", 1, nullptr);
    ZebGarbageCollectorThread two("/nowhere", 1, nullptr);
    const auto record = [](ZebGarbageCollectorThread& collector, qint64 size) {
        StoreInside::recordCacheSize(&collector, size);
    };
    std::vector<qint64> asked;
    const Updates updates;
    const QObject receiver;
    QObject::connect(
        &manager(), &ZebDataBlockManager::cacheSizeUpdate, &receiver,
        [&asked] { asked.push_back(manager().currentCacheSizeInBytes()); }, Qt::DirectConnection);
    record(one, 5);
    record(two, 70);
    record(one, 6);
    EXPECT_THAT(updates.sizes(), ElementsAre(5, 75, 76));
    EXPECT_EQ(asked, updates.sizes()) << "a slot may ask";
}

// The host's interface

TEST(ZebDataBlockManagerProgressReporter, ItsVirtualFunctionsKeepTheirOrder)
{
    class Host : public ZebDataBlockManager::ProgressReporter
    {
    public:
        explicit Host(bool* ended) : m_Ended(ended) {}
        ~Host() override { *m_Ended = true; }
        void start(const QString&, int) override {}
        void finish() override {}
        void update(int, const QString&) override {}

    private:
        bool* m_Ended;
    };
    bool ended = false;
    const ZebDataBlockManager::ProgressReporter* const host = new Host(&ended);
    delete host;
    EXPECT_TRUE(ended) << "the destructor is virtual";
    EXPECT_TRUE(std::is_abstract<ZebDataBlockManager::ProgressReporter>::value);

    // A pointer to a virtual member holds its place in the table.
    const auto slotOf = [](auto member) {
        std::ptrdiff_t place = 0;
        std::memcpy(&place, &member, sizeof place);
        return place;
    };
    using Interface = ZebDataBlockManager::ProgressReporter;
    EXPECT_LT(slotOf(&Interface::start), slotOf(&Interface::finish));
    EXPECT_LT(slotOf(&Interface::finish), slotOf(&Interface::update));
}
