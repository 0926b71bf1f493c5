#include "tools/ToolStore.h"

#include "manager/ZebDataBlockManager.h"

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>

namespace {

// The folder that the user wants temporary files in. QDir::tempPath() gives the root folder when
// that one is missing, where nothing of ours belongs.
QString temporaryFolder()
{
    const QByteArray wanted = qgetenv("TMPDIR");
    return wanted.isEmpty() ? QStringLiteral("/tmp") : QFile::decodeName(wanted);
}

} // namespace

ToolStore::ToolStore() : m_Root(temporaryFolder() + QStringLiteral("/zebtdx-XXXXXX")) {}

std::unique_ptr<ToolStore> ToolStore::open(qint64 memory, std::string& reason)
{
    std::unique_ptr<ToolStore> store(new ToolStore);
    if (!store->m_Root.isValid()) {
        reason = "cannot make a temporary folder: " + store->m_Root.errorString().toStdString();
        return nullptr;
    }
    ZebDataBlockManager::instance().setup({store->m_Root.path()}, memory);
    return store;
}

ToolStore::~ToolStore()
{
    ZebDataBlockManager::instance().cleanUp();
}
