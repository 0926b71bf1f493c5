#pragma once

/// What becomes of the store's own messages.
namespace MessageFilter {

/// From now on all messages of Qt's handler go to standard error, one line each; debug messages
/// only when `verbose`.
void install(bool verbose);

} // namespace MessageFilter
