// Scratch directories, whole-file reads and writes, tree listings; see Files.h.

#include "tests/support/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace quor::testsupport {

namespace fs = std::filesystem;

namespace {

// Gives the owner read, write and search permission on `directory` and on
// every directory below it, without following links, so that a tree a test
// made read-only (or unsearchable) can be removed. Directories this process
// may not change are passed over: the removal then reports them.
void openUp(const fs::path& directory) {
    struct stat info {};
    if (::lstat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        return;
    }
    if ((info.st_mode & S_IRWXU) != S_IRWXU) {
        [[maybe_unused]] const int ignored = ::chmod(directory.c_str(), info.st_mode | S_IRWXU);
    }
    std::error_code error;
    for (fs::directory_iterator it(directory, error), end; !error && it != end;
         it.increment(error)) {
        openUp(it->path());
    }
}

std::runtime_error fileError(const char* what, const fs::path& file, int error) {
    return std::runtime_error(std::string(what) + " " + file.native() + ": " +
                              std::strerror(error));
}

} // namespace

TemporaryDirectory::TemporaryDirectory(std::string_view purpose) {
    std::string pattern =
        (fs::temp_directory_path() / ("quor-" + std::string(purpose) + "-XXXXXX")).native();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
    }
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code error;
    fs::remove_all(path_, error);
    if (!error) {
        return;
    }
    // A test may leave folders without write or search permission behind
    // (what an unprivileged child could not get into, or a read-only cache).
    openUp(path_);
    error.clear();
    fs::remove_all(path_, error);
    if (error) {
        // A leftover only costs disk space; failing the test for it would hide
        // what the test itself found.
        std::fprintf(stderr, "note: scratch directory %s left behind: %s\n", path_.c_str(),
                     error.message().c_str());
    }
}

void writeFile(const fs::path& file, std::string_view bytes, Parents parents) {
    if (parents == Parents::Create && file.has_parent_path()) {
        fs::create_directories(file.parent_path());
    }
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        throw fileError("cannot write", file, errno);
    }
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = ::write(fd, bytes.data() + written, bytes.size() - written);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            const int error = count < 0 ? errno : EIO;
            ::close(fd); // the write already failed; that is what the caller hears
            throw fileError("cannot write", file, error);
        }
        written += static_cast<std::size_t>(count);
    }
    if (::close(fd) != 0) {
        throw fileError("cannot write", file, errno);
    }
}

std::string readFile(const fs::path& file, Unreadable unreadable) {
    const auto fail = [&](int error) -> std::string {
        if (unreadable == Unreadable::Throw) {
            throw fileError("cannot read", file, error);
        }
        return {};
    };
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return fail(errno);
    }
    std::string bytes;
    char buffer[65536];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            const int error = errno;
            ::close(fd); // read-only: nothing to lose
            return fail(error);
        }
        if (count == 0) {
            break;
        }
        bytes.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(fd); // read-only: nothing to lose
    return bytes;
}

std::set<std::string> pathsBelow(const fs::path& root) {
    std::set<std::string> entries;
    std::error_code error;
    for (fs::recursive_directory_iterator it(root, error), end; !error && it != end;
         it.increment(error)) {
        entries.insert(it->path().lexically_relative(root).native());
    }
    return entries;
}

std::map<std::string, std::string> snapshotTree(const fs::path& root) {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file() && !entry.is_symlink()) {
            files[entry.path().lexically_relative(root).generic_string()] = readFile(entry.path());
        }
    }
    return files;
}

std::map<std::string, std::string> wholeTree(const fs::path& root) {
    std::map<std::string, std::string> entries;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string relative = entry.path().lexically_relative(root).generic_string();
        const fs::file_status status = entry.symlink_status();
        const std::string mode = std::to_string(static_cast<unsigned>(status.permissions()));
        if (fs::is_symlink(status)) {
            entries[relative] = "link -> " + fs::read_symlink(entry.path()).native();
        } else if (fs::is_directory(status)) {
            entries[relative] = "dir " + mode;
        } else if (fs::is_regular_file(status)) {
            entries[relative] = "file " + mode + " " + readFile(entry.path());
        } else {
            entries[relative] = "other " + mode;
        }
    }
    return entries;
}

std::vector<std::string> findNames(const fs::path& root, const std::string& needle) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::recursive_directory_iterator it(root, error), end; !error && it != end;
         it.increment(error)) {
        if (it->path().filename().native().find(needle) != std::string::npos) {
            names.push_back(it->path().lexically_relative(root).generic_string());
        }
    }
    return names;
}

} // namespace quor::testsupport
