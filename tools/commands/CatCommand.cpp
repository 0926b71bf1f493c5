#include "tools/commands/CatCommand.h"

#include "data/ZebConstAccessor.h"
#include "data/ZebDataReference.h"
#include "hash/ZebBlockName.h"
#include "hash/ZebHashManager.h"
#include "tools/commands/CommandOptions.h"
#include "tools/files/FileSystem.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/StopRequest.h"
#include "tools/terminal/ToolError.h"

#include <CLI/CLI.hpp>

#include <QString>
#include <QVector>

#include <algorithm>
#include <cerrno>
#include <climits>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int s_PollMs = 100;

// In pieces for which a pipe has room, so that a reader that has stopped does not keep the command
// from ending.
void writeOutput(const unsigned char* bytes, qint64 size)
{
    struct stat status = {};
    const bool isFile = ::fstat(STDOUT_FILENO, &status) == 0 && S_ISREG(status.st_mode);
    const qint64 most = isFile ? size : PIPE_BUF;
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    for (qint64 done = 0; done < size;) {
        StopRequest::check();
        const int ready = ::poll(&output, 1, s_PollMs);
        if (ready == 0 || (ready < 0 && errno == EINTR))
            continue;
        const qint64 piece = std::min(size - done, most);
        ToolError::locate("standard output",
                          [&] { FileSystem::write(STDOUT_FILENO, bytes + done, piece); });
        done += piece;
    }
}

void write(const ToolStore& store, const ZebDataReference& reference, const std::string& what)
{
    StopRequest::check();
    const ZebConstAccessor block = store.read(reference, what);
    writeOutput(block.data(), block.size());
}

void writeMembers(const ToolStore& store, const ZebDataReference& group)
{
    for (const ZebDataReference& member : store.members(group, {}))
        write(store, member, "its block " + member.hash().toStdString() + " ");
}

} // namespace

CLI::App* CatCommand::addTo(CLI::App& application)
{
    CLI::App* const command =
        application.add_subcommand("cat", "Write the bytes of blocks to standard output");
    CommandOptions::addPaths(*command, "HASH", m_Hashes, "Names of blocks");
    command->get_option("HASH")->check([](const std::string& text) {
        return ZebBlockName::parse(text) ? std::string()
                                         : "'" + text + "' is not the name of a block";
    });
    command->add_flag("--file", m_Members,
                      "Write the files that these blocks list; a manifest has their hashes");
    CommandOptions::addPlace(*command, m_Place);
    CommandOptions::addMemory(*command, m_Memory);
    return command;
}

int CatCommand::run(const ToolSettings& settings)
{
    ProgressBar progress = ProgressBar::onStandardError(false);
    ErrorReport errors(progress);
    const auto store =
        ToolStore::open(m_Place, {ToolStore::Roots::Read, m_Memory}, settings.m_GiveUp);
    for (const std::string& name : m_Hashes) {
        const auto error = ToolError::of([&] {
            const ZebDataReference reference(
                ZebHashManager::instance().getHash(QString::fromStdString(name)));
            if (m_Members)
                writeMembers(*store, reference);
            else
                write(*store, reference, {});
        });
        if (error)
            errors.add(name, *error);
    }
    errors.flushOutput();
    return errors.status();
}
