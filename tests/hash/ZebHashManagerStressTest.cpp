#include "hash/ZebHashManager.h"

#include "data/ZebConstAccessor.h"
#include "data/ZebDataReference.h"
#include "manager/ZebDataBlockManager.h"
#include "support/MessageCapture.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"

#include <QList>
#include <QStringList>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <functional>
#include <random>
#include <thread>
#include <vector>

namespace {

using Pointer = ZebSmartPointer<ZebDataHash>;

// What watches every access makes it slower by so much.
#if defined(__SANITIZE_THREAD__)
constexpr int s_Scale = 20;
#elif defined(__SANITIZE_ADDRESS__)
constexpr int s_Scale = 5;
#else
constexpr int s_Scale = 1;
#endif

ZebHashManager& registry()
{
    return ZebHashManager::instance();
}

/// One of the few contents that all threads quarrel about.
struct Content
{
    explicit Content(int number)
        : m_Bytes("content " + QByteArray::number(number)),
          m_Digest(m_Bytes, ZebDataHash::Hash512),
          m_Text(m_Digest.toString())
    {}

    QByteArray m_Bytes;
    ZebDataHash m_Digest;
    QString m_Text;
};

std::vector<Content> makeContents(int count)
{
    std::vector<Content> contents;
    contents.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i)
        contents.emplace_back(i);
    return contents;
}

/// What the threads saw and did, taken together.
struct Findings
{
    // A pointer to an object that nobody holds, or that is another one by now.
    std::atomic<int> m_NotHeld{0};
    std::atomic<int> m_WrongDigest{0};
    // Two objects of one content at a time.
    std::atomic<int> m_Twins{0};
    // A content that is held and was not found.
    std::atomic<int> m_NotLive{0};

    std::atomic<qint64> m_Requests{0};
    std::atomic<qint64> m_Adds{0};
    std::atomic<qint64> m_Operations{0};
};

void check(const Pointer& pointer, const Content& content, Findings& findings)
{
    if (pointer.isNull() || pointer->refCount() < 1)
        ++findings.m_NotHeld;
    else if (*pointer != content.m_Digest)
        ++findings.m_WrongDigest;
}

/// One thread's share: it takes and drops holders of contents at random.
class Quarreller
{
public:
    Quarreller(const std::vector<Content>& contents, Findings& findings, unsigned seed)
        : m_Contents(contents), m_Findings(findings), m_Random(seed), m_Held(contents.size())
    {}

    void run(int operations)
    {
        for (int i = 0; i < operations; ++i)
            step();
        m_Findings.m_Requests += m_Requests;
        m_Findings.m_Adds += m_Adds;
        m_Findings.m_Operations += operations;
    }

private:
    unsigned below(unsigned bound) { return static_cast<unsigned>(m_Random()) % bound; }

    void step()
    {
        const size_t number = below(static_cast<unsigned>(m_Contents.size()));
        const Content& content = m_Contents[number];
        const unsigned what = below(64);
        if (what == 0) {
            takeSnapshot();
        } else if (what < 4) {
            ++m_Adds;
            take(number, registry().addHash(new ZebDataHash(content.m_Digest)));
        } else if (what < 16) {
            ++m_Requests;
            take(number, registry().getHash(content.m_Bytes));
        } else if (what < 28) {
            ++m_Requests;
            take(number, registry().getHash(content.m_Text));
        } else if (what < 34) {
            if (!registry().isHashLive(content.m_Text) && !m_Held[number].isNull())
                ++m_Findings.m_NotLive;
        } else {
            // More often than it is taken, so that a content is often held by one thread or none.
            m_Held[number] = Pointer();
        }
    }

    void take(size_t number, const Pointer& taken)
    {
        check(taken, m_Contents[number], m_Findings);
        if (!m_Held[number].isNull() && m_Held[number] != taken)
            ++m_Findings.m_Twins;
        // Half of what is got is dropped at once.
        if (below(2) == 0)
            m_Held[number] = taken;
    }

