#include "io/ZebPriorityList.h"

#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <utility>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Entry = std::pair<int, int>;
using Entries = std::vector<Entry>;

template <typename T>
std::vector<std::pair<int, T>> entriesOf(const ZebPriorityList<T>& list)
{
    std::vector<std::pair<int, T>> entries;
    for (int i = 0; i < list.size(); ++i)
        entries.emplace_back(list.priorityAt(i), list.valueAt(i));
    return entries;
}

QStringList takeAll(ZebPriorityList<QString>& list)
{
    QStringList taken;
    while (!list.isEmpty())
        taken.append(list.takeFirst());
    return taken;
}

// The documented behaviour in its simplest form: every insertion walks from the head.
class PlainWalk
{
public:
    void insert(int priority, int value)
    {
        auto place = m_Entries.begin();
        while (place != m_Entries.end() && place->first <= priority)
            ++place;
        m_Entries.insert(place, {priority, value});
    }

    void lowerPriorityAt(int index) { --m_Entries[static_cast<size_t>(index)].first; }

    int takeFirst()
    {
        const int value = m_Entries.front().second;
        m_Entries.erase(m_Entries.begin());
        return value;
    }

    void removeAt(int index) { m_Entries.erase(m_Entries.begin() + index); }

    void moveTo(int index, int priority)
    {
        const int value = m_Entries[static_cast<size_t>(index)].second;
        removeAt(index);
        insert(priority, value);
    }

    void clear() { m_Entries.clear(); }

    // The order of equals after a sort is unspecified, so the list's order is adopted.
    void adopt(const Entries& entries) { m_Entries = entries; }

    int size() const { return static_cast<int>(m_Entries.size()); }
    const Entries& entries() const { return m_Entries; }

private:
    Entries m_Entries;
};

bool isAscending(const Entries& entries)
{
    return std::is_sorted(entries.begin(), entries.end(),
                          [](const Entry& a, const Entry& b) { return a.first < b.first; });
}

// Applies one random operation to both. Returns its name.
const char* step(ZebPriorityList<int>& list, PlainWalk& walk, std::mt19937& random, int serial)
{
    const int size = walk.size();
    const auto below = [&random](int end) {
        return static_cast<int>(random() % unsigned(end));
    };
    const int choice = below(100);
    if (size == 0 || choice < 50) {
        const int priority = below(5) - 1;
        list.insert(priority, serial);
        walk.insert(priority, serial);
        return "insert";
    }
    if (choice < 68) {
        // A second step on the same entry starts from another state than the first.
        const int index = below(size);
        for (int steps = 1 + below(3); steps > 0; --steps) {
            list.lowerPriorityAt(index);
            walk.lowerPriorityAt(index);
        }
        return "lowerPriorityAt";
    }
    if (choice < 82) {
        EXPECT_EQ(list.takeFirst(), walk.takeFirst());
        return "takeFirst";
    }
    if (choice < 88) {
        const int index = below(size);
        const int priority = below(5) - 1;
        list.moveTo(index, priority);
        walk.moveTo(index, priority);
        return "moveTo";
    }
    if (choice < 94) {
        const int index = below(size);
        list.removeAt(index);
        walk.removeAt(index);
        return "removeAt";
    }
    if (choice < 99) {
        list.sort();
        Entries sorted = entriesOf(list);
        Entries before = walk.entries();
        EXPECT_TRUE(isAscending(sorted));
        walk.adopt(sorted);
        std::sort(sorted.begin(), sorted.end());
        std::sort(before.begin(), before.end());
        EXPECT_EQ(sorted, before) << "a sort lost or changed an entry";
        return "sort";
    }
    list.clear();
    walk.clear();
    return "clear";
}

} // namespace

TEST(ZebPriorityList, StartsEmpty)
{
    const ZebPriorityList<int> list;
    EXPECT_TRUE(list.isEmpty());
    EXPECT_EQ(list.size(), 0);
}

TEST(ZebPriorityList, PlacesTheFirstEntryAtTheHead)
{
    ZebPriorityList<int> list;
    list.insert(7, 1);
    EXPECT_FALSE(list.isEmpty());
    EXPECT_THAT(entriesOf(list), ElementsAre(Entry(7, 1)));
}

TEST(ZebPriorityList, MovesAnEntryToWhereItWouldBeInserted)
{
    ZebPriorityList<int> list;
    list.insert(0, 1);
    list.insert(1, 2);
    list.insert(1, 3);
    list.insert(2, 4);
    list.moveTo(2, 0);
    EXPECT_THAT(entriesOf(list), ElementsAre(Entry(0, 1), Entry(0, 3), Entry(1, 2), Entry(2, 4)));
    list.moveTo(0, 2);
    EXPECT_THAT(entriesOf(list), ElementsAre(Entry(0, 3), Entry(1, 2), Entry(2, 4), Entry(2, 1)));
    list.moveTo(1, 1);
    EXPECT_THAT(entriesOf(list), ElementsAre(Entry(0, 3), Entry(1, 2), Entry(2, 4), Entry(2, 1)));
}

