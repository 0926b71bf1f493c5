#include "hash/SkeinBatch.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <optional>

namespace ZebSkein {

namespace {

constexpr int s_DigestBits = 512;
constexpr std::size_t s_BlockBytes = 64;

// The counter of the one output block: 0, padded.
constexpr unsigned char s_OutputBlock[s_BlockBytes] = {};

// The progress of an input. It consists of stretches, each of consecutive whole blocks: the message
// without its last block, that block padded, and the output.
class Passage
{
public:
    Passage(std::size_t index, const SkeinBatch::Content& content)
        : m_Index(index),
          m_Tweak{0, s_TypeMessage | s_FlagFirst},
          m_Next(content.bytes),
          m_BytesPerBlock(s_BlockBytes)
    {
        // The last block has the final flag, so it is not among these even if it is full.
        if (content.byteCount > 0)
            m_Blocks = static_cast<std::size_t>((content.byteCount - 1) / s_BlockBytes);
        m_LastBytes = static_cast<std::size_t>(content.byteCount) - m_Blocks * s_BlockBytes;
        if (m_Blocks == 0)
            beginLast();
    }
    // m_Next may point to m_LastBlock.
    Passage(const Passage&) = delete;
    Passage& operator=(const Passage&) = delete;

    std::size_t index() const { return m_Index; }
    std::size_t blocksLeft() const { return m_Blocks; }
    bool isDone() const { return m_Stretch == Done; }

    /// Copies the position of this input to a lane. The chaining value is not part of it.
    void place(SkeinLaneSet& set, std::size_t lane) const
    {
        set.position[lane] = m_Tweak.position;
        set.flags[lane] = m_Tweak.flags;
        set.bytesPerBlock[lane] = m_BytesPerBlock;
        set.data[lane] = m_Next;
    }

    /// Advances by `blockCount` blocks of this stretch, which have been absorbed.
    void moveOn(std::size_t blockCount)
    {
        m_Tweak.position += blockCount * m_BytesPerBlock;
        m_Tweak.flags &= ~s_FlagFirst;
        m_Next += blockCount * s_BlockBytes;
        m_Blocks -= blockCount;
        if (m_Blocks == 0)
            beginNext();
    }

    /// Absorbs the rest without lanes.
    void finish(Word* chain)
    {
        while (!isDone()) {
            Tweak tweak = m_Tweak;
            processBlocks512(chain, tweak, m_Next, m_Blocks, m_BytesPerBlock);
            moveOn(m_Blocks);
        }
    }

private:
    enum Stretch
    {
        Whole,
        Last,
        Output,
        Done
    };

    void beginNext()
    {
        if (m_Stretch == Whole) {
            beginLast();
        } else if (m_Stretch == Last) {
            m_Stretch = Output;
            m_Tweak = {0, s_TypeOutput | s_FlagFirst | s_FlagFinal};
            m_Blocks = 1;
            m_BytesPerBlock = sizeof(Word);
            m_Next = s_OutputBlock;
        } else {
            m_Stretch = Done;
        }
    }

    void beginLast()
    {
        m_Stretch = Last;
        m_Tweak.flags |= s_FlagFinal;
        m_Blocks = 1;
        m_BytesPerBlock = m_LastBytes;
        if (m_LastBytes > 0)
            std::memcpy(m_LastBlock, m_Next, m_LastBytes);
        m_Next = m_LastBlock;
    }

    const std::size_t m_Index;
    Stretch m_Stretch = Whole;

    // The position in the current stretch, and the rest of it.
    Tweak m_Tweak;
    const unsigned char* m_Next;
    std::size_t m_Blocks = 0;
    std::size_t m_BytesPerBlock;

    std::size_t m_LastBytes;
    unsigned char m_LastBlock[s_BlockBytes] = {};
};

// One call of SkeinBatch::digest.
class LaneWork
{
public:
    LaneWork(const SkeinLaneForm& form, const std::vector<SkeinBatch::Content>& contents,
             const SkeinBatch::Receiver& receive)
        : m_Form(form), m_Contents(contents), m_Receive(receive), m_Order(contents.size())
    {
        std::iota(m_Order.begin(), m_Order.end(), std::size_t{0});
        // A long input that starts late would keep one lane busy while the others are idle.
        if (hasLanesFor(contents.size())) {
            std::stable_sort(m_Order.begin(), m_Order.end(), [&](std::size_t a, std::size_t b) {
                return contents[a].byteCount > contents[b].byteCount;
            });
        }
        initialChainingValue(s_DigestBits, m_InitialChain);
    }

