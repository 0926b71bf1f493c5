#pragma once

#include "data/ZebDataBlock.h"

#include <QByteArray>
#include <QtGlobal>

#include <atomic>

/// A block that counts its deletion in `deleted`, which is not owned and must outlive it.
class CountedBlock : public ZebDataBlock
{
public:
    CountedBlock(const QByteArray& bytes, std::atomic<int>* deleted)
        : ZebDataBlock(bytes), m_Deleted(deleted)
    {}

    /// A block of `sizeBytes` bytes of value 1.
    CountedBlock(qint64 sizeBytes, std::atomic<int>* deleted)
        : ZebDataBlock(sizeBytes, 1), m_Deleted(deleted)
    {}

    ~CountedBlock() override { ++*m_Deleted; }

private:
    std::atomic<int>* m_Deleted;
};
