// Who holds a file lock, found through the kernel's lock table (/proc/locks):
// used by `ensure` to tell the user which process it is waiting for.

#ifndef QUOR_TOOLS_QUOR_STDLIB_LOCKHOLDER_H
#define QUOR_TOOLS_QUOR_STDLIB_LOCKHOLDER_H

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace quor::stdlibtool {

struct LockHolder {
    pid_t pid = 0;
    std::string command; // its command line, words joined by spaces; its name if that is hidden
};

// The process holding a granted lock on `file`, other than `self`, or nothing
// when the file does not exist, nobody else holds it, or the lock table cannot
// be read. Entries of processes still waiting ("->") are not holders. The file
// is matched by device and inode; when no entry matches both, an entry with
// the same inode on another device is accepted, because overlay file systems
// report the lower device in the lock table.
std::optional<LockHolder> findLockHolder(const std::filesystem::path& file, pid_t self);

// The same, reading the lock table from `lockTable` instead of /proc/locks.
std::optional<LockHolder> findLockHolder(const std::filesystem::path& file, pid_t self,
                                         std::string_view lockTable);

// "/proc/<pid>/cmdline" with NUL separators turned into spaces, else
// "/proc/<pid>/comm", else "".
std::string processCommand(pid_t pid);

// "process 1234 (quor-stdlib ensure)", or "process 1234" when the command is unknown.
std::string describe(const LockHolder& holder);

} // namespace quor::stdlibtool

#endif
