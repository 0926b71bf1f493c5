#include "hash/ZebSmartPointer.h"

#include "hash/ZebDataHash.h"

#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

/// One call of a smart pointer on the object that it holds.
struct Call
{
    std::string m_Name;
    const void* m_Object;
    const void* m_First;
    const void* m_Second;

    bool operator==(const Call& other) const
    {
        return m_Name == other.m_Name && m_Object == other.m_Object && m_First == other.m_First &&
               m_Second == other.m_Second;
    }
};

std::ostream& operator<<(std::ostream& stream, const Call& call)
{
    return stream << call.m_Name << " of " << call.m_Object << " by " << call.m_First << " "
                  << call.m_Second;
}

/// Records every call, and deletes itself with its last holder, like the library's classes.
class RecordingObject
{
public:
    explicit RecordingObject(std::vector<Call>& calls) : m_Calls(calls) { ++s_Alive; }
    ~RecordingObject() { --s_Alive; }
    RecordingObject(const RecordingObject&) = delete;
    RecordingObject& operator=(const RecordingObject&) = delete;

    int count() const { return m_Count; }

    /// What the smart pointer that dropped this object contained at that moment.
    const RecordingObject* seenInHolder() const { return m_SeenInHolder; }

    static int s_Alive;

protected:
    friend class ZebSmartPointer<RecordingObject>;

    void incRef(void* holder)
    {
        m_Calls.push_back({"incRef", this, holder, nullptr});
        ++m_Count;
    }

    void decRef(void* holder)
    {
        m_Calls.push_back({"decRef", this, holder, nullptr});
        m_SeenInHolder = static_cast<ZebSmartPointer<RecordingObject>*>(holder)->data();
        if (--m_Count == 0)
            delete this;
    }

    void swap(void* from, void* to) { m_Calls.push_back({"swap", this, from, to}); }

private:
    std::vector<Call>& m_Calls;
    int m_Count = 0;
    const RecordingObject* m_SeenInHolder = nullptr;
};

int RecordingObject::s_Alive = 0;

using Pointer = ZebSmartPointer<RecordingObject>;
using Calls = std::vector<Call>;

/// A link of a chain, and the only holder of the next link.
struct Link
{
    void incRef(void*) { ++m_Count; }
    void decRef(void*)
    {
        if (--m_Count == 0)
            delete this;
    }
    void swap(void*, void*) {}

    int m_Count = 0;
    int m_Value = 0;
    ZebSmartPointer<Link> m_Next;
};

class Incomplete;

struct HoldsIncomplete
{
    ZebSmartPointer<Incomplete>* m_Pointer = nullptr;
};

} // namespace

TEST(ZebSmartPointer, HasOneField)
{
    static_assert(sizeof(Pointer) == sizeof(RecordingObject*), "The raw pointer and nothing else.");
    static_assert(std::is_convertible<RecordingObject*, Pointer>::value,
                  "A raw object stands where a smart pointer is asked for.");
    static_assert(!std::is_convertible<Pointer, bool>::value, "The null test is explicit.");
    static_assert(!std::is_convertible<Pointer, RecordingObject*>::value,
                  "Raw access is explicit.");
    EXPECT_EQ(HoldsIncomplete().m_Pointer, nullptr);
}

TEST(ZebSmartPointer, NullCallsNothing)
{
    Pointer null;
    const Pointer fromNull(static_cast<RecordingObject*>(nullptr));
    const Pointer copy(null);
    null = copy;
    null = Pointer();
    null.swap(null);
    EXPECT_TRUE(null.isNull());
    EXPECT_TRUE(fromNull.isNull());
    EXPECT_TRUE(copy == nullptr);
    EXPECT_TRUE(nullptr == copy);
    EXPECT_FALSE(copy != nullptr);
    EXPECT_FALSE(nullptr != copy);
    EXPECT_FALSE(static_cast<bool>(copy));
    EXPECT_EQ(null.data(), nullptr);
    EXPECT_EQ(null.get(), nullptr);
}

TEST(ZebSmartPointer, TakesAReferenceAndReleasesIt)
{
    Calls calls;
    auto* const object = new RecordingObject(calls);
    std::optional<Pointer> pointer(std::in_place, object);
    const void* const holder = &*pointer;
    EXPECT_EQ(calls, (Calls{{"incRef", object, holder, nullptr}}));
    EXPECT_EQ(object->count(), 1);
    calls.clear();
    pointer.reset();
    EXPECT_EQ(calls, (Calls{{"decRef", object, holder, nullptr}}));
    EXPECT_EQ(RecordingObject::s_Alive, 0);
}

