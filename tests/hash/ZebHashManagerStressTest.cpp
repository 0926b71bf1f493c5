#include "hash/ZebHashManager.h"

#include "data/ZebConstAccessor.h"
#include "data/ZebDataReference.h"
#include "hash/ZebHashRemoval.h"
#include "manager/ZebDataBlockManager.h"
#include "support/Registry.h"
#include "support/RegistryReports.h"
#include "support/RunTogether.h"
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

// A sanitizer slows the test down by this factor.
#if defined(__SANITIZE_THREAD__)
constexpr int s_Scale = 20;
#elif defined(__SANITIZE_ADDRESS__)
constexpr int s_Scale = 5;
#else
constexpr int s_Scale = 1;
#endif

/// One of the few inputs that all threads contend for.
struct Input
{
    explicit Input(int number)
        : m_Bytes("input " + QByteArray::number(number)),
          m_Digest(m_Bytes, ZebDataHash::Hash512),
          m_Text(m_Digest.toString())
    {}

    QByteArray m_Bytes;
    ZebDataHash m_Digest;
    QString m_Text;
};

std::vector<Input> makeInputs(int count)
{
    std::vector<Input> inputs;
    inputs.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i)
        inputs.emplace_back(i);
    return inputs;
}

/// What all threads observed and did.
struct Findings
{
    // Pointers to an object without a holder, or to a different object.
    std::atomic<int> m_NotHeld{0};
    std::atomic<int> m_WrongDigest{0};
    // Two objects for one input at a time.
    std::atomic<int> m_Twins{0};
    // An input that is held and was not found.
    std::atomic<int> m_NotLive{0};

    std::atomic<qint64> m_Requests{0};
    std::atomic<qint64> m_Adds{0};
    std::atomic<qint64> m_Operations{0};
};

void check(const Pointer& pointer, const Input& input, Findings& findings)
{
    if (pointer.isNull() || pointer->refCount() < 1)
        ++findings.m_NotHeld;
    else if (*pointer != input.m_Digest)
        ++findings.m_WrongDigest;
}

