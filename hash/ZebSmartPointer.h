#pragma once

#include <cstddef>
#include <utility>

/// A counted pointer to an object that keeps its own count.
///
/// T grants this template friendship and offers three operations: `incRef(void* holder)`,
/// `decRef(void* holder)` and `swap(void* from, void* to)`. The arguments are the addresses of the
/// smart pointers that act; no class of the library reads them. `decRef` destroys the object with
/// its last release.
///
/// T may be incomplete where a smart pointer is only declared as a member; the operations need it
/// complete.
///
/// Thread safety: that of a plain pointer. Any number of threads may hold smart pointers to one
/// object; one smart pointer belongs to one thread at a time.
template <typename T>
class ZebSmartPointer
{
public:
    /// Null.
    ZebSmartPointer() noexcept : m_Pointer(nullptr) {}

    /// Holds `pointer` with a new reference; null stays null. Implicit, so that a raw object can
    /// stand where a smart pointer is asked for.
    ZebSmartPointer(T* pointer) : m_Pointer(pointer)
    {
        if (m_Pointer != nullptr)
            m_Pointer->incRef(this);
    }

    ZebSmartPointer(const ZebSmartPointer& other) : m_Pointer(other.m_Pointer)
    {
        if (m_Pointer != nullptr)
            m_Pointer->incRef(this);
    }

    ~ZebSmartPointer()
    {
        if (m_Pointer != nullptr)
            m_Pointer->decRef(this);
    }

    ZebSmartPointer& operator=(const ZebSmartPointer& other)
    {
        if (this == &other)
            return *this;
        // Taking the new object first keeps it alive when both point at one object, and when the
        // old object is what holds the new one.
        T* const taken = other.m_Pointer;
        T* const dropped = m_Pointer;
        if (taken != nullptr)
            taken->incRef(this);
        if (dropped != nullptr)
            dropped->decRef(this);
        m_Pointer = taken;
        return *this;
    }

    /// Exchanges the objects of both. No count moves.
    void swap(ZebSmartPointer& other)
    {
        if (m_Pointer != nullptr)
            m_Pointer->swap(this, &other);
        if (other.m_Pointer != nullptr)
            other.m_Pointer->swap(&other, this);
        std::swap(m_Pointer, other.m_Pointer);
    }

    /// Requires a non-null pointer.
    T* operator->() const { return m_Pointer; }

    /// Requires a non-null pointer.
    T& operator*() const { return *m_Pointer; }

    /// The raw pointer, with no reference of its own; may be null.
    T* data() const { return m_Pointer; }

    /// The same as data().
    T* get() const { return m_Pointer; }

    bool isNull() const { return m_Pointer == nullptr; }

    explicit operator bool() const { return m_Pointer != nullptr; }

    /// Equality is that of the raw pointers, never of what they point at.
    friend bool operator==(const ZebSmartPointer& a, const ZebSmartPointer& b)
    {
        return a.m_Pointer == b.m_Pointer;
    }
    friend bool operator!=(const ZebSmartPointer& a, const ZebSmartPointer& b) { return !(a == b); }

    friend bool operator==(const ZebSmartPointer& a, std::nullptr_t) { return a.isNull(); }
    friend bool operator==(std::nullptr_t, const ZebSmartPointer& a) { return a.isNull(); }
    friend bool operator!=(const ZebSmartPointer& a, std::nullptr_t) { return !a.isNull(); }
    friend bool operator!=(std::nullptr_t, const ZebSmartPointer& a) { return !a.isNull(); }

private:
    T* m_Pointer;
};

template <typename T>
void swap(ZebSmartPointer<T>& a, ZebSmartPointer<T>& b)
{
    a.swap(b);
}
