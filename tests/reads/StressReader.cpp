#include "reads/StressReader.h"

#include "hash/ZebHashManager.h"

#include <algorithm>

namespace {

constexpr std::size_t s_MostOpen = 6;
constexpr unsigned s_OpensAndCloses = NeedsDeleteLock | ChangesReferences;

} // namespace

StressOpening::StressOpening(StressActivity& activity, StressBlock& block,
                             const ZebDataReference& reference)
    : m_Activity(activity), m_Block(block)
{
    {
        const StressOperation operation(activity, "opens", block.m_Number, s_OpensAndCloses);
        m_Accessor.emplace(reference.constAccessor());
    }
    check();
}

StressOpening::StressOpening(StressActivity& activity, const StressOpening& other)
    : m_Activity(activity), m_Block(other.m_Block)
{
    {
        const StressOperation operation(activity, "copies an accessor of", m_Block.m_Number,
                                        s_OpensAndCloses);
        m_Accessor.emplace(other.accessor());
    }
    if (accessor().count() < 2)
        failStress("a copied accessor is alone");
    check();
}

StressOpening::~StressOpening()
{
    check();
    const StressOperation operation(m_Activity, "closes", m_Block.m_Number, s_OpensAndCloses);
    m_Accessor.reset();
}

void StressOpening::check() const
{
    m_Block.requireBytes(accessor());
    if (accessor().count() < 1)
        failStress("an open accessor is not counted");
}

StressReader::~StressReader()
{
    dropKept();
}

void StressReader::step()
{
    // From here on, accessors that were kept at the last quiet point may be closed.
    dropKept();
    for (int i = 0; i < 16; ++i) {
        const int choice = below(100);
        if (choice < 40)
            openAndClose();
        else if (choice < 50)
            open();
        else if (choice < 60)
            readOwn();
        else if (choice < 66)
            copyAccessor();
        else if (choice < 76)
            query();
        else if (choice < 79)
            preload();
        else if (choice < 83)
            modify();
        else if (choice < 93)
            copyReferences();
        else if (choice < 96)
            lookUp();
        else
            closeSome();
    }
    if (m_Open.size() > s_MostOpen)
        closeSome();
}

void StressReader::prepareToStand()
{
    dropKept();
    m_Open.clear();
    if (below(2) != 0)
        return;
    open();
    if (below(2) == 0)
        copyAccessor();
    for (const auto& opening : m_Open) {
        m_Kept.push_back(&opening->block());
        opening->block().m_Kept.fetch_add(1);
    }
}

void StressReader::dropKept()
{
    for (StressBlock* const block : m_Kept)
        block->m_Kept.fetch_sub(1);
    m_Kept.clear();
}

void StressReader::open()
{
    StressBlock& block = anyShared();
    m_Open.push_back(
        std::make_unique<StressOpening>(m_Activity, block, referenceTo(block.m_Number)));
}

void StressReader::openAndClose()
{
    StressBlock& block = anyShared();
    const ZebDataReference& reference = referenceTo(block.m_Number);
    for (int i = below(8); i >= 0; --i)
        const StressOpening opening(m_Activity, block, reference);
}

void StressReader::readOwn()
{
    StressBlock& block =
        m_Shared.m_Blocks->at(StressBlocks::ownOf(m_Number, below(StressBlocks::s_OwnPerReader)));
    const ZebDataReference& reference = referenceTo(block.m_Number);
    const StressOpening first(m_Activity, block, reference);
    require(first.accessor().count() == 1, "the only accessor of a block is not counted alone");
    {
        const StressOpening second(m_Activity, first);
        require(first.accessor().count() == 2, "two accessors of a block are not counted as two");
        const StressOperation operation(m_Activity, "queries", block.m_Number, NeedsDeleteLock);
        require(reference.isInMemory(), "a block with an open accessor is not resident");
    }
    require(first.accessor().count() == 1, "a closed accessor is still counted");
}

void StressReader::copyAccessor()
{
    if (m_Open.empty())
        return;
    const std::size_t from = static_cast<std::size_t>(below(static_cast<int>(m_Open.size())));
    m_Open.push_back(std::make_unique<StressOpening>(m_Activity, *m_Open[from]));
}

void StressReader::query()
{
    const StressBlock& block = anyShared();
    bool isResident = false;
    {
        const StressOperation operation(m_Activity, "queries", block.m_Number, NeedsDeleteLock);
        isResident = referenceTo(block.m_Number).isInMemory();
    }
    const bool mustBeResident =
        block.m_Kind != StressBlock::Kind::Shared || m_Shared.m_Round.m_IsPlentiful;
    require(isResident || !mustBeResident, "a block that nothing may evict is not resident");
}

void StressReader::preload()
{
    const StressBlock& block = anyShared();
    if (!block.isCopied())
        return;
    const StressOperation operation(m_Activity, "preloads", block.m_Number, NeedsDeleteLock);
    referenceTo(block.m_Number).preload(ZebDataBlockManager::PreloadHigh);
}

void StressReader::modify()
{
    const StressBlock& block = anyShared();
    m_Activity.setDoing("copies the bytes of", block.m_Number);
    const ZebModifyAccessor copy = [&] {
        const StressOperation operation(m_Activity, "copies the bytes of", block.m_Number,
                                        NeedsDeleteLock);
        return referenceTo(block.m_Number).modifyAccessor();
    }();
    require(!copy.isNull() && copy.count() == 1, "a private copy is null or shared");
    block.requireBytes(copy.data(), copy.size());
}

void StressReader::copyReferences()
{
    const StressBlock& block = anyShared();
    if (!block.isCopied())
        return;
    for (int i = 0; i < 4; ++i) {
        std::vector<ZebDataReference> copies;
        for (int k = 0; k < 3; ++k) {
            const StressOperation operation(m_Activity, "copies a reference to", block.m_Number,
                                            ChangesReferences);
            copies.push_back(referenceTo(block.m_Number));
        }
        const StressOperation operation(m_Activity, "drops a reference to", block.m_Number,
                                        ChangesReferences);
        copies.pop_back();
    }
}

void StressReader::lookUp()
{
    const StressBlock& block = anyShared();
    if (!block.isLookedUp() || block.m_Kind == StressBlock::Kind::Uncached)
        return;
    m_Activity.setDoing("looks up the hash of", block.m_Number);
    const ZebSmartPointer<ZebDataHash> found =
        below(2) == 0 ? ZebHashManager::instance().getHash(block.m_Text)
                      : ZebHashManager::instance().getHash(block.m_Bytes);
    require(found == block.m_Hash, "a look-up finds another hash than the registered one");
}

void StressReader::closeSome()
{
    while (!m_Open.empty()) {
        const std::size_t place = static_cast<std::size_t>(below(static_cast<int>(m_Open.size())));
        std::swap(m_Open[place], m_Open.back());
        m_Open.pop_back();
        if (below(3) == 0)
            break;
    }
}