TEST(ZebSmartPointer, ACopyTakesAReferenceOfItsOwn)
{
    Calls calls;
    auto* const object = new RecordingObject(calls);
    const Pointer pointer(object);
    calls.clear();
    const Pointer copy(pointer);
    EXPECT_EQ(calls, (Calls{{"incRef", object, &copy, nullptr}}));
    EXPECT_EQ(copy.data(), object);
    EXPECT_EQ(object->count(), 2);
}

TEST(ZebSmartPointer, GivesAccessToItsObject)
{
    Calls calls;
    auto* const object = new RecordingObject(calls);
    const Pointer pointer(object);
    EXPECT_EQ(pointer.data(), object);
    EXPECT_EQ(pointer.get(), object);
    EXPECT_EQ(&*pointer, object);
    EXPECT_EQ(pointer->count(), 1);
    EXPECT_FALSE(pointer.isNull());
    EXPECT_TRUE(static_cast<bool>(pointer));
    EXPECT_TRUE(pointer != nullptr);
    EXPECT_TRUE(nullptr != pointer);
    EXPECT_FALSE(pointer == nullptr);
    EXPECT_FALSE(nullptr == pointer);
}

TEST(ZebSmartPointer, AssignmentTakesTheNewObjectBeforeItReleasesTheOld)
{
    Calls calls;
    auto* const one = new RecordingObject(calls);
    auto* const other = new RecordingObject(calls);
    Pointer target(one);
    const Pointer keepsOne(one);
    const Pointer source(other);
    calls.clear();
    EXPECT_EQ(&(target = source), &target);
    EXPECT_EQ(calls,
              (Calls{{"incRef", other, &target, nullptr}, {"decRef", one, &target, nullptr}}));
    EXPECT_EQ(target.data(), other);
    EXPECT_EQ(one->count(), 1);
    EXPECT_EQ(other->count(), 2);
}

TEST(ZebSmartPointer, AssignmentStoresLast)
{
    Calls calls;
    auto* const one = new RecordingObject(calls);
    Pointer target(one);
    const Pointer keepsOne(one);
    const Pointer source(new RecordingObject(calls));
    target = source;
    EXPECT_EQ(one->seenInHolder(), one);
}

TEST(ZebSmartPointer, AssignmentOfItselfDoesNothing)
{
    Calls calls;
    Pointer pointer(new RecordingObject(calls));
    calls.clear();
    const Pointer& same = pointer;
    pointer = same;
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(pointer->count(), 1);
}

TEST(ZebSmartPointer, AssignmentOfAnotherPointerToTheSameObjectIsSafe)
{
    Calls calls;
    auto* const object = new RecordingObject(calls);
    Pointer one(object);
    const Pointer other(object);
    calls.clear();
    one = other;
    EXPECT_EQ(calls, (Calls{{"incRef", object, &one, nullptr}, {"decRef", object, &one, nullptr}}));
    EXPECT_EQ(object->count(), 2);
}

TEST(ZebSmartPointer, AssignmentOfItsOwnRawPointerKeepsTheObject)
{
    Calls calls;
    Pointer pointer(new RecordingObject(calls));
    pointer = pointer.data();
    EXPECT_EQ(RecordingObject::s_Alive, 1);
    EXPECT_EQ(pointer->count(), 1);
}

TEST(ZebSmartPointer, AssignmentToAndFromNullCallsOneSide)
{
    Calls calls;
    auto* const object = new RecordingObject(calls);
    const Pointer holder(object);
    Pointer pointer;
    calls.clear();
    pointer = holder;
    EXPECT_EQ(calls, (Calls{{"incRef", object, &pointer, nullptr}}));
    calls.clear();
    pointer = Pointer();
    EXPECT_EQ(calls, (Calls{{"decRef", object, &pointer, nullptr}}));
    EXPECT_TRUE(pointer.isNull());
    EXPECT_EQ(object->count(), 1);
}

TEST(ZebSmartPointer, AssignmentOfAnObjectHeldByTheOldObjectIsSafe)
{
    ZebSmartPointer<Link> chain(new Link);
    chain->m_Next = new Link;
    chain->m_Next->m_Value = 2;
    chain = chain->m_Next;
    EXPECT_EQ(chain->m_Value, 2);
    EXPECT_EQ(chain->m_Count, 1);
    EXPECT_TRUE(chain->m_Next.isNull());
}