    void run()
    {
        for (std::size_t busy = fill(); busy > 0; busy = fill()) {
            if (hasLanesFor(busy))
                absorbTogether();
            else
                finishAlone();
        }
    }

private:
    using Lane = std::optional<Passage>;

    bool hasLanesFor(std::size_t count) const
    {
        return m_Form.absorb != nullptr && count >= m_Form.fewest;
    }

    // Assigns the next inputs to the free lanes. Returns how many lanes are busy.
    std::size_t fill()
    {
        std::size_t busy = 0;
        for (std::size_t lane = 0; lane < m_Form.lanes; ++lane) {
            if (!m_Lanes[lane] && m_NextInOrder < m_Order.size()) {
                const std::size_t index = m_Order[m_NextInOrder++];
                m_Lanes[lane].emplace(index, m_Contents[index]);
                writeChain(lane, m_InitialChain);
            }
            busy += m_Lanes[lane] ? 1 : 0;
        }
        return busy;
    }

    // Absorbs in all lanes up to the next end of a stretch.
    void absorbTogether()
    {
        const Lane& anyBusy = *std::find_if(m_Lanes, m_Lanes + m_Form.lanes,
                                            [](const Lane& lane) { return lane.has_value(); });
        std::size_t blockCount = anyBusy->blocksLeft();
        for (std::size_t lane = 0; lane < m_Form.lanes; ++lane) {
            // A free lane repeats the work of another one; its result is not used.
            const Lane& shown = m_Lanes[lane] ? m_Lanes[lane] : anyBusy;
            shown->place(m_Set, lane);
            blockCount = std::min(blockCount, shown->blocksLeft());
        }
        m_Form.absorb(m_Set, blockCount);
        for (std::size_t lane = 0; lane < m_Form.lanes; ++lane) {
            if (m_Lanes[lane])
                m_Lanes[lane]->moveOn(blockCount);
        }
        for (std::size_t lane = 0; lane < m_Form.lanes; ++lane) {
            if (m_Lanes[lane] && m_Lanes[lane]->isDone()) {
                Word chain[SkeinLaneSet::s_Words];
                readChain(lane, chain);
                release(lane, chain);
            }
        }
    }

    void finishAlone()
    {
        for (std::size_t lane = 0; lane < m_Form.lanes; ++lane) {
            if (m_Lanes[lane]) {
                Word chain[SkeinLaneSet::s_Words];
                readChain(lane, chain);
                m_Lanes[lane]->finish(chain);
                release(lane, chain);
            }
        }
    }

    // Frees the lane and reports its digest.
    void release(std::size_t lane, const Word* chain)
    {
        const std::size_t index = m_Lanes[lane]->index();
        m_Lanes[lane].reset();
        m_Receive(index, reinterpret_cast<const unsigned char*>(chain));
    }

    void writeChain(std::size_t lane, const Word* chain)
    {
        for (std::size_t word = 0; word < SkeinLaneSet::s_Words; ++word)
            m_Set.chain[word][lane] = chain[word];
    }

    void readChain(std::size_t lane, Word* chain) const
    {
        for (std::size_t word = 0; word < SkeinLaneSet::s_Words; ++word)
            chain[word] = m_Set.chain[word][lane];
    }

    const SkeinLaneForm& m_Form;
    const std::vector<SkeinBatch::Content>& m_Contents;
    const SkeinBatch::Receiver& m_Receive;

    // The indices of the inputs in the order in which they start.
    std::vector<std::size_t> m_Order;
    std::size_t m_NextInOrder = 0;

    Word m_InitialChain[SkeinLaneSet::s_Words];
    SkeinLaneSet m_Set = {};
    Lane m_Lanes[SkeinLaneSet::s_MostLanes];
};

} // namespace

std::size_t SkeinBatch::lanes()
{
    return SkeinLaneForm::best().lanes;
}

void SkeinBatch::digest(const std::vector<Content>& contents, const Receiver& receive)
{
    digest(SkeinLaneForm::best(), contents, receive);
}

void SkeinBatch::digest(const SkeinLaneForm& form, const std::vector<Content>& contents,
                        const Receiver& receive)
{
    LaneWork(form, contents, receive).run();
}

} // namespace ZebSkein
