// Helpers of the quor-stdlib tests alone: a temporary library and cache root,
// and the built tool run as a child process (through pipes or on a
// pseudo-terminal) with the environment these tests give it. Scratch
// directories, files, programs and lock holders come from tests/support,
// named here once.

#ifndef QUOR_TESTS_TOOL_TOOLTESTSUPPORT_H
#define QUOR_TESTS_TOOL_TOOLTESTSUPPORT_H

#include "tests/support/Files.h"
#include "tests/support/Locks.h"
#include "tests/support/Processes.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <filesystem>
#include <string>
#include <sys/types.h>
#include <vector>

namespace quor::tooltest {

namespace fs = std::filesystem;

// What the tool tests take from tests/support.
using testsupport::LockHolderProcess;
using testsupport::LockState;
using testsupport::probeLock;
using testsupport::ProgramOptions;
using testsupport::readFile;
using testsupport::runProgram;
using testsupport::TemporaryDirectory;
using testsupport::writeFile;

// What a run of the tool did: status, standard output and error, and time.
using ToolRun = testsupport::ProgramRun;

// A fresh directory holding a small standard library ("stdlib") and an empty
// cache root ("cache"), removed with everything in it when the object goes.
//   Prelude.qr                 top-level functions, no header: compiled
//   core/Object.qr             compiled
//   core/Text.qr               compiled
//   collections/List.qr        generic: left out
//   collections/Stack.qr       compiled
//   collections/Notes.QR       wrong extension: left out
//   core/Alias.qr              symbolic link to Object.qr: left out
class Sandbox {
public:
    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    static constexpr std::size_t compilableUnits = 4;

    const fs::path& path() const { return directory_.path(); }
    fs::path library() const { return path() / "stdlib"; }
    fs::path cacheRoot() const { return path() / "cache"; }
    fs::path stateDirectory() const;
    fs::path marker() const { return stateDirectory() / ".quor-stdlib-ready"; }
    fs::path lockFile() const;

    // "--stdlib <library> --cache-root <cache root>" followed by `arguments`.
    std::vector<std::string> arguments(std::vector<std::string> arguments) const;

private:
    TemporaryDirectory directory_{"tool-test"};
};

// The environment the tool runs with in these tests: the caller's, without
// QUOR_* variables, with NO_COLOR set, TERM=xterm, HOME pointing at `home`,
// then `extra` ("NAME=value"), which replaces an inherited variable of that name.
std::vector<std::string> toolEnvironment(const fs::path& home,
                                         const std::vector<std::string>& extra = {});

// The built tool with `arguments`, in the environment toolEnvironment(home,
// extra) gives, its standard output and error read apart.
ProgramOptions toolOptions(const std::vector<std::string>& arguments, const fs::path& home,
                           const std::vector<std::string>& extra = {});

// Runs the built tool with `arguments` and waits for it, in the environment
// toolEnvironment(home, extra) gives.
ToolRun runTool(const std::vector<std::string>& arguments, const fs::path& home,
                const std::vector<std::string>& extra = {});

// The tool started in the background with toolOptions(), its output read as
// it comes (see testsupport::Program).
class ToolProcess : public testsupport::Program {
public:
    ToolProcess(const std::vector<std::string>& arguments, const fs::path& home,
                const std::vector<std::string>& extra = {})
        : Program(toolOptions(arguments, home, extra)) {}
};

// Each line of `text` that is not empty, parsed as a JSON document: what
// `ensure --json` writes (JSON Lines).
std::vector<nlohmann::json> jsonLines(const std::string& text);

// `status --json` for the sandbox (with `extra` after it), which must exit 0.
nlohmann::json statusOf(const Sandbox& sandbox, std::vector<std::string> extra = {});

// Runs the tool on a new pseudo-terminal (forkpty) of `columns` columns and
// returns everything it wrote to the terminal, with its exit status.
ToolRun runToolOnTerminal(const std::vector<std::string>& arguments, const fs::path& home,
                          unsigned short columns);

// Rewrites line `index` (0-based) of the marker file at `marker`.
void editMarkerLine(const fs::path& marker, std::size_t index, const std::string& line);

} // namespace quor::tooltest

#endif
