#pragma once

// Internal: how the library speaks. Not installed.

#include <QString>

/// The two channels of the library. Every message goes through Qt's message handler with no file,
/// line, function or category, so that the words alone are what a host sees and can rely on.
///
/// Thread safety: any thread may call both.
namespace ZebTdxMessage {

/// Sends one debug line and goes on.
void debug(const QString& text);

/// Reports a broken contract and ends the process. Never returns, whatever the message handler of
/// the host does.
[[noreturn]] void fatal(const QString& text);

/// The words of every operation that needs the manager to be set up.
[[noreturn]] void fatalNotInitialized();

} // namespace ZebTdxMessage
