// Running a piece of a test in a forked child: for code that might block (the
// child is killed at a deadline, so a hang fails one test and not the suite),
// that needs limits of its own (another user, RLIMIT_NPROC), or whose peak
// memory is measured. The child reports through text it writes back.

#ifndef QUOR_TESTS_SERVICES_CHILDPROCESS_H
#define QUOR_TESTS_SERVICES_CHILDPROCESS_H

#include <chrono>
#include <functional>
#include <ostream>
#include <string>

#include <sys/resource.h>

namespace quor::test {

struct ChildResult {
    int status = -1;     // exit status, or 128 + signal number
    bool killed = false; // still running at the deadline
    long peakKiB = 0;    // the child's ru_maxrss
    std::string output;  // what the body wrote into its report
};

std::ostream& operator<<(std::ostream& stream, const ChildResult& result);

// Forks, runs `body` in the child and returns when the child has ended or has
// been killed at `deadline`. The child exits with what `body` returns (70 when
// it throws), after sending back the report `body` filled. The child never
// returns into the test framework.
ChildResult runInChild(const std::function<int(std::string& report)>& body,
                       std::chrono::milliseconds deadline);

// In a child: drops root for uid and gid 65534 and sets RLIMIT_NPROC to
// `processes`, which only binds a user that is not root. A child that cannot
// change its user ends at once (testsupport::becomeUser); false, with the
// reason in `report`, when the limit cannot be set.
bool becomeNobody(rlim_t processes, std::string& report);

// Hands `path` and everything below it to uid and gid 65534.
void giveToNobody(const std::string& path);

} // namespace quor::test

#endif