TEST(ZebSmartPointer, SwapNotifiesBothObjectsAndMovesNoCount)
{
    Calls calls;
    auto* const one = new RecordingObject(calls);
    auto* const other = new RecordingObject(calls);
    Pointer a(one);
    Pointer b(other);
    calls.clear();
    a.swap(b);
    EXPECT_EQ(calls, (Calls{{"swap", one, &a, &b}, {"swap", other, &b, &a}}));
    EXPECT_EQ(a.data(), other);
    EXPECT_EQ(b.data(), one);
    EXPECT_EQ(one->count(), 1);
    EXPECT_EQ(other->count(), 1);
}

TEST(ZebSmartPointer, SwapWithNullNotifiesTheOneObject)
{
    Calls calls;
    auto* const object = new RecordingObject(calls);
    Pointer a(object);
    Pointer b;
    calls.clear();
    a.swap(b);
    EXPECT_EQ(calls, (Calls{{"swap", object, &a, &b}}));
    EXPECT_TRUE(a.isNull());
    EXPECT_EQ(b.data(), object);
    calls.clear();
    a.swap(b);
    EXPECT_EQ(calls, (Calls{{"swap", object, &b, &a}}));
    EXPECT_EQ(a.data(), object);
    EXPECT_TRUE(b.isNull());
}

TEST(ZebSmartPointer, FreeSwapIsTheMemberSwap)
{
    Calls calls;
    auto* const one = new RecordingObject(calls);
    auto* const other = new RecordingObject(calls);
    Pointer a(one);
    Pointer b(other);
    calls.clear();
    using std::swap;
    swap(a, b);
    EXPECT_EQ(calls, (Calls{{"swap", one, &a, &b}, {"swap", other, &b, &a}}));
    EXPECT_EQ(a.data(), other);
    EXPECT_EQ(b.data(), one);
}

TEST(ZebSmartPointer, EqualityIsThatOfTheRawPointers)
{
    auto* const hash = new ZebDataHash(QByteArray("twin"), ZebDataHash::Hash512);
    const ZebSmartPointer<ZebDataHash> one(hash);
    const ZebSmartPointer<ZebDataHash> copy(one);
    const ZebSmartPointer<ZebDataHash> twin(
        new ZebDataHash(QByteArray("twin"), ZebDataHash::Hash512));
    ASSERT_TRUE(*one == *twin);
    EXPECT_TRUE(one == copy);
    EXPECT_FALSE(one != copy);
    EXPECT_FALSE(one == twin);
    EXPECT_TRUE(one != twin);
    EXPECT_TRUE(one == hash);
    EXPECT_TRUE(ZebSmartPointer<ZebDataHash>() == ZebSmartPointer<ZebDataHash>());
    EXPECT_FALSE(one == ZebSmartPointer<ZebDataHash>());
}

TEST(ZebSmartPointer, ComparisonWithARawPointerCallsNothing)
{
    Calls calls;
    {
        auto* const held = new RecordingObject(calls);
        const Pointer pointer(held);
        // Without a holder: a temporary smart pointer would delete it.
        const auto other = std::make_unique<RecordingObject>(calls);
        RecordingObject* const raw = other.get();
        const RecordingObject* const constant = raw;
        calls.clear();
        EXPECT_TRUE(pointer == held);
        EXPECT_TRUE(held == pointer);
        EXPECT_FALSE(pointer != held);
        EXPECT_FALSE(held != pointer);
        EXPECT_FALSE(pointer == raw);
        EXPECT_FALSE(raw == pointer);
        EXPECT_TRUE(pointer != raw);
        EXPECT_TRUE(raw != pointer);
        EXPECT_FALSE(pointer == constant);
        EXPECT_TRUE(constant != pointer);
        EXPECT_FALSE(pointer == 0);
        EXPECT_TRUE(pointer != nullptr);
        EXPECT_EQ(calls, Calls());
        EXPECT_EQ(RecordingObject::s_Alive, 2);
    }
    EXPECT_EQ(RecordingObject::s_Alive, 0);
}

TEST(ZebSmartPointer, ReturnedAndStoredPointersBalance)
{
    Calls calls;
    {
        std::vector<Pointer> pointers;
        const auto make = [&calls] {
            return Pointer(new RecordingObject(calls));
        };
        for (int i = 0; i < 100; ++i)
            pointers.push_back(make());
        for (const Pointer& pointer : pointers)
            EXPECT_EQ(pointer->count(), 1);
        pointers.insert(pointers.end(), 100, pointers.front());
        EXPECT_EQ(pointers.front()->count(), 101);
        pointers.erase(pointers.begin(), pointers.begin() + 50);
        EXPECT_EQ(RecordingObject::s_Alive, 51);
    }
    EXPECT_EQ(RecordingObject::s_Alive, 0);
}
