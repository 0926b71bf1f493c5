#include "tools/cache/RootLock.h"

#include "tools/terminal/PathText.h"
#include "tools/terminal/ToolError.h"

#include <QFile>

#include <cerrno>
#include <utility>

void RootLock::take(const std::vector<std::string>& roots, Use use)
{
    m_Held.clear();
    const auto kind = use == Use::Alone ? ZebCacheRootLock::Exclusive : ZebCacheRootLock::Shared;
    std::vector<ZebCacheRootLock> held;
    for (const std::string& root : roots) {
        ZebCacheRootLock lock;
        const std::string what = "cache root " + PathText::printable(root);
        switch (lock.tryLock(QFile::decodeName(root.c_str()), kind)) {
        case ZebCacheRootLock::Locked:
            break;
        case ZebCacheRootLock::InUse:
            throw ToolError(what + " is in use by another process; try again when it has ended",
                            EWOULDBLOCK);
        case ZebCacheRootLock::Failed:
            throw ToolError(what + " cannot be locked (" + lock.errorText().toStdString() +
                            "), so another process could change it meanwhile; move the cache to a "
                            "file system with locks");
        }
        held.push_back(std::move(lock));
    }
    m_Held = std::move(held);
}
