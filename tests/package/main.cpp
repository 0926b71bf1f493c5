// A host outside the library's build. It includes headers in both forms that hosts may use.
#include "ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "support/ZebTdxVersion.h"

#include <QCoreApplication>
#include <QStringList>

#include <cstdio>
#include <cstring>

namespace {

bool holds(const ZebDataReference& reference, const QByteArray& bytes)
{
    const ZebConstAccessor accessor = reference.constAccessor();
    return !accessor.isNull() && accessor.size() == bytes.size() &&
           std::memcmp(accessor.data(), bytes.constData(), static_cast<size_t>(bytes.size())) == 0;
}

bool addsAndReads(ZebDataBlockManager& store)
{
    const QByteArray bytes(100000, 'z');
    const ZebDataReference added = store.addBlock(bytes);
    if (!holds(added, bytes))
        return false;

    ZebModifyAccessor made = store.createNewBlock(bytes.size(), 'z');
    const ZebDataReference released = made.release();
    released.resolveWork();
    // Equal bytes are one block.
    if (released != added || released.hash() != ZebDataHash(bytes, ZebDataHash::Hash512).toString())
        return false;

    ZebModifyAccessor copy = added.modifyAccessor();
    copy.data()[0] = 'a';
    const ZebDataReference changed = copy.release();
    return holds(changed, 'a' + bytes.mid(1)) && holds(added, bytes);
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s DIRECTORY VERSION\n", argv[0]);
        return 2;
    }
    if (std::strcmp(ZEBTDX_VERSION_STRING, argv[2]) != 0) {
        std::fprintf(stderr, "headers of version %s\n", ZEBTDX_VERSION_STRING);
        return 1;
    }

    ZebDataBlockManager& store = ZebDataBlockManager::instance();
    store.setup(QStringList(QString::fromLocal8Bit(argv[1])), 16 * 1024 * 1024);
    const bool good = addsAndReads(store);
    store.cleanUp();
    if (!good) {
        std::fprintf(stderr, "the store returned different bytes\n");
        return 1;
    }
    if (store.isInitialized() || store.liveBytes() != 0 ||
        ZebDataReference::referenceCount() != 0) {
        std::fprintf(stderr, "the store is not empty after cleanUp()\n");
        return 1;
    }
    std::printf("ZebTdx %s works\n", ZEBTDX_VERSION_STRING);
    return 0;
}
