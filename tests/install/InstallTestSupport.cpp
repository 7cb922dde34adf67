// The installation tests' own helpers; see InstallTestSupport.h. Each child
// gets its environment from the runner, so that one child's variables never
// touch the test process, which other tests share.

#include "InstallTestSupport.h"

#include <algorithm>

namespace quor::tests {

namespace fs = std::filesystem;

ProcessResult runProcess(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::optional<std::string>>& environment,
                         const fs::path& workingDirectory) {
    testsupport::ProgramOptions options;
    options.arguments = arguments;
    options.changes = environment;
    options.workingDirectory = workingDirectory;
    options.mergeOutput = true;
    return testsupport::runProgram(options);
}

ProcessResult runShell(const std::string& script,
                       const std::map<std::string, std::optional<std::string>>& environment) {
    return runProcess({"/bin/sh", "-c", script}, environment);
}

std::string fingerprintTool() {
    return QUOR_TEST_STDLIB_TOOL;
}

std::string fingerprintAsTheBuildDoes(const fs::path& root, const fs::path& output,
                                      ProcessResult* result) {
    ProcessResult run =
        runProcess({QUOR_TEST_CMAKE_COMMAND, "-DTOOL=" + fingerprintTool(),
                    "-DROOT=" + root.string(), "-DOUTPUT=" + output.string(), "-P",
                    std::string(QUOR_TEST_SOURCE_DIR) + "/cmake/WriteStdlibFingerprint.cmake"});
    if (result != nullptr) {
        *result = run;
    }
    return readFile(output);
}

std::vector<std::string> libraryUnits(const fs::path& root) {
    std::vector<std::string> units;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
         ++it) {
        if (it->is_symlink() || !it->is_regular_file() || it->path().extension() != ".qr") {
            continue;
        }
        units.push_back(fs::relative(it->path(), root).generic_string());
    }
    std::sort(units.begin(), units.end());
    return units;
}

} // namespace quor::tests
