// Helpers of the reliability suite alone: the counts and seed a run uses.
// Scratch directories, files and children come from tests/support, named here
// once. The suite reads and writes files strictly: a file it reads must be
// there (Unreadable::Throw), and it builds every folder it writes into itself
// (Parents::MustExist), so that no helper quietly repairs a tree an attack or
// a crash left behind.
//
// Counts: every harness has a reduced count, run by ctest in every build, and
// a full count, run when QUOR_STRESS=full (what `make stress` sets). A count can
// also be forced through its own environment variable. The seed comes from
// QUOR_STRESS_SEED, else a fixed default, and is printed, so a failing run can
// be repeated exactly.

#ifndef QUOR_TESTS_RELIABILITY_RELIABILITYSUPPORT_H
#define QUOR_TESTS_RELIABILITY_RELIABILITYSUPPORT_H

#include "tests/support/Files.h"
#include "tests/support/Processes.h"

#include <cstdint>

namespace quor::reliability {

// What the reliability tests take from tests/support.
using testsupport::Parents;
using testsupport::readFile;
using testsupport::startChild;
using testsupport::TemporaryDirectory;
using testsupport::Unreadable;
using testsupport::waitForChild;
using testsupport::writeFile;

// True when QUOR_STRESS=full.
bool fullStress();

// The value of the environment variable `name` when it is a positive number;
// otherwise `full` under fullStress() and `reduced` when not.
unsigned stressCount(const char* name, unsigned reduced, unsigned full);

// QUOR_STRESS_SEED when set, else a fixed seed.
std::uint64_t stressSeed();

} // namespace quor::reliability

#endif