    void takeSnapshot()
    {
        QList<Pointer> all;
        registry().snapshot(all);
        if (all.size() > static_cast<int>(m_Contents.size()))
            ++m_Findings.m_Twins;
        for (const Pointer& pointer : all) {
            bool known = false;
            for (size_t i = 0; i < m_Contents.size() && !known; ++i) {
                known = *pointer == m_Contents[i].m_Digest;
                if (known && !m_Held[i].isNull() && m_Held[i] != pointer)
                    ++m_Findings.m_Twins;
            }
            if (!known)
                ++m_Findings.m_WrongDigest;
            if (pointer->refCount() < 1)
                ++m_Findings.m_NotHeld;
        }
        for (const Pointer& held : m_Held) {
            if (!held.isNull() && !all.contains(held))
                ++m_Findings.m_NotLive;
        }
    }

    const std::vector<Content>& m_Contents;
    Findings& m_Findings;
    std::minstd_rand m_Random;
    std::vector<Pointer> m_Held;
    qint64 m_Requests = 0;
    qint64 m_Adds = 0;
};

bool holdsBytes(const ZebDataReference& reference, const QByteArray& bytes)
{
    const ZebConstAccessor accessor = reference.constAccessor();
    return !accessor.isNull() && accessor.size() == bytes.size() &&
           std::memcmp(accessor.data(), bytes.constData(), static_cast<size_t>(bytes.size())) == 0;
}

// Lets all threads begin at one time.
void runTogether(int count, const std::function<void(int)>& work)
{
    std::atomic<int> waiting{count};
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&waiting, &work, i] {
            --waiting;
            while (waiting.load() > 0)
                std::this_thread::yield();
            work(i);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

qint64 statistic(const char* name)
{
    ZebHashManager& manager = registry();
    const MessageCapture messages;
    manager.dumpStats();
    for (const QString& line : messages.debugLines()) {
        if (line.startsWith(QLatin1String(name) + QLatin1Char(' ')))
            return line.section(' ', -1).toLongLong();
    }
    ADD_FAILURE() << "There is no line of " << name;
    return -1;
}

void expectNothingWrong(const Findings& findings)
{
    EXPECT_EQ(findings.m_NotHeld.load(), 0);
    EXPECT_EQ(findings.m_WrongDigest.load(), 0);
    EXPECT_EQ(findings.m_Twins.load(), 0);
    EXPECT_EQ(findings.m_NotLive.load(), 0);
    // No count was lost on the way, and every entry that came has gone.
    EXPECT_EQ(statistic("Requests"), findings.m_Requests.load());
    EXPECT_EQ(statistic("Cache Hits") + statistic("Cache Misses"),
              findings.m_Requests.load() + findings.m_Adds.load());
    EXPECT_EQ(statistic("Removes"), statistic("Cache Misses"));
    EXPECT_EQ(registry().hashCount(), 0);
}

// Threads that do nothing but take and drop one content: nearly every release may be the last.
void takeAndDrop(const Content& content, Findings& findings, int operations)
{
    for (int i = 0; i < operations; ++i) {
        const Pointer taken =
            i % 2 == 0 ? registry().getHash(content.m_Text) : registry().getHash(content.m_Bytes);
        check(taken, content, findings);
        const Pointer again = registry().addHash(new ZebDataHash(content.m_Digest));
        if (again != taken)
            ++findings.m_Twins;
        if (!registry().isHashLive(content.m_Text))
            ++findings.m_NotLive;
    }
    findings.m_Requests += operations;
    findings.m_Adds += operations;
}

} // namespace

