#pragma once

#include "data/ZebDataBlock.h"

#include <QByteArray>

#include <functional>
#include <utility>

/// A block that calls a function of the test in its destructor.
class EndingBlock : public ZebDataBlock
{
public:
    EndingBlock(const QByteArray& bytes, std::function<void(ZebDataBlock*)> atEnd)
        : ZebDataBlock(bytes), m_AtEnd(std::move(atEnd))
    {}
    ~EndingBlock() override { m_AtEnd(this); }

private:
    std::function<void(ZebDataBlock*)> m_AtEnd;
};
