// Helpers of the installation tests: scratch directories, child processes whose
// output is captured, and small file utilities. The tests drive cmake, the
// shell and the installed tool as real processes, because what they check is
// what a packager or an embedding project would see.

#ifndef QUOR_TESTS_INSTALL_INSTALLTESTSUPPORT_H
#define QUOR_TESTS_INSTALL_INSTALLTESTSUPPORT_H

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quor::tests {

// A fresh directory under the system's temporary directory, removed with all
// its content when the object goes away.
class ScratchDirectory {
public:
    explicit ScratchDirectory(const std::string& purpose);
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::filesystem::path& path() const;

private:
    std::filesystem::path path_;
};

struct ProcessResult {
    int exitCode = -1;  // the exit status, or 128 + signal number
    std::string output; // standard output and standard error, interleaved
};

// Runs `arguments` (the program is looked up in PATH) in `workingDirectory`
// (unchanged when empty) and waits for it. `environment` entries replace or add
// variables; an entry with no value removes the variable.
ProcessResult runProcess(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::optional<std::string>>& environment = {},
                         const std::filesystem::path& workingDirectory = {});

// Runs `script` with /bin/sh -c.
ProcessResult runShell(const std::string& script,
                       const std::map<std::string, std::optional<std::string>>& environment = {});

// The whole file as bytes; empty when it cannot be read.
std::string readFile(const std::filesystem::path& file);

// Writes `content`, creating the parent directories. Throws on failure.
void writeFile(const std::filesystem::path& file, const std::string& content);

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
