// A plug-in that uses the store, and leaves it set up when it is closed.

#include "data/ZebDataReference.h"
#include "manager/ZebDataBlockManager.h"

#include <QString>

namespace {

ZebDataReference s_Kept;

} // namespace

/// Sets up a store in `directory` on the first call, and adds blocks. Returns 0 if what the last
/// call has added is still there.
extern "C" __attribute__((visibility("default"))) int useStore(const char* directory, int call)
{
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    if (!manager.isInitialized())
        manager.setup({QString::fromLocal8Bit(directory)}, 100000000);
    const auto blob = [](int number) {
        return QByteArray(1000, 'p') + QByteArray::number(number);
    };
    if (call > 0) {
        const ZebDataReference former =
            manager.addBlock(blob(call - 1), ZebModifyAccessor::Cached, true);
        if (former.constAccessor().isNull())
            return 1;
    }
    s_Kept = manager.addBlock(blob(call));
    return 0;
}
