// Files for every suite: scratch directories that clean up after themselves,
// whole-file reads and writes, and listings of a tree to compare before and
// after. One copy for all suites, so that a scratch directory is made and
// removed the same way everywhere, including after a test that handed part of
// it to another user or took away its write permission.

#ifndef QUOR_TESTS_SUPPORT_FILES_H
#define QUOR_TESTS_SUPPORT_FILES_H

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace quor::testsupport {

// A fresh directory "quor-<purpose>-XXXXXX" under the system's temporary
// directory (TMPDIR when set), mode 0700, removed with everything in it when
// the object goes. The removal does not depend on what the test left: folders
// without write or search permission are opened up first, and entries owned
// by another user go as long as this process may remove them (root may).
// Whatever cannot be removed is named on standard error and left; it never
// fails the test. Throws std::system_error when the directory cannot be made.
class TemporaryDirectory {
public:
    explicit TemporaryDirectory(std::string_view purpose = "test");
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

// Whether writeFile() makes the missing directories above the file.
enum class Parents {
    Create,    // like mkdir -p: the usual case, a test lays out a tree
    MustExist, // the test has built (or deliberately broken) the tree itself
};

// Writes `bytes` exactly as given (no newline translation), replacing the
// file, through a symbolic link at its place if there is one. Throws
// std::runtime_error (or std::filesystem::filesystem_error for a parent that
// cannot be made) naming the file and the reason when it cannot be written.
void writeFile(const std::filesystem::path& file, std::string_view bytes,
               Parents parents = Parents::Create);

// What readFile() does with a file it cannot read (missing, a directory, no
// permission).
enum class Unreadable {
    Empty, // returns "": "absent" and "empty" are the same answer to the test
    Throw, // throws std::runtime_error naming the file and the reason
};

// The whole file as bytes.
std::string readFile(const std::filesystem::path& file, Unreadable unreadable = Unreadable::Empty);

// Every path below `root` (links not followed), relative to it; empty when
// `root` cannot be listed.
std::set<std::string> pathsBelow(const std::filesystem::path& root);

// Every regular file below `root` (relative path -> bytes); symbolic links
// and directories are left out.
std::map<std::string, std::string> snapshotTree(const std::filesystem::path& root);

// Every entry below `root`, relative path -> what it is: "dir <mode>",
// "link -> <target>", "file <mode> <bytes>", or "other <mode>". Two trees with
// equal results hold the same names, kinds, permissions and bytes.
std::map<std::string, std::string> wholeTree(const std::filesystem::path& root);

// Relative paths of every entry below `root` whose name contains `needle`.
std::vector<std::string> findNames(const std::filesystem::path& root, const std::string& needle);

} // namespace quor::testsupport

#endif