TEST(ZebPriorityList, OrdersByPriority)
{
    ZebPriorityList<QString> list;
    list.insert(4, "Friday");
    list.insert(2, "Wednesday");
    list.insert(0, "Monday");
    list.insert(5, "Saturday");
    list.insert(3, "Thursday");
    list.insert(6, "Sunday");
    list.insert(1, "Tuesday");
    EXPECT_EQ(takeAll(list), QStringList({"Monday", "Tuesday", "Wednesday", "Thursday", "Friday",
                                          "Saturday", "Sunday"}));
}

TEST(ZebPriorityList, KeepsTheOrderOfArrivalAmongEquals)
{
    ZebPriorityList<QString> list;
    list.insert(0, "Friday");
    list.insert(1, "Wednesday");
    list.insert(0, "Monday");
    list.insert(1, "Saturday");
    list.insert(1, "Thursday");
    list.insert(2, "Sunday");
    list.insert(0, "Tuesday");
    EXPECT_EQ(takeAll(list), QStringList({"Friday", "Monday", "Tuesday", "Wednesday", "Saturday",
                                          "Thursday", "Sunday"}));
}

TEST(ZebPriorityList, EnforcesNoRangeOfPriorities)
{
    constexpr int least = std::numeric_limits<int>::min();
    constexpr int most = std::numeric_limits<int>::max();
    ZebPriorityList<int> list;
    for (const int priority : {0, most, least, -1, most, least})
        list.insert(priority, list.size());
    EXPECT_THAT(entriesOf(list), ElementsAre(Entry(least, 2), Entry(least, 5), Entry(-1, 3),
                                             Entry(0, 0), Entry(most, 1), Entry(most, 4)));
}

TEST(ZebPriorityList, RemovesOneEntry)
{
    ZebPriorityList<int> list;
    for (int value = 0; value < 4; ++value)
        list.insert(1, value);
    list.removeAt(2);
    EXPECT_THAT(entriesOf(list), ElementsAre(Entry(1, 0), Entry(1, 1), Entry(1, 3)));
    list.removeAt(0);
    EXPECT_THAT(entriesOf(list), ElementsAre(Entry(1, 1), Entry(1, 3)));
    list.removeAt(1);
    EXPECT_THAT(entriesOf(list), ElementsAre(Entry(1, 1)));
    list.removeAt(0);
    EXPECT_TRUE(list.isEmpty());
}

TEST(ZebPriorityList, PromotionLowersTheNumberAndLeavesTheEntryWhereItIs)
{
    ZebPriorityList<int> list;
    list.insert(1, 10);
    list.insert(1, 11);
    list.insert(2, 12);
    list.lowerPriorityAt(1);
    list.lowerPriorityAt(1);
    list.lowerPriorityAt(1);
    EXPECT_THAT(entriesOf(list), ElementsAre(Entry(1, 10), Entry(-2, 11), Entry(2, 12)));
}

TEST(ZebPriorityList, InsertStopsAtTheFirstGreaterEntryEvenBeforeASmallerOne)
{
    ZebPriorityList<int> list;
    list.insert(2, 10);
    list.insert(2, 11);
    list.insert(3, 12);
    list.lowerPriorityAt(1);
    list.lowerPriorityAt(1);
    // 11 has 0 now, but an entry of 1 is placed before 10, which has 2.
    list.insert(1, 13);
    EXPECT_THAT(entriesOf(list),
                ElementsAre(Entry(1, 13), Entry(2, 10), Entry(0, 11), Entry(3, 12)));
    // An entry of 2 passes its equal and the smaller one, and stops at 3.
    list.insert(2, 14);
    EXPECT_THAT(entriesOf(list),
                ElementsAre(Entry(1, 13), Entry(2, 10), Entry(0, 11), Entry(2, 14), Entry(3, 12)));
}

TEST(ZebPriorityList, OnlySortBringsAPromotedEntryForward)
{
    ZebPriorityList<int> list;
    list.insert(2, 10);
    list.insert(3, 11);
    list.insert(4, 12);
    for (int i = 0; i < 4; ++i)
        list.lowerPriorityAt(2);
    list.insert(5, 13);
    EXPECT_THAT(entriesOf(list),
                ElementsAre(Entry(2, 10), Entry(3, 11), Entry(0, 12), Entry(5, 13)));
    list.sort();
    EXPECT_THAT(entriesOf(list),
                ElementsAre(Entry(0, 12), Entry(2, 10), Entry(3, 11), Entry(5, 13)));
    list.insert(1, 14);
    EXPECT_THAT(entriesOf(list),
                ElementsAre(Entry(0, 12), Entry(1, 14), Entry(2, 10), Entry(3, 11), Entry(5, 13)));
}

