#pragma once

#include "data/ZebBlockFuture.h"
#include "data/ZebDataReference.h"

#include <functional>
#include <utility>

/// A host's future that yields the reference of its constructor and counts the calls of data() in
/// `calls`, which is not owned and must outlive it.
class CountedFuture : public ZebBlockFuture
{
public:
    explicit CountedFuture(int* calls, const ZebDataReference& reference = {})
        : m_Calls(calls), m_Reference(reference)
    {}
    ~CountedFuture() override
    {
        if (m_AtEnd)
            m_AtEnd();
    }

    /// What the destructor does before it releases the reference.
    void atEnd(std::function<void()> action) { m_AtEnd = std::move(action); }

    ZebDataReference data() override
    {
        ++*m_Calls;
        return m_Reference;
    }

private:
    int* m_Calls;
    std::function<void()> m_AtEnd;
    ZebDataReference m_Reference;
};
