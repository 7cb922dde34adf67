// Helpers of the installation tests alone: the programs they run (cmake, the
// shell, the installed tool) with both output streams read together, the
// fingerprint script, and the units of a library. The tests drive these as
// real processes, because what they check is what a packager or an embedding
// project would see. Scratch directories, files and the process runner itself
// come from tests/support, named here once.

#ifndef QUOR_TESTS_INSTALL_INSTALLTESTSUPPORT_H
#define QUOR_TESTS_INSTALL_INSTALLTESTSUPPORT_H

#include "tests/support/Files.h"
#include "tests/support/Processes.h"

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quor::tests {

// What the installation tests take from tests/support.
using testsupport::readFile;
using testsupport::TemporaryDirectory;
using testsupport::writeFile;

// What a program did: its exit status (or 128 + signal number) in `status`,
// standard output and standard error interleaved in `out`.
using ProcessResult = testsupport::ProgramRun;

// Runs `arguments` (the program is looked up in PATH) in `workingDirectory`
// (unchanged when empty) and waits for it. `environment` entries replace or add
// variables; an entry with no value removes the variable.
ProcessResult runProcess(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::optional<std::string>>& environment = {},
                         const std::filesystem::path& workingDirectory = {});

// Runs `script` with /bin/sh -c.
ProcessResult runShell(const std::string& script,
                       const std::map<std::string, std::optional<std::string>>& environment = {});

// The quor-stdlib that the build fingerprints the library with, or "" when it
// has none (cmake/StandardLibrary.cmake).
std::string fingerprintTool();

// Fingerprints `root` into `output` as the build does (the tool, through
// cmake/WriteStdlibFingerprint.cmake) and returns the file's content; a
// failure is reported through `result` when given.
std::string fingerprintAsTheBuildDoes(const std::filesystem::path& root,
                                      const std::filesystem::path& output,
                                      ProcessResult* result = nullptr);

// The regular ".qr" files below `root` that the bootstrap considers units,
// relative to `root` and sorted bytewise.
std::vector<std::string> libraryUnits(const std::filesystem::path& root);

} // namespace quor::tests

#endif
