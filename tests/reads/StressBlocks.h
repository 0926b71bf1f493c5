#pragma once

#include "data/ZebConstAccessor.h"
#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"
#include "reads/StressFailure.h"
#include "support/Manager.h"
#include "support/TestBytes.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <cstring>
#include <deque>
#include <memory>
#include <optional>
#include <string>

/// A block that exists throughout a run, and what is known of it.
struct StressBlock
{
    enum class Kind
    {
        /// Any thread reads it; eviction may pick it.
        Shared,
        /// The same, and an accessor pins it throughout the run.
        Pinned,
        /// Never written, and so resident throughout the run.
        Uncached,
        /// A single thread reads it.
        Own
    };

    int m_Number = 0;
    Kind m_Kind = Kind::Shared;
    QByteArray m_Bytes;
    QString m_Text;
    ZebDataReference m_Reference;
    /// Holds the hash, so that refCount() can be asked without another holder.
    ZebSmartPointer<ZebDataHash> m_Hash;
    std::optional<ZebConstAccessor> m_Pin;
    /// How many accessors the threads keep open while all stand still.
    std::atomic<int> m_Kept{0};

    /// Whether threads copy references to it outside of the delete lock.
    bool isCopied() const { return m_Number % 2 == 1; }
    /// Whether threads look its hash up, which counts as a reference while its hash is locked.
    bool isLookedUp() const { return m_Number % 4 == 3; }

    int pins() const { return m_Kept.load() + (m_Pin.has_value() ? 1 : 0); }

    void requireBytes(const unsigned char* data, qint64 size) const
    {
        if (size != m_Bytes.size() ||
            std::memcmp(data, m_Bytes.constData(), static_cast<std::size_t>(size)) != 0)
            failStress("block " + std::to_string(m_Number) + " shows other bytes");
    }

    void requireBytes(const ZebConstAccessor& accessor) const
    {
        if (accessor.isNull())
            failStress("block " + std::to_string(m_Number) + " cannot be loaded");
        requireBytes(accessor.data(), accessor.size());
    }
};

/// All these blocks.
class StressBlocks
{
public:
    static constexpr int s_Size = 4096;
    static constexpr int s_Shared = 24;
    static constexpr int s_Pinned = 2;
    static constexpr int s_Uncached = 2;
    static constexpr int s_OwnPerReader = 2;

    explicit StressBlocks(int readers)
    {
        addBlocks(s_Shared, StressBlock::Kind::Shared);
        addBlocks(s_Pinned, StressBlock::Kind::Pinned);
        addBlocks(s_Uncached, StressBlock::Kind::Uncached);
        addBlocks(s_OwnPerReader * readers, StressBlock::Kind::Own);
    }

    int count() const { return static_cast<int>(m_Blocks.size()); }
    StressBlock& at(int number) { return m_Blocks[static_cast<std::size_t>(number)]; }

    /// Those that any thread reads have the first numbers.
    static int sharedCount() { return s_Shared + s_Pinned + s_Uncached; }
    static int ownOf(int reader, int which)
    {
        return sharedCount() + reader * s_OwnPerReader + which;
    }

    std::deque<StressBlock>::iterator begin() { return m_Blocks.begin(); }
    std::deque<StressBlock>::iterator end() { return m_Blocks.end(); }

    qint64 bytes() const { return qint64(m_Blocks.size()) * s_Size; }

private:
    void addBlocks(int number, StressBlock::Kind kind)
    {
        for (int i = 0; i < number; ++i) {
            StressBlock& block = m_Blocks.emplace_back();
            block.m_Number = static_cast<int>(m_Blocks.size()) - 1;
            block.m_Kind = kind;
            block.m_Bytes = testBytes(s_Size, static_cast<quint32>(block.m_Number));
            const bool isUncached = kind == StressBlock::Kind::Uncached;
            block.m_Reference = manager().addBlock(
                block.m_Bytes,
                isUncached ? ZebModifyAccessor::DontCache : ZebModifyAccessor::Cached, true);
            block.m_Hash = block.m_Reference.hashPtr();
            block.m_Text = block.m_Reference.hash();
            if (kind == StressBlock::Kind::Pinned)
                block.m_Pin.emplace(block.m_Reference.constAccessor());
        }
    }

    // A deque: its elements cannot be moved.
    std::deque<StressBlock> m_Blocks;
};
