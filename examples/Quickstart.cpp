// The smallest host: adds a block, changes a copy of it, keeps both as a group, reads them back.

#include "data/ZebDataReference.h"
#include "manager/ZebDataBlockManager.h"

#include <QTemporaryDir>

#include <cstdio>

int main()
{
    const QTemporaryDir cacheRoot;
    ZebDataBlockManager& store = ZebDataBlockManager::instance();
    store.setup({cacheRoot.path()}, 64LL << 20); // the memory limit in bytes
    {
        const ZebDataReference hello = store.addBlock("Hello, store");

        ZebModifyAccessor copy = hello.modifyAccessor(); // blocks never change; a copy does,
        copy.data()[0] = 'J';
        const ZebDataReference jello = copy.release(); // and becomes another block

        const ZebDataReference group = store.makeGroupBlock({hello, jello, hello});
        for (const ZebDataReference& member : store.extractGroupBlock(group)) {
            const ZebConstAccessor accessor = member.constAccessor(); // holds the block in memory
            std::printf("%.*s\n", static_cast<int>(accessor.size()),
                        reinterpret_cast<const char*>(accessor.data()));
        }
        group.resolveWork();
        std::printf("%lld blocks\n", store.managedBlocks());
    }
    store.cleanUp(); // every accessor has ended by now
    return 0;
}
