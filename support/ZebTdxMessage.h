#pragma once

// Internal: the messages of the library. Not installed.

#include <QString>

/// Debug lines and fatal messages. Each goes through Qt's message handler with no file, line,
/// function or category: a host sees the text alone and may rely on it.
///
/// Thread safety: any thread may call every function. Some callers hold locks of the library, so a
/// host's message handler must not call back into it.
namespace ZebTdxMessage {

/// Sends one debug line.
void debug(const QString& text);

/// Reports a broken contract and ends the process. Never returns, whatever the host's message
/// handler does.
[[noreturn]] void fatal(const QString& text);

/// The fatal message of every operation that needs the manager to be set up.
[[noreturn]] void fatalNotInitialized();

} // namespace ZebTdxMessage
