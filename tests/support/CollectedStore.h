#pragma once

#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "io/ZebGarbageCollectorThread.h"
#include "support/BlockFiles.h"
#include "support/CollectorInside.h"
#include "support/FakeMemory.h"
#include "support/FilesBelow.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"
#include "support/WaitUntil.h"

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

/// A store with a sub-cache and the collection off. Its own collectors keep polling; a test that
/// they would disturb uses a CollectorStation.
class CollectedStore : public testing::Test
{
protected:
    explicit CollectedStore(int roots = 1) : m_Store(withRoots(roots))
    {
        manager().flushMemory(true);
        manager().setSubCache(subCache());
    }
    ~CollectedStore() override { manager().stopGarbageCollection(); }

    static TemporaryStore::Options withRoots(int roots)
    {
        TemporaryStore::Options options;
        options.m_Roots = roots;
        return options;
    }

    static ZebDataBlockManager& manager() { return StoreInside::manager(); }
    static QString subCache() { return QStringLiteral("Sub"); }

    /// Frees a block, after which every collector makes a pass.
    static void freeABlock() { manager().addBlock("freed", ZebModifyAccessor::DontCache); }

    static ZebDataReference add(int size, quint32 seed)
    {
        return manager().addBlock(testBytes(size, seed), ZebModifyAccessor::Cached, true);
    }

    static QString fileOf(const ZebDataReference& reference)
    {
        return manager().getBlockDestination(subCache(), reference.hash());
    }

    /// The name of an orphaned block file.
    static QString deadName(int number)
    {
        return ZebDataHash("dead " + QByteArray::number(number), ZebDataHash::Hash512).toString();
    }

    /// Waits until the store's own collectors have finished a pass that began after this call.
    static void waitForPass()
    {
        // The first one may have been under way.
        for (int pass = 0; pass < 2; ++pass) {
            freeABlock();
            EXPECT_TRUE(waitUntil([freed = StoreInside::blocksFreed()] {
                for (ZebGarbageCollectorThread* const collector : StoreInside::collectors()) {
                    if (CollectorInside::lastBlocksFreedCount(*collector).load() != freed)
                        return false;
                }
                return StoreInside::passesRunning() == 0;
            }));
        }
    }

    /// Waits until a collector has removed the file.
    static bool isRemoved(const QString& path)
    {
        return waitUntil([&path] {
            // A block that is freed during a pass starts no further pass, so this repeats.
            freeABlock();
            return !QFile::exists(path);
        });
    }

    /// The names of all files with the name of a block, below all roots.
    QStringList blockFileNames() const
    {
        return filesBelow(m_Store.roots(), QStringLiteral("*-*"));
    }

    /// Makes a file of 100 bytes in the first bucket of a root.
    QString write(const QString& name, int root = 0) const
    {
        const QString path =
            m_Store.roots().at(root) + "/" + subCache() + QStringLiteral("/0/") + name;
        BlockFiles::write(path, QByteArray(100, 'x'));
        return path;
    }

    FakeMemory m_Memory;
    TemporaryStore m_Store;
};
