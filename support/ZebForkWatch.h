#pragma once

// Internal: what a process remembers of the process that it was forked from. Not installed.

/// A forked child has a copy of its parent's store, but none of the threads that work for it, and
/// the locks that those held at the fork stay locked. So in such a child nothing may wait for them:
/// what it releases of its parent's store is left to the end of the process.
///
/// Thread safety: any thread may call every function. The values change in a new child alone,
/// before it has a second thread.
namespace ZebForkWatch {

/// Counts the forks between the first process and this one. Constant within a process.
int generation();

/// Says whether this process has the store set up, from now on.
void setStoreIsSetUp(bool isSetUp);

/// Whether the store was set up when this process was forked. It belongs to the parent then, for
/// good: a second setup() in the child is refused.
bool isStoreOfParent();

/// Makes every child that this process forks from now on call `function` first, in its only thread.
/// The function must not take a lock or allocate. There is one such function in a process; naming
/// it again changes nothing.
void callInChild(void (*function)());

} // namespace ZebForkWatch
