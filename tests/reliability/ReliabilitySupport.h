// Shared helpers of the reliability suite: scratch directories, whole-file
// reads and writes, the counts and seed a run uses, and an unprivileged user's
// process that acts while the test runs.
//
// Counts: every harness has a reduced count, run by ctest in every build, and
// a full count, run when QUOR_STRESS=full (what `make stress` sets). A count can
// also be forced through its own environment variable. The seed comes from
// QUOR_STRESS_SEED, else a fixed default, and is printed, so a failing run can
// be repeated exactly.

#ifndef QUOR_TESTS_RELIABILITY_RELIABILITYSUPPORT_H
#define QUOR_TESTS_RELIABILITY_RELIABILITYSUPPORT_H

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace quor::reliability {

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes out of scope.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

// True when QUOR_STRESS=full.
bool fullStress();

// The value of the environment variable `name` when it is a positive number;
// otherwise `full` under fullStress() and `reduced` when not.
unsigned stressCount(const char* name, unsigned reduced, unsigned full);

// QUOR_STRESS_SEED when set, else a fixed seed.
std::uint64_t stressSeed();

// Writes `bytes` to `file`, replacing it; throws std::runtime_error on failure.
void writeFile(const std::filesystem::path& file, std::string_view bytes);

// The whole content of `file`; throws std::runtime_error when it cannot be read.
std::string readFile(const std::filesystem::path& file);

// Starts `work` in a forked child that has dropped to uid and gid 65534 and
// returns the child's pid at once, for an unprivileged process that has to act
// while something else runs. The child exits with the value `work` returned,
// 255 when it threw, or 254 when it could not drop its privileges (the reason
// on its standard error). Root passes every permission check, so permission
// behaviour can only be observed this way.
pid_t startAsNobody(const std::function<int()>& work);

} // namespace quor::reliability

#endif
