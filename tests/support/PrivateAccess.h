#pragma once

// Gives tests access to a private member, without a friend in the product: an explicit
// instantiation may name any member. Only the headers named after the class looked into, such as
// StoreInside.h, use it; tests call the functions of those headers.
//
//     ZEBTDX_ACCESS(StoreInsideIndexOfText, ZebDataBlockManager,
//                   int (ZebDataBlockManager::*)(const QString&), cacheIndex)
//     int index = (manager.*privateMember(StoreInsideIndexOfText()))(text);
//
// For a static member, give a plain pointer type. Use it at global scope, where the template is.

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