TEST(ZebHashManagerStress, ManyThreadsQuarrelAboutFewContents)
{
    constexpr int s_Threads = 6;
    constexpr int s_Operations = 600000 / s_Scale;
    const int objects = ZebDataHash::hashCount();
    Findings findings;
    registry().clearStats();
    {
        const std::vector<Content> contents = makeContents(8);
        runTogether(s_Threads, [&](int thread) {
            Quarreller(contents, findings, static_cast<unsigned>(thread + 1)).run(s_Operations);
        });
        EXPECT_EQ(ZebDataHash::hashCount(), objects + 8);
    }
    expectNothingWrong(findings);
    EXPECT_EQ(findings.m_Operations.load(), qint64(s_Threads) * s_Operations);
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
    // The run was worth its name only when contents came and went.
    EXPECT_GT(statistic("Removes"), s_Operations / 100);
    EXPECT_GT(statistic("Cache Hits"), s_Operations / 100);
}

TEST(ZebHashManagerStress, NoLookUpFindsAHashThatIsEnding)
{
    constexpr int s_Threads = 4;
    constexpr int s_Operations = 100000 / s_Scale;
    const int objects = ZebDataHash::hashCount();
    Findings findings;
    registry().clearStats();
    {
        const Content content(0);
        runTogether(s_Threads, [&](int) { takeAndDrop(content, findings, s_Operations); });
    }
    expectNothingWrong(findings);
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
}

TEST(ZebHashManagerStress, BlocksComeAndGoWithTheirHashes)
{
    constexpr int s_Threads = 4;
    constexpr int s_Operations = 40000 / s_Scale;
    const TemporaryStore store;
    const int objects = ZebDataHash::hashCount();
    const std::vector<Content> contents = makeContents(3);
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    Findings findings;
    runTogether(s_Threads, [&](int thread) {
        std::minstd_rand random(static_cast<unsigned>(thread + 100));
        std::vector<ZebDataReference> held(contents.size());
        for (int i = 0; i < s_Operations; ++i) {
            const size_t number = random() % contents.size();
            const Content& content = contents[number];
            const ZebDataReference reference =
                manager.addBlock(content.m_Bytes, ZebModifyAccessor::Cached, true);
            check(reference.hashPtr(), content, findings);
            if (!held[number].isNull() && held[number] != reference)
                ++findings.m_Twins;
            if (!holdsBytes(reference, content.m_Bytes))
                ++findings.m_NotLive;
            held[number] = random() % 4 == 0 ? reference : ZebDataReference();
        }
    });
    EXPECT_EQ(findings.m_NotHeld.load(), 0);
    EXPECT_EQ(findings.m_WrongDigest.load(), 0);
    EXPECT_EQ(findings.m_Twins.load(), 0);
    EXPECT_EQ(findings.m_NotLive.load(), 0);
    // Only the contents of this test are left, once nobody is busy with a block any more.
    const int left = objects + static_cast<int>(contents.size());
    EXPECT_TRUE(waitUntil([left] { return ZebDataHash::hashCount() == left; }));
    EXPECT_EQ(registry().hashCount(), 0);
    EXPECT_EQ(manager.liveBytes(), 0);
}

TEST(ZebHashManagerStress, HoldersOfOneHashCountWithoutTheRegistry)
{
    constexpr int s_Threads = 4;
    constexpr int s_Operations = 300000 / s_Scale;
    const int objects = ZebDataHash::hashCount();
    registry().clearStats();
    {
        const Pointer shared = registry().getHash(QByteArray("shared"));
        runTogether(s_Threads, [&shared](int) {
            std::array<Pointer, 4> held;
            for (int i = 0; i < s_Operations; ++i) {
                Pointer& one = held[static_cast<size_t>(i) % held.size()];
                Pointer& other = held[static_cast<size_t>(i / 3) % held.size()];
                one = i % 5 == 0 ? Pointer() : shared;
                swap(one, other);
            }
        });
        EXPECT_EQ(shared->refCount(), 1);
        EXPECT_EQ(statistic("Removes"), 0);
    }
    EXPECT_EQ(statistic("Removes"), 1);
    EXPECT_EQ(registry().hashCount(), 0);
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
}
