// The smallest host: adds a block, changes a copy of it, stores both as a group, and reads the
// group back. An accessor is null when its block cannot be loaded, so every accessor is checked
// before use.

#include "data/ZebDataReference.h"
#include "manager/ZebDataBlockManager.h"

#include <QTemporaryDir>

#include <cstdio>

namespace {

// Returns whether every block was available.
bool addAndRead(ZebDataBlockManager& store)
{
    const ZebDataReference hello = store.addBlock("Hello, store");

    ZebModifyAccessor copy = hello.modifyAccessor(); // blocks never change; a copy does,
    if (copy.isNull())
        return false;
    copy.data()[0] = 'J';
    const ZebDataReference jello = copy.release(); // and becomes another block

    const ZebDataReference group = store.makeGroupBlock({hello, jello, hello});
    for (const ZebDataReference& member : store.extractGroupBlock(group)) {
        const ZebConstAccessor accessor = member.constAccessor(); // pins the block in memory
        if (accessor.isNull())
            return false;
        std::printf("%.*s\n", static_cast<int>(accessor.size()),
                    reinterpret_cast<const char*>(accessor.data()));
    }
    group.resolveWork();
    std::printf("%lld blocks\n", store.managedBlocks());
    return true;
}

} // namespace

int main()
{
    const QTemporaryDir cacheRoot;
    ZebDataBlockManager& store = ZebDataBlockManager::instance();
    store.setup({cacheRoot.path()}, 64LL << 20); // the memory limit in bytes
    const bool isComplete = addAndRead(store);
    store.cleanUp(); // every accessor has ended by now
    if (!isComplete)
        std::fprintf(stderr, "A block cannot be loaded\n");
    return isComplete ? 0 : 1;
}
