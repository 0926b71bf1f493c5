#pragma once

#include <QtGlobal>

#include <cstddef>

/// Makes allocations of a whole program fail on purpose: while an object exists, malloc(),
/// calloc() and realloc() on the chosen threads return null, and so new and the containers of Qt
/// throw std::bad_alloc. Throwing allocates as well, and survives a failure of that. At most one
/// object exists at a time.
///
/// Only test programs named *AllocationsTest have this, and only without a sanitizer, which has an
/// allocator of its own: see isAvailable().
///
/// To meet each allocation of an operation, count them first and then fail one after another:
///
///   for (qint64 i = 0; i < FailingAllocations::count([&] { operation(); }); ++i) {
///       const FailingAllocations failing(FailingAllocations::Here, i);
///       ...
///   }
///
/// Thread safety: constructed and destroyed by one thread; the allocations may be on any thread.
class FailingAllocations
{
public:
    enum Where
    {
        /// The allocations of the thread that constructs the object.
        Here,
        /// Those of all other threads.
        Elsewhere
    };

    /// How many allocations to fail: all of them.
    static constexpr qint64 s_All = -1;

    /// Lets `skipped` allocations succeed and fails the next `failures`. Smaller allocations than
    /// `leastBytes` neither count nor fail.
    FailingAllocations(Where where, qint64 skipped, qint64 failures = 1,
                       std::size_t leastBytes = 0);

    /// Fails on the threads of this name alone, as QThread::setObjectName() sets it; the kernel
    /// keeps its first 15 characters.
    FailingAllocations(const char* threadName, qint64 skipped, qint64 failures = 1,
                       std::size_t leastBytes = 0);

    ~FailingAllocations();
    FailingAllocations(const FailingAllocations&) = delete;
    FailingAllocations& operator=(const FailingAllocations&) = delete;

    /// How many allocations have failed so far.
    qint64 failed() const;

    /// How many allocations the calling thread makes during `operation`.
    template <typename Operation>
    static qint64 count(Operation operation)
    {
        const FailingAllocations counting(Here, 0, 0);
        operation();
        return counting.seen();
    }

    /// Whether allocations can fail in this build; tests skip themselves otherwise.
    static bool isAvailable();

private:
    /// How many allocations were candidates so far.
    qint64 seen() const;
};
