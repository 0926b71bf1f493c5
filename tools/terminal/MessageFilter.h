#pragma once

/// Where the store's own messages go.
namespace MessageFilter {

/// From now on all messages of Qt's handler go to standard error, one line each; debug messages
/// only when `verbose`.
void install(bool verbose);

} // namespace MessageFilter
