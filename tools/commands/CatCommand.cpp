#include "tools/commands/CatCommand.h"

#include "data/ZebConstAccessor.h"
#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "tools/cache/CacheScanner.h"
#include "tools/cache/ToolStore.h"
#include "tools/commands/CommandOptions.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ExitCode.h"
#include "tools/terminal/ProgressBar.h"

#include <CLI/CLI.hpp>

#include <QString>
#include <QVector>

#include <iostream>
#include <memory>

namespace {

// Gives the reason when the block cannot be had, or is not what its name says.
std::string write(const ToolStore& store, const ZebDataReference& reference)
{
    if (!store.has(reference))
        return "is not in the cache";
    const ZebConstAccessor block = reference.constAccessor();
    if (block.isNull())
        return "is not in the cache";
    const ZebSmartPointer<ZebDataHash> hash = reference.hashPtr();
    if (ZebDataHash(block.data(), block.size(), hash->size()) != *hash)
        return "is damaged in the cache";
    std::cout.write(reinterpret_cast<const char*>(block.data()),
                    static_cast<std::streamsize>(block.size()));
    return {};
}

std::string writeMembers(const ToolStore& store, const ZebDataReference& group)
{
    if (!store.has(group) || group.constAccessor().isNull())
        return "is not in the cache";
    for (const ZebDataReference& member :
         ZebDataBlockManager::instance().extractGroupBlock(group)) {
        const std::string reason = write(store, member);
        if (!reason.empty())
            return "its block " + member.hash().toStdString() + " " + reason;
    }
    return {};
}

} // namespace

CatCommand::CatCommand() : m_Memory(ZebDataBlockManager::defaultCacheSize()), m_Members(false) {}

CLI::App* CatCommand::addTo(CLI::App& application)
{
    CLI::App* const command =
        application.add_subcommand("cat", "Write the bytes of blocks to standard output");
    command
        ->add_option(
            "HASH",
            [this](const CLI::results_t& values) {
                for (const std::string& value : values) {
                    if (!CacheScanner::isBlockName(value))
                        throw CLI::ValidationError("HASH", "'" + value + "' is not a hash");
                }
                m_Hashes = values;
                return true;
            },
            "Names of blocks")
        ->type_name("")
        ->expected(1, CLI::detail::expected_max_vector_size)
        ->allow_extra_args()
        ->required();
    command->add_flag("--file", m_Members,
                      "Write the file that the block lists, a hash from a manifest");
    CommandOptions::addPlace(*command, m_Place);
    CommandOptions::addMemory(*command, m_Memory);
    return command;
}

int CatCommand::run(const ToolSettings&)
{
    CommandOptions::settlePlace(m_Place);
    ProgressBar progress = ProgressBar::onStandardError(false);
    ErrorReport errors(progress);
    std::string reason;
    const std::unique_ptr<ToolStore> store =
        ToolStore::open(m_Place, {ToolStore::Roots::Expect, m_Memory, 0}, reason);
    if (store == nullptr) {
        errors.add(reason);
        return ExitCode::Failed;
    }
    for (const std::string& name : m_Hashes) {
        const ZebDataReference reference(
            ZebHashManager::instance().getHash(QString::fromStdString(name)));
        reason = m_Members ? writeMembers(*store, reference) : write(*store, reference);
        if (!reason.empty())
            errors.add(name, reason);
    }
    std::cout.flush();
    if (!std::cout)
        errors.add("standard output: cannot be written");
    return errors.count() == 0 ? ExitCode::Success : ExitCode::Failed;
}
