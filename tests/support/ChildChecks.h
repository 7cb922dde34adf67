// Checks that have to run in a process of their own, written as GoogleTest
// death tests: as another user (root passes every permission check, so only
// an unprivileged child can observe one), or with every file descriptor used
// up. The child writes what it observed on standard error and the test matches
// that text, so a failing check shows the child's own words, and a child that
// cannot even set itself up says why instead of leaving a bare exit code.
//
// A typical check:
//
//   EXPECT_EXIT(reportAsNobody([&] { return "entries: " + listing(); }),
//               testing::ExitedWithCode(0), testing::Eq("entries: core.qo\n"));
//
// The default death-test style forks without running the test again, so the
// child works on the very files the test prepared and the test can look at
// what the child left behind. A test whose process already runs other threads
// sets GTEST_FLAG_SET(death_test_style, "threadsafe") and must then prepare
// everything the child needs again in the child (the test body runs anew).

#ifndef QUOR_TESTS_SUPPORT_CHILDCHECKS_H
#define QUOR_TESTS_SUPPORT_CHILDCHECKS_H

#include <sys/resource.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

namespace quor::testsupport {

// The unprivileged user (and group) that permission checks run as.
inline constexpr uid_t kNobody = 65534;

// Exit statuses of a child that could not set itself up; the reason is on its
// standard error.
inline constexpr int kCannotChangeUser = 254;
inline constexpr int kCannotExhaustDescriptors = 253;

// Writes `text` to `fd` through write(2) alone: a child may have no
// descriptor left for a stdio buffer, and must not flush one inherited from
// the parent a second time. Gives up quietly when the reader is gone.
void writeAll(int fd, std::string_view text);

// In a child: becomes `uid`, with `uid` as its group and only group
// (setgroups, setgid, setuid, in that order: each step needs the privilege the
// next one gives up). Ends the child with kCannotChangeUser when a step fails.
void becomeUser(uid_t uid);

// In a child: becomeUser(kNobody), then RLIMIT_NPROC set to `processes`, which
// only binds a user that is not root: the child can then start only that many
// threads and processes. False, with the reason added to `report`, when the
// limit cannot be set.
bool becomeNobody(rlim_t processes, std::string& report);

// Hands `path` and everything below it (links themselves, not their targets)
// to uid and gid kNobody, so that a test can prepare what another user owns.
// Throws std::runtime_error naming the entry that cannot be handed over.
void giveToNobody(const std::string& path);

// In a child: lowers RLIMIT_NOFILE to 256 and opens /dev/null until no
// descriptor is left, so that the next open fails with EMFILE. Ends the child
// with kCannotExhaustDescriptors when the limit cannot be set or the opens end
// for another reason.
void exhaustDescriptors();

// The statement of an EXPECT_EXIT: runs `body` in the child, writes what it
// returns on standard error and ends the child with status 0. An exception
// from `body` is written as "uncaught exception: <what>\n" and ends it with 1.
// The child leaves through _exit(): no test-framework or static destructors.
[[noreturn]] void reportAndExit(const std::function<std::string()>& body);

// becomeUser(uid), then reportAndExit(body).
[[noreturn]] void reportAs(uid_t uid, const std::function<std::string()>& body);

// reportAs(kNobody, body).
[[noreturn]] void reportAsNobody(const std::function<std::string()>& body);

// A child's report of a system call's result: "ok\n" when it is 0, else
// "failed: <the message of errno>\n".
std::string outcomeOf(int result);

// `text` as a POSIX extended regular expression that matches only `text`
// itself: every operator character is escaped. For a report whose tail is
// matched by pattern, with a path before it.
std::string literalPattern(std::string_view text);

} // namespace quor::testsupport

#endif
