#include "support/TemporaryStore.h"

#include "manager/ZebDataBlockManager.h"

TemporaryStore::TemporaryStore() : TemporaryStore(Options()) {}

TemporaryStore::TemporaryStore(const Options& options) : m_Options(options)
{
    for (int i = 0; i < options.m_Roots; ++i) {
        m_Directories.push_back(std::make_unique<QTemporaryDir>());
        m_RootPaths.append(m_Directories.back()->path());
    }
    setupAgain();
}

TemporaryStore::~TemporaryStore()
{
    cleanUp();
}

void TemporaryStore::cleanUp()
{
    ZebDataBlockManager::instance().cleanUp(true);
}

void TemporaryStore::setupAgain()
{
    ZebDataBlockManager::instance().setup(m_RootPaths, m_Options.m_Memory, m_Options.m_Buckets,
                                          m_Options.m_CompressionThreads);
}
