// Emptying a directory tree by descriptor, for `prune`, which shows the files
// go one by one. Every directory is opened relative to its parent with
// O_NOFOLLOW and every entry removed by its name in its own directory, so a
// link is removed as itself and never followed, and a folder renamed or
// swapped for a link while the walk is in it cannot lead the removal outside
// the tree it began in.

#ifndef QUOR_TOOLS_QUOR_STDLIB_TREEREMOVAL_H
#define QUOR_TOOLS_QUOR_STDLIB_TREEREMOVAL_H

#include <functional>

namespace quor::stdlibtool {

// Removes everything below the directory open as `directory` and closes that
// descriptor; the directory itself stays. `removedFile` is called after each
// entry that is not a directory has been removed. Returns true when the
// directory was left empty, false when an entry could not be removed or a
// folder could not be listed: the walk then stops at once, leaving the rest
// as it is, so that the caller can hand it to a removal that reports in its
// own words. Never throws but what `removedFile` throws.
bool emptyDirectory(int directory, const std::function<void()>& removedFile);

} // namespace quor::stdlibtool

#endif
