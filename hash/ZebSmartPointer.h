#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

/// An intrusive smart pointer: the object keeps its own reference count.
///
/// T makes this template a friend and has three operations: `incRef(void* holder)`,
/// `decRef(void* holder)` and `swap(void* from, void* to)`. The arguments are the addresses of the
/// smart pointers; no class of the library reads them. `decRef` destroys the object with the last
/// release.
///
/// T may be incomplete where a smart pointer is only declared as a member; the operations need the
/// complete type.
///
/// Thread safety: that of a plain pointer. Any number of threads may hold smart pointers to one
/// object; one smart pointer belongs to one thread at a time.
template <typename T>
class ZebSmartPointer
{
public:
    /// Null.
    ZebSmartPointer() noexcept : m_Pointer(nullptr) {}

    /// Adds a reference to `pointer`; null stays null. Implicit, so that a raw pointer can be
    /// passed where a smart pointer is expected.
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
        // The new object comes first. That keeps it alive if both point at the same object, and if
        // the old object holds the new one.
        T* const taken = other.m_Pointer;
        T* const dropped = m_Pointer;
        if (taken != nullptr)
            taken->incRef(this);
        if (dropped != nullptr)
            dropped->decRef(this);
        m_Pointer = taken;
        return *this;
    }

    /// Exchanges the two objects. No count changes.
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

    /// The raw pointer, without a reference; may be null.
    T* data() const { return m_Pointer; }

    /// The same as data().
    T* get() const { return m_Pointer; }

    bool isNull() const { return m_Pointer == nullptr; }

    explicit operator bool() const { return m_Pointer != nullptr; }

    /// Compares the raw pointers, never the objects.
    friend bool operator==(const ZebSmartPointer& a, const ZebSmartPointer& b)
    {
        return a.m_Pointer == b.m_Pointer;
    }
    friend bool operator!=(const ZebSmartPointer& a, const ZebSmartPointer& b) { return !(a == b); }

    /// The same with a raw pointer. No temporary smart pointer is made of it: that would hold the
    /// object for a moment, and delete it if it has no other holder. Templates, so that a literal 0
    /// is a null pointer as before.
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, const T*>>>
    friend bool operator==(const ZebSmartPointer& a, U* b)
    {
        return a.m_Pointer == b;
    }
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, const T*>>>
    friend bool operator==(U* a, const ZebSmartPointer& b)
    {
        return a == b.m_Pointer;
    }
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, const T*>>>
    friend bool operator!=(const ZebSmartPointer& a, U* b)
    {
        return a.m_Pointer != b;
    }
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, const T*>>>
    friend bool operator!=(U* a, const ZebSmartPointer& b)
    {
        return a != b.m_Pointer;
    }

    friend bool operator==(const ZebSmartPointer& a, std::nullptr_t) { return a.isNull(); }
    friend bool operator==(std::nullptr_t, const ZebSmartPointer& a) { return a.isNull(); }
    friend bool operator!=(const ZebSmartPointer& a, std::nullptr_t) { return !a.isNull(); }
    friend bool operator!=(std::nullptr_t, const ZebSmartPointer& a) { return !a.isNull(); }

private:
    friend class ZebConstAccessor;
    friend class ZebDataReference;
    friend class ZebHashManager;

    /// Takes over a reference that has been counted already. Requires a null smart pointer.
    void adopt(T* pointer) { m_Pointer = pointer; }

    /// Becomes null without releasing the reference.
    void abandon() { m_Pointer = nullptr; }

    T* m_Pointer;
};

template <typename T>
void swap(ZebSmartPointer<T>& a, ZebSmartPointer<T>& b)
{
    a.swap(b);
}
