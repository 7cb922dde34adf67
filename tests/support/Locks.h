// The build lock seen from outside: a process that holds it, a probe that
// tells whether anyone does, and a wait until someone is blocked on it. The
// unit and the tool take their lock with flock(), which belongs to an open
// file description, so every probe here opens the file anew.

#ifndef QUOR_TESTS_SUPPORT_LOCKS_H
#define QUOR_TESTS_SUPPORT_LOCKS_H

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace quor::testsupport {

// A child process that creates `file` (and its missing parent directories)
// and holds an exclusive flock on it until release() or destruction. The
// constructor returns once the lock is taken.
//
// With a `commandName`, the child then becomes `/bin/sleep 120` under that
// name (the descriptor, and so the lock, kept across exec), for a test of how
// the holder's command line is shown; the constructor returns once
// /proc/<pid>/cmdline begins with the name. Throws std::runtime_error when the
// child cannot take the lock or does not show the name within 10 seconds.
class LockHolderProcess {
public:
    explicit LockHolderProcess(const std::filesystem::path& file,
                               const std::string& commandName = {});
    ~LockHolderProcess();
    LockHolderProcess(const LockHolderProcess&) = delete;
    LockHolderProcess& operator=(const LockHolderProcess&) = delete;

    pid_t pid() const { return pid_; }
    // Kills the holder, which lets the lock go; nothing when already done.
    void release();

private:
    pid_t pid_ = -1;
};

// What probeLock() found.
enum class LockState {
    Free,    // the file exists and an exclusive lock could be taken at once
    Held,    // someone else holds a lock on it
    Missing, // the file cannot be opened (absent, or no permission)
};

// Tries flock(LOCK_EX | LOCK_NB) on `file` from a forked child, through an
// open file description of its own, and lets go at once. A child, so that the
// probe is another process even for a lock implementation that would let this
// one in.
LockState probeLock(const std::filesystem::path& file);

// probeLock(file) == LockState::Held.
bool lockHeldElsewhere(const std::filesystem::path& file);

// Waits (up to 20 seconds) until some process or thread is blocked in flock()
// on `file`, as /proc/locks shows it. False on time-out.
bool waitForBlockedFlock(const std::filesystem::path& file);

} // namespace quor::testsupport

#endif