TEST(ZebPriorityList, PlacesByAWalkAlsoNextToANumberThatHasWrapped)
{
    ZebPriorityList<int> list;
    list.insert(std::numeric_limits<int>::min(), 10);
    list.insert(0, 11);
    list.lowerPriorityAt(0);
    const int wrapped = list.priorityAt(0);
    EXPECT_EQ(wrapped, std::numeric_limits<int>::max());
    // The first greater entry is the head now.
    list.insert(5, 12);
    EXPECT_THAT(entriesOf(list), ElementsAre(Entry(5, 12), Entry(wrapped, 10), Entry(0, 11)));
}

TEST(ZebPriorityList, SortsLongListsFromAnyOrder)
{
    std::mt19937 random(11);
    for (const int size : {0, 1, 2, 31, 32, 33, 1000}) {
        ZebPriorityList<int> list;
        for (int i = 0; i < size; ++i)
            list.insert(0, i);
        for (int i = 0; i < size * 3; ++i)
            list.lowerPriorityAt(static_cast<int>(random() % unsigned(size)));
        Entries before = entriesOf(list);
        list.sort();
        Entries after = entriesOf(list);
        EXPECT_TRUE(isAscending(after)) << size;
        std::sort(before.begin(), before.end());
        std::sort(after.begin(), after.end());
        EXPECT_EQ(after, before) << size;
    }
}

TEST(ZebPriorityList, TakesTheHeadOfAListThatIsOutOfOrder)
{
    ZebPriorityList<int> list;
    list.insert(1, 10);
    list.insert(1, 11);
    list.lowerPriorityAt(1);
    EXPECT_EQ(list.takeFirst(), 10);
    EXPECT_THAT(entriesOf(list), ElementsAre(Entry(0, 11)));
}

TEST(ZebPriorityList, ClearDropsPointersAndDoesNotDeleteWhatTheyPointTo)
{
    int one = 1;
    int two = 2;
    ZebPriorityList<int*> list;
    list.insert(0, &one);
    list.insert(0, &two);
    EXPECT_EQ(list.takeFirst(), &one);
    list.clear();
    EXPECT_TRUE(list.isEmpty());
    EXPECT_EQ(one, 1);
    EXPECT_EQ(two, 2);
}

TEST(ZebPriorityList, HoldsAReferenceForEachEntry)
{
    const ZebSmartPointer<ZebDataHash> hash(
        new ZebDataHash(QByteArray("held"), ZebDataHash::Hash512));
    ZebPriorityList<ZebSmartPointer<ZebDataHash>> list;
    for (int i = 0; i < 4; ++i)
        list.insert(i, hash);
    EXPECT_EQ(hash->refCount(), 5);
    {
        const ZebSmartPointer<ZebDataHash> taken = list.takeFirst();
        EXPECT_EQ(taken, hash);
        EXPECT_EQ(hash->refCount(), 5);
    }
    EXPECT_EQ(hash->refCount(), 4);
    list.removeAt(1);
    EXPECT_EQ(hash->refCount(), 3);
    list.sort();
    EXPECT_EQ(hash->refCount(), 3);
    list.clear();
    EXPECT_EQ(hash->refCount(), 1);
}

TEST(ZebPriorityList, ClearedWhileOutOfOrderItIsInOrderAgain)
{
    ZebPriorityList<int> list;
    list.insert(5, 10);
    list.insert(5, 11);
    list.lowerPriorityAt(1);
    list.clear();
    for (const int priority : {3, 1, 2, 1})
        list.insert(priority, list.size());
    EXPECT_THAT(entriesOf(list), ElementsAre(Entry(1, 1), Entry(1, 3), Entry(2, 2), Entry(3, 0)));
}

// After any history, every entry is where a walk from the head would have put it.
TEST(ZebPriorityList, AgreesWithAPlainWalkAfterEveryOperation)
{
    for (unsigned seed = 1; seed <= 300; ++seed) {
        std::mt19937 random(seed);
        ZebPriorityList<int> list;
        PlainWalk walk;
        for (int serial = 0; serial < 200; ++serial) {
            const char* const done = step(list, walk, random, serial);
            ASSERT_EQ(entriesOf(list), walk.entries())
                << "seed " << seed << ", step " << serial << ", after " << done;
            ASSERT_EQ(list.isEmpty(), walk.entries().empty());
        }
    }
}

TEST(ZebPriorityList, AgreesWithAPlainWalkOnListsInOrder)
{
    std::mt19937 random(5);
    ZebPriorityList<int> list;
    PlainWalk walk;
    for (int serial = 0; serial < 3000; ++serial) {
        // These ranges make long runs of equals next to single entries.
        const int priority = static_cast<int>(random() % 100 < 70 ? random() % 3 : random() % 1000);
        list.insert(priority, serial);
        walk.insert(priority, serial);
        if (random() % 4 == 0) {
            ASSERT_EQ(list.takeFirst(), walk.takeFirst());
        }
    }
    EXPECT_EQ(entriesOf(list), walk.entries());
    EXPECT_THAT(entriesOf(list), ::testing::Not(IsEmpty()));
}
