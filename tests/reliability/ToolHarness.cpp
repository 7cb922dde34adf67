// Process and library helpers of the crash and contention harnesses; see
// ToolHarness.h.

#include "tests/reliability/ToolHarness.h"

#include "compiler/Compiler.h"
#include "compiler/StandardLibraryCacheState.h"
#include "quor/Config.h"
#include "tests/reliability/ReliabilitySupport.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <random>
#include <sstream>
#include <stdexcept>

namespace quor::reliability {

namespace fs = std::filesystem;

fs::path toolPath() {
#ifdef QUOR_STDLIB_TOOL
    return QUOR_STDLIB_TOOL;
#else
    return {};
#endif
}

namespace {

const char* const kPackages[] = {"core", "collections", "collections/immutable", "text", "io",
                                 "math", "time/zones"};

std::string packageLine(const std::string& folder) {
    std::string dotted = folder;
    for (char& c : dotted) {
        c = c == '/' ? '.' : c;
    }
    return "package " + dotted + "\n";
}

std::string unitText(const std::string& folder, const std::string& name, bool generic,
                     std::size_t bytes, std::mt19937_64& random) {
    std::ostringstream text;
    text << packageLine(folder) << "\nuse core.Option\n\n/* Generated for the reliability "
         << "harnesses. */\n";
    text << "public sealed class " << name << (generic ? "<T>" : "") << " : Sized {\n";
    text << "    var items: Array<Int>\n\n";
    unsigned function = 0;
    while (static_cast<std::size_t>(text.tellp()) < bytes) {
        const unsigned value = static_cast<unsigned>(random() % 100000);
        text << "    fn step" << function << "(value: Int) -> Int {\n"
             << "        let scaled = value * " << value << " + 0x" << std::hex << value << std::dec
             << "\n"
             << "        if scaled > " << value << " { return scaled - 1 }\n"
             << "        return items.count() + \"text " << function << "\".length()\n"
             << "    }\n\n";
        ++function;
    }
    text << "}\n\npublic fn make" << name << "() -> Int {\n    return 0\n}\n";
    return text.str();
}

std::string hexDigits(std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::string digits;
    const char* hex = "0123456789abcdef";
    for (int i = 0; i < 64; ++i) {
        digits += hex[random() % 16];
    }
    return digits;
}

} // namespace

std::string writeFingerprint(const fs::path& root, std::uint64_t seed) {
    const std::string fingerprint = hexDigits(seed);
    writeFile(root / ".quor-stdlib-fingerprint", fingerprint + "\n", Parents::MustExist);
    return fingerprint;
}

std::vector<fs::path> generateLibrary(const fs::path& root, unsigned units, std::size_t unitBytes,
                                      std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::vector<fs::path> compiled;
    for (unsigned i = 0; i < units; ++i) {
        const std::string folder = kPackages[i % std::size(kPackages)];
        const bool generic = i % 10 == 9;
        const std::string name = (generic ? "Generic" : "Unit") + std::to_string(i);
        fs::create_directories(root / folder);
        const fs::path relative = fs::path(folder) / (name + ".qr");
        writeFile(root / relative, unitText(folder, name, generic, unitBytes, random),
                  Parents::MustExist);
        if (!generic) {
            compiled.push_back(relative);
        }
    }
    writeFingerprint(root, seed);
    return compiled;
}

pid_t startTool(const std::vector<std::string>& arguments, const fs::path& output) {
    std::vector<std::string> command = {toolPath().string()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : command) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::runtime_error("fork failed");
    }
    if (child == 0) {
        const int input = ::open("/dev/null", O_RDONLY);
        const int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (input < 0 || out < 0 || ::dup2(input, 0) < 0 || ::dup2(out, 1) < 0 ||
            ::dup2(out, 2) < 0) {
            ::_exit(127);
        }
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    return child;
}

ToolRun runTool(const std::vector<std::string>& arguments, const fs::path& scratchOutput) {
    std::error_code ignored;
    fs::remove(scratchOutput, ignored); // a missing file is what we want
    ToolRun run;
    run.status = waitForChild(startTool(arguments, scratchOutput));
    run.output = readFile(scratchOutput, Unreadable::Throw);
    return run;
}

Tree snapshot(const fs::path& root, bool (*skip)(const std::string& name)) {
    Tree tree;
    std::error_code error;
    if (!fs::exists(root, error)) {
        return tree;
    }
    for (fs::recursive_directory_iterator entry(root), end; entry != end; ++entry) {
        const std::string name = entry->path().filename().string();
        if (skip != nullptr && skip(name)) {
            continue;
        }
        const std::string relative = entry->path().lexically_relative(root).string();
        const fs::file_status status = entry->symlink_status();
        if (fs::is_regular_file(status)) {
            tree[relative] = readFile(entry->path(), Unreadable::Throw);
        } else if (fs::is_symlink(status)) {
            tree[relative] = "<link>";
        } else if (fs::is_directory(status)) {
            tree[relative] = "<directory>";
        } else {
            tree[relative] = "<special>";
        }
    }
    return tree;
}

fs::path markerPathOf(const fs::path& cacheRoot) {
    return cacheRoot / ".first-launch" / QUOR_COMPILER_VERSION / "lib" / ".quor-stdlib-ready";
}

fs::path libCacheOf(const fs::path& cacheRoot) {
    return cacheRoot / QUOR_COMPILER_VERSION / "lib";
}

bool markerValid(const fs::path& cacheRoot, const std::string& fingerprint) {
    const compiler::StandardLibraryCacheState state(
        markerPathOf(cacheRoot).parent_path(), QUOR_COMPILER_VERSION,
        compiler::Compiler::objectAbiVersion(), fingerprint);
    return state.isReady();
}

} // namespace quor::reliability
