// Driving quor-stdlib as a process for the crash and contention harnesses: a
// generated standard library big enough that a build takes a while, starting
// and killing the tool, and snapshots of a cache to compare byte for byte.

#ifndef QUOR_TESTS_RELIABILITY_TOOLHARNESS_H
#define QUOR_TESTS_RELIABILITY_TOOLHARNESS_H

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace quor::reliability {

// The built tool, or an empty path when this build has no tool.
std::filesystem::path toolPath();

// A standard library of `units` well-formed units in nested packages, about
// `unitBytes` each, written below `root`. Every tenth unit declares a generic
// type and so is left out of the precompiled library. Writes the installed
// fingerprint file with a fingerprint drawn from `seed`. Returns the paths,
// relative to `root`, of the units a build compiles.
std::vector<std::filesystem::path> generateLibrary(const std::filesystem::path& root,
                                                   unsigned units, std::size_t unitBytes,
                                                   std::uint64_t seed);

// Writes a new fingerprint (64 hexadecimal digits drawn from `seed`) into the
// installed fingerprint file of the library at `root`, and returns it.
std::string writeFingerprint(const std::filesystem::path& root, std::uint64_t seed);

// Starts the tool with `arguments`, standard input from /dev/null and both
// output streams into `output` (appended). Returns the child's pid.
pid_t startTool(const std::vector<std::string>& arguments, const std::filesystem::path& output);

struct ToolRun {
    int status = -1;    // exit status, or 128 + signal
    std::string output; // standard output and standard error, interleaved
};

// Runs the tool to the end.
ToolRun runTool(const std::vector<std::string>& arguments,
                const std::filesystem::path& scratchOutput);

// Every entry below `root` (relative path -> content), skipping those for
// which `skip` of their name is true. Directories, symbolic links and special
// files are listed with a content that says what they are.
using Tree = std::map<std::string, std::string>;
Tree snapshot(const std::filesystem::path& root, bool (*skip)(const std::string& name) = nullptr);

// The state directory and marker of a cache root, as the unit lays them out.
std::filesystem::path markerPathOf(const std::filesystem::path& cacheRoot);
std::filesystem::path libCacheOf(const std::filesystem::path& cacheRoot);

// True when the marker below `cacheRoot` certifies this compiler for `fingerprint`.
bool markerValid(const std::filesystem::path& cacheRoot, const std::string& fingerprint);

} // namespace quor::reliability

#endif
