#pragma once

// A way for tests to reach what a class keeps to itself, without a friend in the product: an
// explicit instantiation may name any member.
//
//     ZEBTDX_ACCESS(callCacheIndex, ZebDataBlockManager,
//                   int (ZebDataBlockManager::*)(const QString&), cacheIndex)
//     int index = (manager.*privateMember(callCacheIndex()))(text);
//
// For a static member, give a plain pointer type. Use it at global scope: an instantiation may not
// stand inside an unnamed namespace.

template <typename Tag, typename Tag::Type Member>
struct PrivateAccess
{
    friend typename Tag::Type privateMember(Tag) { return Member; }
};

#define ZEBTDX_ACCESS(tag, owner, type, member)                                                    \
    struct tag                                                                                     \
    {                                                                                              \
        using Type = type;                                                                         \
        friend Type privateMember(tag);                                                            \
    };                                                                                             \
    template struct PrivateAccess<tag, &owner::member>;
