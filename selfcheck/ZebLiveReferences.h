#pragma once

// Internal: the workers of the threaded checks. Not installed.

#include "data/ZebDataReference.h"

#include <QFuture>
#include <QHash>
#include <QList>
#include <QMutex>
#include <QWaitCondition>

#include <atomic>

/// The map of live references that several workers share, and the workers: each is a pool task that
/// takes 256 steps over blocks of 256 KiB. Step s fills a block with the byte s modulo 255, so that
/// there are 255 distinct blocks.
///
/// A worker takes the map's mutex only to pick, insert or remove an entry. It resolves its
/// reference before that, so that it waits for no job with the mutex held, and it uses its own copy
/// without the mutex, so that the store works in parallel.
///
/// A step on an empty map waits for an entry while expectCreators() has announced creators. Without
/// the wait, the other workers would spend all their steps before the first block is added.
///
/// Thread safety: any thread may call everything; one map for the process, as one check runs at a
/// time.
class ZebLiveReferences
{
public:
    /// Adds a block for each step, and puts its reference into the map.
    static void create();

    /// Makes the steps of the other workers wait for entries until this many more creators of
    /// startCreator() have ended.
    static void expectCreators(int count);

    /// Runs create() in Qt's global pool. Call expectCreators() before.
    static QFuture<void> startCreator();

    /// Reads a block of a random reference for each step.
    static void read();

    /// Fills a copy of a block for each step, and puts the reference of the result into the map.
    static void modify();

    /// Takes a random reference out of the map for each step, but not the last one. Returns how
    /// many it has taken.
    static int remove();

    /// Runs two creators, two readers, a modifier and a remover in Qt's global pool, and waits for
    /// them and for the writes of their blocks. All 255 blocks are live afterwards. Returns how
    /// many references the remover has taken: at least 254.
    static int runAll();

    /// Drops all references, with the delete lock held, so that no collection pass begins
    /// half-way through.
    static void clear();

    static int count();

    /// Copies of all references.
    static QList<ZebDataReference> snapshot();

    /// The bytes that creators and modifiers have written, and readers have read, since
    /// resetCounters(). For reports only.
    static qint64 bytesProcessed();
    static qint64 bytesSummed();
    static void resetCounters();

private:
    // Resolves the reference first, and inserts it.
    static void insert(const ZebDataReference& reference);

    // Whether the map has this many entries; waits for them while creators are expected. With the
    // mutex held, which is released during the wait.
    static bool hasEntries(int count);

    // A creator of startCreator() has ended.
    static void endCreator();

    // The reference at a random place, or at `place` modulo the size; null when there is none.
    static ZebDataReference pick();
    static ZebDataReference pickAt(int place);

    // Removes a random reference from the map and returns it; null when there are less than two.
    static ZebDataReference take();

    // With the mutex held, and an entry at this place.
    static ZebDataReference entryAt(int place);

    // Guards the map and the number of creators. Inside it, the mutex of a hash is taken, to count
    // a holder, and the pool's, to give up its thread.
    static QMutex m_Mutex;
    static QHash<ZebDataReference, bool> m_References;
    static int m_Creators;

    // The map has a new entry, or a creator has ended.
    static QWaitCondition m_Changed;

    static std::atomic<qint64> m_BytesProcessed;
    static std::atomic<qint64> m_BytesSummed;
    static int m_Iterations;
};
