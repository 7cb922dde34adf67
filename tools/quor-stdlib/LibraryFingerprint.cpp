// The library fingerprint recipe, for the build's library and any other; see
// LibraryFingerprint.h.

#include "LibraryFingerprint.h"

#include "Failure.h"

#include "compiler/Sha256.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace quor::stdlibtool {

namespace {

namespace fs = std::filesystem;

ToolError unreadable(const fs::path& path, int error) {
    return ToolError(kind::io, "Unable to read '" + path.string() +
                                   "' for the fingerprint: " + std::strerror(error));
}

// The SHA-256 of the unit's bytes in hexadecimal. The file is opened without
// following a link and without blocking, so a link or a FIFO swapped in after
// the walk saw a regular file is refused instead of read or waited on.
std::string unitDigest(const fs::path& unit) {
    const int fd = ::open(unit.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        throw unreadable(unit, errno);
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        const int error = S_ISREG(info.st_mode) ? errno : EINVAL;
        ::close(fd);
        throw unreadable(unit, error);
    }
    compiler::Sha256 digest;
    char buffer[1 << 16];
    while (true) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got == 0)
            break;
        if (got < 0) {
            if (errno == EINTR)
                continue;
            const int error = errno;
            ::close(fd);
            throw unreadable(unit, error);
        }
        digest.update(std::string_view(buffer, static_cast<std::size_t>(got)));
    }
    ::close(fd);
    return compiler::Sha256::toHex(digest.finish());
}

} // namespace

LibraryFingerprint computeLibraryFingerprint(const fs::path& root) {
    std::vector<UnreachableEntry> unreachable;
    const std::vector<std::string> units = libraryUnitFiles(root, &unreachable);
    if (!unreachable.empty())
        throw ToolError(kind::io, "Unable to read '" + unreachable.front().path.string() +
                                      "' for the fingerprint: " + unreachable.front().reason);
    const fs::path base = root.lexically_normal();
    compiler::Sha256 manifest;
    for (const std::string& unit : units) {
        const std::string relative = fs::path(unit).lexically_relative(base).generic_string();
        if (relative.find_first_of("\n\\") != std::string::npos)
            throw ToolError(kind::io, "Unable to fingerprint '" + root.string() +
                                          "': unsupported character in file name '" + relative +
                                          "' (a line feed or a backslash)");
        manifest.update(unitDigest(unit));
        manifest.update("  ");
        manifest.update(relative);
        manifest.update("\n");
    }
    return {compiler::Sha256::toHex(manifest.finish()), units.size()};
}

std::string fingerprintMismatch(const Identity& inUse, const LibraryFingerprint& actual,
                                const fs::path& library) {
    if (inUse.fingerprint == actual.value)
        return {};
    std::string_view why;
    switch (inUse.source) {
    case FingerprintSource::InstalledFile:
        why = "the library's fingerprint file is out of date";
        break;
    case FingerprintSource::BuildTreeFile:
        why = "the library has no fingerprint file, and the build tree's describes another library";
        break;
    case FingerprintSource::Fallback:
        why = "the library has no fingerprint file, and the fallback describes no library";
        break;
    }
    return std::string(why) + "; run 'quor-stdlib fingerprint --write " + library.string() +
           "' so that its changes cause a rebuild";
}

} // namespace quor::stdlibtool