/// The work of one thread: it takes and drops holders of inputs at random.
class Contender
{
public:
    Contender(const std::vector<Input>& inputs, Findings& findings, unsigned seed)
        : m_Inputs(inputs), m_Findings(findings), m_Random(seed), m_Held(inputs.size())
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
        const size_t number = below(static_cast<unsigned>(m_Inputs.size()));
        const Input& input = m_Inputs[number];
        const unsigned what = below(64);
        if (what == 0) {
            takeSnapshot();
        } else if (what < 4) {
            ++m_Adds;
            take(number, registry().addHash(new ZebDataHash(input.m_Digest)));
        } else if (what < 16) {
            ++m_Requests;
            take(number, registry().getHash(input.m_Bytes));
        } else if (what < 28) {
            ++m_Requests;
            take(number, registry().getHash(input.m_Text));
        } else if (what < 34) {
            if (!registry().isHashLive(input.m_Text) && !m_Held[number].isNull())
                ++m_Findings.m_NotLive;
        } else {
            // Dropped more often than taken, so that an input is often held by one thread or none.
            m_Held[number] = Pointer();
        }
    }

    void take(size_t number, const Pointer& taken)
    {
        check(taken, m_Inputs[number], m_Findings);
        if (!m_Held[number].isNull() && m_Held[number] != taken)
            ++m_Findings.m_Twins;
        // Half of the holders are dropped at once.
        if (below(2) == 0)
            m_Held[number] = taken;
    }

    void takeSnapshot()
    {
        QList<Pointer> all;
        registry().snapshot(all);
        if (all.size() > static_cast<int>(m_Inputs.size()))
            ++m_Findings.m_Twins;
        for (const Pointer& pointer : all) {
            bool known = false;
            for (size_t i = 0; i < m_Inputs.size() && !known; ++i) {
                known = *pointer == m_Inputs[i].m_Digest;
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

    const std::vector<Input>& m_Inputs;
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

void expectNothingWrong(const Findings& findings)
{
    EXPECT_EQ(findings.m_NotHeld.load(), 0);
    EXPECT_EQ(findings.m_WrongDigest.load(), 0);
    EXPECT_EQ(findings.m_Twins.load(), 0);
    EXPECT_EQ(findings.m_NotLive.load(), 0);
    // No count was lost, and every entry that was added has been removed.
    const RegistryReports::Stats stats = RegistryReports::stats();
    EXPECT_EQ(stats.m_Requests, findings.m_Requests.load());
    EXPECT_EQ(stats.m_Hits + stats.m_Misses, findings.m_Requests.load() + findings.m_Adds.load());
    EXPECT_EQ(stats.m_Removes, stats.m_Misses);
    EXPECT_EQ(registry().hashCount(), 0);
}

// Threads that only take and drop one input: nearly every release may be the last.
void takeAndDrop(const Input& input, Findings& findings, int operations)
{
    for (int i = 0; i < operations; ++i) {
        const Pointer taken =
            i % 2 == 0 ? registry().getHash(input.m_Text) : registry().getHash(input.m_Bytes);
        check(taken, input, findings);
        const Pointer again = registry().addHash(new ZebDataHash(input.m_Digest));
        if (again != taken)
            ++findings.m_Twins;
        if (!registry().isHashLive(input.m_Text))
            ++findings.m_NotLive;
    }
    findings.m_Requests += operations;
    findings.m_Adds += operations;
}

/// What threads do with the digest of an input at one moment.
struct Uses
{
    std::atomic<int> m_Holders{0};
    std::atomic<int> m_Removers{0};
};

// Threads that take and drop inputs, and collectors that remove their files.
void holdOrRemove(const std::vector<Input>& inputs, std::vector<Uses>& uses, Findings& findings,
                  int thread, int operations)
{
    std::minstd_rand random(static_cast<unsigned>(thread + 1));
    for (int i = 0; i < operations; ++i) {
        const size_t number = random() % inputs.size();
        const Input& input = inputs[number];
        Uses& use = uses[number];
        if (thread % 2 == 0) {
            const ZebHashRemoval removal(input.m_Text);
            if (removal.isHashLive())
                continue;
            ++use.m_Removers;
            findings.m_NotLive += use.m_Holders != 0 ? 1 : 0;
            std::this_thread::yield();
            findings.m_NotLive += use.m_Holders != 0 ? 1 : 0;
            --use.m_Removers;
            ++findings.m_Operations;
        } else {
            Pointer held = random() % 2 == 0 ? registry().getHash(input.m_Text)
                                             : registry().addHash(new ZebDataHash(input.m_Digest));
            ++use.m_Holders;
            findings.m_Twins += use.m_Removers != 0 ? 1 : 0;
            check(held, input, findings);
            --use.m_Holders;
            held = Pointer();
        }
    }
}

} // namespace

TEST(ZebHashManagerStress, ManyThreadsContendForFewInputs)
{
    constexpr int s_Threads = 6;
    constexpr int s_Operations = 600000 / s_Scale;
    const int objects = ZebDataHash::hashCount();
    Findings findings;
    registry().clearStats();
    {
        const std::vector<Input> inputs = makeInputs(8);
        runTogether(s_Threads, [&](int thread) {
            Contender(inputs, findings, static_cast<unsigned>(thread + 1)).run(s_Operations);
        });
        EXPECT_EQ(ZebDataHash::hashCount(), objects + 8);
    }
    expectNothingWrong(findings);
    EXPECT_EQ(findings.m_Operations.load(), qint64(s_Threads) * s_Operations);
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
    // The run proves something only if entries were added and removed.
    EXPECT_GT(RegistryReports::stats().m_Removes, s_Operations / 100);
    EXPECT_GT(RegistryReports::stats().m_Hits, s_Operations / 100);
}

TEST(ZebHashManagerStress, NoLookUpFindsAHashThatIsEnding)
{
    constexpr int s_Threads = 4;
    constexpr int s_Operations = 100000 / s_Scale;
    const int objects = ZebDataHash::hashCount();
    Findings findings;
    registry().clearStats();
    {
        const Input input(0);
        runTogether(s_Threads, [&](int) { takeAndDrop(input, findings, s_Operations); });
    }
    expectNothingWrong(findings);
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
}

TEST(ZebHashManagerStress, NoFileIsRemovedWhileItsHashIsHeld)
{
    constexpr int s_Threads = 6;
    constexpr int s_Operations = 20000 / s_Scale;
    const int objects = ZebDataHash::hashCount();
    Findings findings;
    {
        const std::vector<Input> inputs = makeInputs(4);
        std::vector<Uses> uses(inputs.size());
        runTogether(s_Threads, [&](int thread) {
            holdOrRemove(inputs, uses, findings, thread, s_Operations);
        });
    }
    EXPECT_EQ(findings.m_NotLive.load(), 0);
    EXPECT_EQ(findings.m_Twins.load(), 0);
    EXPECT_EQ(findings.m_NotHeld.load(), 0);
    EXPECT_EQ(findings.m_WrongDigest.load(), 0);
    // The run proves something only if files were removed.
    EXPECT_GT(findings.m_Operations.load(), s_Operations / 100);
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
    EXPECT_EQ(registry().hashCount(), 0);
}

TEST(ZebHashManagerStress, BlocksAreAddedAndFreedWithTheirHashes)
{
    constexpr int s_Threads = 4;
    constexpr int s_Operations = 40000 / s_Scale;
    const TemporaryStore store;
    const int objects = ZebDataHash::hashCount();
    const std::vector<Input> inputs = makeInputs(3);
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    Findings findings;
    runTogether(s_Threads, [&](int thread) {
        std::minstd_rand random(static_cast<unsigned>(thread + 100));
        std::vector<ZebDataReference> held(inputs.size());
        for (int i = 0; i < s_Operations; ++i) {
            const size_t number = random() % inputs.size();
            const Input& input = inputs[number];
            const ZebDataReference reference =
                manager.addBlock(input.m_Bytes, ZebModifyAccessor::Cached, true);
            check(reference.hashPtr(), input, findings);
            if (!held[number].isNull() && held[number] != reference)
                ++findings.m_Twins;
            if (!holdsBytes(reference, input.m_Bytes))
                ++findings.m_NotLive;
            held[number] = random() % 4 == 0 ? reference : ZebDataReference();
        }
    });
    EXPECT_EQ(findings.m_NotHeld.load(), 0);
    EXPECT_EQ(findings.m_WrongDigest.load(), 0);
    EXPECT_EQ(findings.m_Twins.load(), 0);
    EXPECT_EQ(findings.m_NotLive.load(), 0);
    // Only the hashes of this test remain, once no thread uses a block.
    const int left = objects + static_cast<int>(inputs.size());
    EXPECT_TRUE(waitUntil([left] { return ZebDataHash::hashCount() == left; }));
    EXPECT_EQ(registry().hashCount(), 0);
    EXPECT_EQ(manager.liveBytes(), 0);
}

TEST(ZebHashManagerStress, HoldersOfOneHashAreCountedWithoutTheRegistry)
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
        EXPECT_EQ(RegistryReports::stats().m_Removes, 0);
    }
    EXPECT_EQ(RegistryReports::stats().m_Removes, 1);
    EXPECT_EQ(registry().hashCount(), 0);
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
}
