#pragma once

// Internal: keeps readers out for the length of a scope. Not installed.

#include "hash/ZebReadGate.h"

/// Closes the gate of the readers. May be nested; the outermost one closes and opens it.
///
/// Locks: the caller holds the delete lock for the length of the scope.
class ZebClosedGate
{
public:
    /// @param depth how many scopes are nested; guarded by the delete lock
    explicit ZebClosedGate(int* depth) : m_Depth(depth) { close(m_Depth); }
    ~ZebClosedGate() { open(m_Depth); }
    ZebClosedGate(const ZebClosedGate&) = delete;
    ZebClosedGate& operator=(const ZebClosedGate&) = delete;

    static void close(int* depth)
    {
        if ((*depth)++ == 0)
            ZebReadGate::close();
    }
    static void open(int* depth)
    {
        if (--*depth == 0)
            ZebReadGate::open();
    }

private:
    int* m_Depth;
};
