// Helpers shared by the service tests: temporary directories, whole-file reads
// and writes, snapshots of directory trees, a scoped runtime configuration, and
// an inotify-based counter of how often files are opened.

#ifndef QUOR_TESTS_SERVICES_SERVICESTESTSUPPORT_H
#define QUOR_TESTS_SERVICES_SERVICESTESTSUPPORT_H

#include "compiler/Runtime.h"

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace quor::test {

namespace fs = std::filesystem;

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

// Creates the parent directories as needed. Fails the test on error.
void writeFile(const fs::path& path, const std::string& text);
std::string readFile(const fs::path& path);

// Every regular file below `root` (relative path -> bytes), symbolic links and
// directories left out.
std::map<std::string, std::string> snapshotTree(const fs::path& root);

// Every entry below `root`, relative path -> what it is: "dir", "link -> <target>",
// "file <mode> <bytes>", or "other <mode>". Two trees with equal results hold the
// same names, kinds, permissions and bytes.
std::map<std::string, std::string> wholeTree(const fs::path& root);

// Relative paths of every entry below `root` whose name contains `needle`.
std::vector<std::string> findNames(const fs::path& root, const std::string& needle);

// The number of threads of this process, from /proc/self/task, once any
// helper thread of a sanitizer runtime has been started.
std::size_t threadCount();

// Sets the runtime's configuration for the lifetime of the object and puts the
// empty configuration back afterwards.
class ScopedRuntime {
public:
    explicit ScopedRuntime(const compiler::RuntimeConfiguration& configuration);
    ~ScopedRuntime();
    ScopedRuntime(const ScopedRuntime&) = delete;
    ScopedRuntime& operator=(const ScopedRuntime&) = delete;
};

// Sets or unsets one environment variable for the lifetime of the object.
class ScopedEnvironment {
public:
    ScopedEnvironment(std::string name, const char* value);
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    std::string name_;
    bool hadValue_ = false;
    std::string oldValue_;
};

// Counts IN_OPEN events, per file, for the files directly inside every
// directory of a tree (the tree as it is when the counter is created).
class OpenCounter {
public:
    explicit OpenCounter(const fs::path& root);
    ~OpenCounter();
    OpenCounter(const OpenCounter&) = delete;
    OpenCounter& operator=(const OpenCounter&) = delete;

    // Drains the pending events; returns the opens per path relative to the root.
    std::map<std::string, int> collect();

private:
    int fd_ = -1;
    std::map<int, std::string> directories_; // watch descriptor -> relative directory
};

} // namespace quor::test

#endif
