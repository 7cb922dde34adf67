// The standard-library bootstrap in one translation unit, in the order its
// pieces build on each other: the readiness marker, the cache state that
// checks and publishes it, the first-launch state that says which identity the
// running compiler expects, the progress adapter, the driver with its build
// lock, and the pruning of older versions' caches.
//
// The bootstrap keeps nothing between calls and starts no thread; everything runs on
// the caller's thread. File-system work goes through the std::filesystem forms
// that report into a std::error_code, so that every failure becomes one of the
// bootstrap's own messages. The lock is plain POSIX (open, flock, close), and so is
// the ready path, which every compiler start pays for: the two small files are
// read with open/read/close, the state's paths are composed as text, and the
// library root is asked with stat only when its fingerprint file does not
// already show that it is a directory.

#include "compiler/StandardLibraryBootstrap.h"

#include "compiler/BootstrapExplanation.h"
#include "compiler/CacheLayout.h"
#include "compiler/Compiler.h"
#include "compiler/Runtime.h"
#include "compiler/SourceManager.h"
#include "compiler/StandardLibraryCacheState.h"
#include "compiler/source/TypeHeader.h"
#include "quor/Config.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <locale>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#ifndef QUOR_COMPILER_VERSION
#error "QUOR_COMPILER_VERSION must come from the build configuration"
#endif
#ifndef QUOR_BUILD_TREE_DIR
#error "QUOR_BUILD_TREE_DIR must come from the build configuration"
#endif

namespace quor::compiler {
namespace {

namespace fs = std::filesystem;

// The one compiler version of this build; the first-launch state and pruning
// both use it, so a cache is never certified for one version and pruned as
// another.
constexpr std::string_view compilerVersion = QUOR_COMPILER_VERSION;
constexpr const char* buildTreeDirectory = QUOR_BUILD_TREE_DIR;

// ---------------------------------------------------------------------------
// Failure messages
//
// The fixed opening of every message the bootstrap throws, spelled once: the throw
// sites below compose their messages from these, and failureMessages() lists
// them with what each is about, so that a caller sorting failures (the tool's
// JSON `kind`) recognises the bootstrap's words without a copy of them. The path
// and, where one is at hand, the system's text follow each opening.
namespace message {
constexpr std::string_view createStateDirectory =
    "Unable to create standard-library cache directory '";
constexpr std::string_view writeMarker = "Unable to write standard-library cache marker '";
constexpr std::string_view flushMarker = "Unable to flush standard-library cache marker '";
constexpr std::string_view publishMarker = "Unable to publish standard-library cache marker: ";
constexpr std::string_view createCacheRoot = "Unable to create Quor cache root '";
constexpr std::string_view lock = "Unable to lock Quor standard-library cache '";
constexpr std::string_view enumerate = "Unable to enumerate Quor standard library '";
constexpr std::string_view noUnits = "Quor standard library contains no compilable source units: ";
constexpr std::string_view inspectCacheRoot = "Unable to inspect Quor cache root '";
constexpr std::string_view listVersions = "Unable to inspect Quor cache versions in '";
constexpr std::string_view unsafeRemoval = "Refusing to remove unsafe Quor cache path '";
constexpr std::string_view removeVersion = "Unable to remove old Quor cache '";
constexpr std::string_view removeVersionState = "Unable to remove old Quor first-launch state '";
} // namespace message

using explain::FailureCause;

constexpr std::array<explain::FailureMessage, 13> failureTable{{
    {message::createStateDirectory, FailureCause::FileSystem},
    {message::writeMarker, FailureCause::FileSystem},
    {message::flushMarker, FailureCause::FileSystem},
    {message::publishMarker, FailureCause::FileSystem},
    {message::createCacheRoot, FailureCause::FileSystem},
    {message::lock, FailureCause::Lock},
    {message::enumerate, FailureCause::FileSystem},
    {message::noUnits, FailureCause::EmptyLibrary},
    {message::inspectCacheRoot, FailureCause::FileSystem},
    {message::listVersions, FailureCause::FileSystem},
    {message::unsafeRemoval, FailureCause::UnsafePath},
    {message::removeVersion, FailureCause::FileSystem},
    {message::removeVersionState, FailureCause::FileSystem},
}};

// The bootstrap's message: its opening, then the rest.
std::runtime_error failure(std::string_view opening, std::string_view rest) {
    std::string text(opening);
    text += rest;
    return std::runtime_error(text);
}

// ---------------------------------------------------------------------------
// Readiness marker
//
// Five lines, each ended by a line feed:
//     QUOR_STANDARD_LIBRARY_CACHE
//     format=1
//     version=<compiler version>
//     abi=<object ABI number>
//     fingerprint=<library fingerprint>
// Keys are positional. Values read back are trimmed; expected values are not,
// so an identity whose text begins or ends with white space never validates.
// The names and numbers are compiler/CacheLayout.h's, which the tool shares;
// only space, tab, carriage return and line feed count as white space.

std::string_view trim(std::string_view text) {
    const std::size_t first = text.find_first_not_of(layout::lineWhiteSpace);
    if (first == std::string_view::npos) {
        return {};
    }
    const std::size_t last = text.find_last_not_of(layout::lineWhiteSpace);
    return text.substr(first, last - first + 1);
}

// The value `line` gives for `key`, or empty when the line does not begin with
// exactly "key=". A missing key and an empty value read the same.
std::string_view markerValue(std::string_view line, std::string_view key) {
    if (line.size() <= key.size() || line.compare(0, key.size(), key) != 0 ||
        line[key.size()] != '=') {
        return {};
    }
    return trim(line.substr(key.size() + 1));
}

// Reads the first lines of a file with plain system calls, exactly as
// std::getline reads them from a stream: a line ends at a line feed, which is
// dropped, and a read fails only when the file is already at its end (or
// cannot be read at all). The ready path reads two small files on every
// compiler start; a stream object costs several times the system calls
// themselves.
//
// Only a regular file opens. The open does not wait (a FIFO would otherwise
// block until some writer came), and a FIFO, a device, a socket or a directory
// then reads as a file that is not there. A line longer than layout::maxLineLength
// fails the read instead of growing without end: no marker line or fingerprint
// line of that length can certify anything, and a huge sparse file or a link
// to /dev/zero must be judged as fast as any other.
class LineReader {
public:
    explicit LineReader(const char* path)
        : fd_(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)), opened_(fd_ >= 0) {
        if (fd_ < 0) {
            openError_ = errno;
            return;
        }
        struct stat status {};
        if (::fstat(fd_, &status) != 0) {
            openError_ = errno;
        } else {
            type_ = status.st_mode & S_IFMT;
        }
        if (type_ != S_IFREG) {
            ::close(fd_); // opened read-only: closing cannot lose anything
            fd_ = -1;
        }
    }
    ~LineReader() {
        if (fd_ >= 0) {
            ::close(fd_); // opened read-only: closing cannot lose anything
        }
    }
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    bool isOpen() const { return fd_ >= 0; }

    // Whether the path named something that could be opened at all, even if
    // it was then refused for not being a regular file.
    bool pathOpened() const { return opened_; }

    // For an explanation of a file that reads as none or ends early: the errno
    // of a failed open (or of the fstat after it), else 0; the type bits
    // (S_IFMT) of what was opened, else 0; whether a read ended at a line
    // longer than layout::maxLineLength, or at a read error rather than at the
    // end of the file. The decisions never look at them.
    int openError() const { return openError_; }
    mode_t type() const { return type_; }
    bool lineTooLong() const { return lineTooLong_; }
    bool readFailed() const { return readFailed_; }

    // The next line as a view that stays valid until the next call. A line
    // that lies whole in the buffer is not copied; only one that spans reads
    // is put together in a string of the reader's own.
    bool readLine(std::string_view& line) {
        if (position_ < size_) {
            const char* begin = buffer_ + position_;
            const auto* newline =
                static_cast<const char*>(std::memchr(begin, '\n', size_ - position_));
            if (newline != nullptr) {
                line = std::string_view(begin, static_cast<std::size_t>(newline - begin));
                position_ = static_cast<std::size_t>(newline - buffer_) + 1;
                return true;
            }
        }
        if (!readSpanningLine()) {
            return false;
        }
        line = spanning_;
        return true;
    }

private:
    // A line that does not lie whole in the buffer, put together in
    // spanning_ across as many reads as it takes, with getline's rules.
    bool readSpanningLine() {
        std::string& line = spanning_;
        line.clear();
        bool extracted = false;
        while (position_ < size_ || fill()) {
            const char* begin = buffer_ + position_;
            const auto* newline =
                static_cast<const char*>(std::memchr(begin, '\n', size_ - position_));
            const char* end = newline != nullptr ? newline : buffer_ + size_;
            if (line.size() + static_cast<std::size_t>(end - begin) > layout::maxLineLength) {
                // Nothing after an over-long line is read either.
                lineTooLong_ = true;
                position_ = size_ = 0;
                ::close(fd_); // opened read-only: closing cannot lose anything
                fd_ = -1;
                return false;
            }
            line.append(begin, end);
            if (newline != nullptr) {
                position_ = static_cast<std::size_t>(newline - buffer_) + 1;
                return true;
            }
            position_ = size_;
            extracted = true;
        }
        return extracted;
    }

    // A read error ends the file as its end would: what was read so far counts.
    bool fill() {
        while (fd_ >= 0) {
            const ssize_t count = ::read(fd_, buffer_, sizeof buffer_);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                readFailed_ = count < 0;
                return false;
            }
            position_ = 0;
            size_ = static_cast<std::size_t>(count);
            return true;
        }
        return false;
    }

    int fd_;
    bool opened_;
    int openError_ = 0;
    mode_t type_ = 0;
    bool lineTooLong_ = false;
    bool readFailed_ = false;
    char buffer_[512];
    std::size_t position_ = 0;
    std::size_t size_ = 0;
    std::string spanning_;
};

// `value` in decimal as std::to_string writes an int, in `buffer`.
std::string_view decimal(int value, char (&buffer)[16]) {
    const char* end = std::to_chars(std::begin(buffer), std::end(buffer), value).ptr;
    return {buffer, static_cast<std::size_t>(end - buffer)};
}

// Whether the marker at `markerPath` certifies exactly this identity: the file
// opens, its first five lines can be read (a fifth line needs a byte or a line
// feed) and each says what it must. The lines are judged as they are read; the
// verdict is the same as reading all five first.
bool markerCertifies(const char* markerPath, std::string_view version, int abiVersion,
                     std::string_view fingerprint) {
    LineReader reader(markerPath);
    if (!reader.isOpen()) {
        return false;
    }
    char abiText[16];
    char formatText[16];
    const std::string_view abi = decimal(abiVersion, abiText);
    const std::string_view format = decimal(layout::markerFormat, formatText);
    std::string_view line;
    // The header is compared untrimmed: a carriage return after it (a marker
    // rewritten with CRLF line ends) makes the whole marker invalid.
    return reader.readLine(line) && line == layout::markerHeader && reader.readLine(line) &&
           markerValue(line, "format") == format && reader.readLine(line) &&
           markerValue(line, "version") == version && reader.readLine(line) &&
           markerValue(line, "abi") == abi && reader.readLine(line) &&
           markerValue(line, "fingerprint") == fingerprint;
}

// ".tmp." + hash of the calling thread's id + "." + steady-clock ticks: distinct
// for concurrent writers in one process and across processes that share the
// cache, because no two of them read the same tick on the same thread hash.
std::string temporaryMarkerSuffix() {
    std::ostringstream suffix;
    suffix.imbue(std::locale::classic());
    suffix << ".tmp."
           << static_cast<std::uint64_t>(std::hash<std::thread::id>{}(std::this_thread::get_id()))
           << "."
           << static_cast<std::int64_t>(
                  std::chrono::steady_clock::now().time_since_epoch().count());
    return suffix.str();
}

} // namespace

// ---------------------------------------------------------------------------
// Cache state

// The parameters are the class's published signature, taken by value.
StandardLibraryCacheState::StandardLibraryCacheState(
    fs::path cacheDirectory, // NOLINT(performance-unnecessary-value-param)
    std::string version, int abiVersion, std::string fingerprint)
    : markerPath(cacheDirectory / layout::markerFileName), version(std::move(version)),
      abiVersion(abiVersion), fingerprint(std::move(fingerprint)) {}

bool StandardLibraryCacheState::isReady() const {
    return markerCertifies(markerPath.c_str(), version, abiVersion, fingerprint);
}

void StandardLibraryCacheState::markReady() const {
    const fs::path cacheDirectory = markerPath.parent_path();
    std::error_code error;
    fs::create_directories(cacheDirectory, error);
    if (error) {
        throw failure(message::createStateDirectory,
                      cacheDirectory.native() + "': " + error.message());
    }

    // A sibling of the marker, so that the rename below stays inside one
    // directory and replaces the marker atomically.
    const std::string temporaryPath = markerPath.native() + temporaryMarkerSuffix();
    {
        std::ofstream stream(temporaryPath, std::ios::out | std::ios::trunc);
        if (!stream) {
            throw failure(message::writeMarker, temporaryPath + "'");
        }
        // The global locale may group digits; the marker's numbers never are.
        stream.imbue(std::locale::classic());
        stream << layout::markerHeader << '\n'
               << "format=" << layout::markerFormat << '\n'
               << "version=" << version << '\n'
               << "abi=" << abiVersion << '\n'
               << "fingerprint=" << fingerprint << '\n';
        stream.flush();
        if (!stream) {
            std::error_code ignored;
            fs::remove(temporaryPath, ignored); // the flush error is the one worth reporting
            throw failure(message::flushMarker, temporaryPath + "'");
        }
    } // closing cannot lose data that the flush above did not already report

    // The objects the marker certifies were synced by the precompiler before it
    // returned. The marker itself is not synced: if a power loss takes it, the
    // cache reads as not ready and is built again, which is safe.
    fs::rename(temporaryPath, markerPath, error);
    if (error) {
        std::error_code ignored;
        fs::remove(temporaryPath, ignored); // the rename error is the one worth reporting
        throw failure(message::publishMarker, error.message());
    }
}

namespace {

// ---------------------------------------------------------------------------
// First-launch state
//
// Where the running compiler's readiness marker lives, and which identity it
// must carry: <cache root>/.first-launch/<version>/<lib-cache leaf>, with the
// compiler version, the object ABI and the library's fingerprint. The
// fingerprint comes from the installed library, else from the build tree, else
// from a fallback that can never look like a real fingerprint.

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

// The lower-case fingerprint on the first line `reader` gives, or empty when
// the file is missing, unreadable or does not hold exactly 64 hexadecimal
// digits.
std::string readFingerprint(LineReader& reader) {
    if (!reader.isOpen()) {
        return {};
    }
    std::string_view line;
    if (!reader.readLine(line)) {
        return {};
    }
    line = trim(line);
    if (line.size() != layout::fingerprintLength) {
        return {};
    }
    // Checked and lowered in one pass. Of the hexadecimal digits only 'A' to
    // 'F' change, and tolower maps them to 'a' to 'f' in every locale.
    std::string fingerprint(line);
    for (char& c : fingerprint) {
        if (c >= 'A' && c <= 'F') {
            c = static_cast<char>(c - 'A' + 'a');
        } else if (!isHexDigit(c)) {
            return {};
        }
    }
    return fingerprint;
}

std::string readFingerprintFile(const std::string& path) {
    LineReader reader(path.c_str());
    return readFingerprint(reader);
}

std::string fallbackFingerprint() {
    return "version-" + std::string(compilerVersion) + "-abi-" +
           std::to_string(Compiler::objectAbiVersion());
}

// The paths of the first-launch state are composed as text, by
// compiler/CacheLayout.h's rules, exactly as std::filesystem composes them on
// POSIX, because every compiler start pays for them: a path object splits its
// text into a list of element paths on construction and again on every
// append, several times the cost of the two file reads the ready path exists
// for.
using layout::appendPathElement;

// path::filename(): what follows the last '/', the whole text when there is
// none, and empty for a text that ends in '/'.
std::string_view fileNameOf(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// path::parent_path(): the text up to the end of the next-to-last element. A
// text without a relative part (empty, or only separators) is its own parent;
// a lone file name has none; the separators in front of the last file name
// go with it, except the root directory, which stays as one '/'.
std::string_view parentPathOf(std::string_view path) {
    if (path.find_first_not_of('/') == std::string_view::npos) {
        return path;
    }
    if (path.back() == '/') {
        // The last element is the empty file name after the separator.
        return path.substr(0, path.find_last_not_of('/') + 1);
    }
    const std::size_t lastSlash = path.rfind('/');
    if (lastSlash == std::string_view::npos) {
        return {};
    }
    const std::size_t previousEnd = path.find_last_not_of('/', lastSlash);
    return path.substr(0, previousEnd == std::string_view::npos ? 1 : previousEnd + 1);
}

// The running compiler's first-launch state as text, for the ready path: the
// marker's path, whose first stateDirectoryLength bytes are the state
// directory, and the identity the marker must carry.
struct FirstLaunchIdentity {
    std::string markerPath;
    std::size_t stateDirectoryLength = 0;
    int abiVersion = 0;
    std::string fingerprint;
    explain::FingerprintSource source = explain::FingerprintSource::InstalledFile;
};

// The running compiler's marker path, <cache root>/.first-launch/<version>/
// <library-cache leaf>/.quor-stdlib-ready, into `marker`, and the length of
// its state-directory prefix. Asks the runtime for the cache branch, then the
// library cache.
void composeMarkerPath(std::string& marker, std::size_t& stateDirectoryLength) {
    const std::string_view cacheRoot = parentPathOf(Runtime::getInstance().getCacheBranchPath());
    marker = layout::stateDirectoryPath(cacheRoot, compilerVersion,
                                        fileNameOf(Runtime::getInstance().getLibCachePath()));
    stateDirectoryLength = marker.size();
    appendPathElement(marker, layout::markerFileName);
}

// The installed fingerprint file of the library at `libraryDirectory`.
std::string installedFingerprintFile(const std::string& libraryDirectory) {
    return layout::installedFingerprintPath(libraryDirectory);
}

// The build tree's generated fingerprint file.
std::string buildTreeFingerprintFile() {
    return layout::buildTreeFingerprintPath(buildTreeDirectory);
}

// The identity after the installed fingerprint file has given `installed`.
FirstLaunchIdentity firstLaunchIdentityAfter(std::string installed) {
    FirstLaunchIdentity identity;
    identity.fingerprint = std::move(installed);
    if (identity.fingerprint.empty()) {
        identity.source = explain::FingerprintSource::BuildTreeFile;
        identity.fingerprint = readFingerprintFile(buildTreeFingerprintFile());
    }
    if (identity.fingerprint.empty()) {
        identity.source = explain::FingerprintSource::Fallback;
        identity.fingerprint = fallbackFingerprint();
    }
    identity.abiVersion = Compiler::objectAbiVersion();
    composeMarkerPath(identity.markerPath, identity.stateDirectoryLength);
    return identity;
}

// Computed afresh on every call, so that an installed, repaired or changed
// fingerprint file takes effect at once. Opens at most two files and touches
// nothing else on disk. The runtime and the compiler are asked in a fixed
// order: library path, then the ABI (twice when the fallback fingerprint is
// needed), then the cache branch and the library cache.
FirstLaunchIdentity currentFirstLaunchIdentity() {
    return firstLaunchIdentityAfter(readFingerprintFile(
        installedFingerprintFile(Runtime::getInstance().getStandardLibraryPath())));
}

bool isReady(const FirstLaunchIdentity& identity) {
    return markerCertifies(identity.markerPath.c_str(), compilerVersion, identity.abiVersion,
                           identity.fingerprint);
}

// The same state as a StandardLibraryCacheState, whose marker path is the
// identity's marker path.
StandardLibraryCacheState cacheStateOf(const FirstLaunchIdentity& identity) {
    return StandardLibraryCacheState(
        fs::path(std::string_view(identity.markerPath).substr(0, identity.stateDirectoryLength)),
        std::string(compilerVersion), identity.abiVersion, identity.fingerprint);
}

StandardLibraryCacheState currentFirstLaunchState() {
    return cacheStateOf(currentFirstLaunchIdentity());
}

// ---------------------------------------------------------------------------
// Progress

// The short label of a unit: its folder below the library root, dotted
// ("collections/immutable/List.qr" gives "collections.immutable"). A unit that
// does not lie below the root is labelled with the folder that holds it.
std::string displayNameOf(const std::string& sourcePath, const fs::path& root) {
    const fs::path unit(sourcePath);
    const fs::path relative = unit.lexically_relative(root);
    const std::string& text = relative.native();
    if (relative.empty() || relative == fs::path(".") ||
        (text.size() >= 2 && text.compare(0, 2, "..") == 0)) {
        return unit.parent_path().filename().string();
    }
    std::string name;
    bool first = true;
    for (const fs::path& element : relative.parent_path()) {
        if (!first) {
            name += '.';
        }
        name += element.native();
        first = false;
    }
    return name;
}

// Turns the precompiler's per-unit progress into the caller's Compiling
// reports, and keeps the last counts in ensure()'s result even when the caller
// wants no reports. Holds references into ensure()'s frame and owns nothing.
class CompilationProgressAdapter {
public:
    CompilationProgressAdapter(StandardLibraryBootstrapResult& result,
                               const StandardLibraryBootstrapCallback& callback,
                               const fs::path& root)
        : result_(&result), callback_(&callback), root_(&root) {}

    void operator()(const Compiler::CompilationProgress& progress) const {
        result_->completed = progress.completed;
        result_->total = progress.total;
        if (!*callback_) {
            return;
        }
        StandardLibraryBootstrapProgress report;
        report.stage = StandardLibraryBootstrapStage::Compiling;
        report.completed = progress.completed;
        report.total = progress.total;
        report.sourcePath = progress.sourcePath;
        report.displayName = displayNameOf(progress.sourcePath, *root_);
        (*callback_)(report);
    }

private:
    StandardLibraryBootstrapResult* result_;
    const StandardLibraryBootstrapCallback* callback_;
    const fs::path* root_;
};

void report(const StandardLibraryBootstrapCallback& callback, StandardLibraryBootstrapStage stage,
            std::size_t completed, std::size_t total) {
    if (!callback) {
        return;
    }
    StandardLibraryBootstrapProgress progress;
    progress.stage = stage;
    progress.completed = completed;
    progress.total = total;
    callback(progress);
}

// ---------------------------------------------------------------------------
// Driver

// The build lock: an exclusive flock on a file beside the state directory,
// held for one whole build. The file is never deleted, so every process locks
// the same inode. A process that dies holding the lock releases it with its
// descriptors; nobody has to clean up after a crash.
struct BootstrapLock {
    fs::path path;
    int fd = -1;

    explicit BootstrapLock(fs::path lockPath) : path(std::move(lockPath)) {}
    BootstrapLock(const BootstrapLock&) = delete;
    BootstrapLock& operator=(const BootstrapLock&) = delete;

    ~BootstrapLock() {
        if (fd >= 0) {
            ::flock(fd, LOCK_UN); // closing releases the lock anyway
            ::close(fd);          // nothing was written through this descriptor
        }
    }
};

// The lock file of a state directory: beside it, named after it, so that the
// builds of different library caches of one version do not wait for each
// other.
fs::path lockFileOf(const fs::path& stateDirectory) {
    return stateDirectory.parent_path() / layout::lockFileName(stateDirectory.filename().native());
}

std::runtime_error lockError(const fs::path& lockPath) {
    return failure(message::lock, lockPath.native() + "'");
}

// Blocks until this open file description holds the lock. The descriptor is
// opened without close-on-exec on purpose: a child started during the build
// inherits it and keeps the build serialised until it exits. An interrupted
// wait is not retried; it fails like any other.
void acquire(BootstrapLock& lock) {
    lock.fd = ::open(lock.path.c_str(), O_RDWR | O_CREAT, 0600);
    if (lock.fd < 0) {
        lock.fd = -1;
        throw lockError(lock.path);
    }
    if (::flock(lock.fd, LOCK_EX) != 0) {
        ::close(lock.fd); // never locked, so there is nothing to unlock
        lock.fd = -1;
        throw lockError(lock.path);
    }
}

std::runtime_error enumerationError(const fs::path& root, const std::error_code& error) {
    return failure(message::enumerate, root.native() + "': " + error.message());
}

// A unit stays out of the precompiled library only when its own type header
// (the first header line naming the file's stem) declares generic parameters:
// generic types are instantiated where they are used. A file whose text cannot
// be had is still handed to the compiler, which then reports the problem.
bool isExcludedByHeader(const fs::path& file) {
    const std::shared_ptr<const std::string> text = SourceManager::instance().contents(file);
    if (!text) {
        return false;
    }
    const std::string stem = file.stem().string();
    std::string_view rest(*text);
    while (!rest.empty()) {
        const std::size_t newline = rest.find('\n');
        const std::string_view line = rest.substr(0, newline);
        rest.remove_prefix(newline == std::string_view::npos ? rest.size() : newline + 1);
        source::TypeHeader header;
        if (source::parseTypeHeader(line, header) && header.typeName == stem) {
            return source::isGeneric(header);
        }
    }
    return false;
}

// The walk of the library: every regular ".qr" file reached without following
// a symbolic link goes to `onUnit`, in the order the listing gives. Trouble
// with a single entry only skips it; trouble with the walk itself is an
// error. A folder that may not be read is skipped with everything below it.
//
// When `passedOver` is given, what the walk skips is added to it, so that an
// explanation can say why a file is not built: a ".qr" name that is a link or
// not a regular file, one whose status cannot be read, and a folder that may
// not be read (the walk skips that one in silence, so each folder is tried
// with an open of its own, which the build itself never pays for).
template <typename OnUnit>
void walkLibrary(const fs::path& root, OnUnit&& onUnit,
                 std::vector<explain::PassedOver>* passedOver) {
    using Why = explain::PassedOver::Why;
    std::error_code error;
    fs::recursive_directory_iterator entries(root, fs::directory_options::skip_permission_denied,
                                             error);
    if (error) {
        throw enumerationError(root, error);
    }
    const fs::recursive_directory_iterator end;
    while (entries != end) {
        const fs::directory_entry& entry = *entries;
        std::error_code entryError;
        const fs::file_status own = entry.symlink_status(entryError);
        const bool unitName = entry.path().extension() == layout::sourceExtension;
        if (!entryError && own.type() == fs::file_type::regular && unitName) {
            onUnit(entry.path());
        } else if (passedOver != nullptr) {
            if (entryError) {
                if (unitName && entryError != std::errc::no_such_file_or_directory) {
                    passedOver->push_back({entry.path(), Why::Unexaminable, entryError.message()});
                }
            } else if (own.type() == fs::file_type::directory) {
                const int fd =
                    ::open(entry.path().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
                if (fd >= 0) {
                    ::close(fd); // opened only to see whether the walk can
                } else if (errno == EACCES) {
                    passedOver->push_back(
                        {entry.path(), Why::ClosedFolder, std::generic_category().message(EACCES)});
                }
            } else if (unitName) {
                passedOver->push_back(
                    {entry.path(), fs::is_symlink(own) ? Why::Link : Why::NotRegular, {}});
            }
        }
        entries.increment(error);
        if (error) {
            throw enumerationError(root, error);
        }
    }
}

// The units a build compiles: the walk's files less those the type-header
// test keeps out, each as its lexically normal text, sorted. The
// generic ones go to `passedOver` when it is given.
std::vector<std::string> collectSourceUnits(const fs::path& root,
                                            std::vector<explain::PassedOver>* passedOver) {
    std::vector<std::string> sources;
    walkLibrary(
        root,
        [&](const fs::path& file) {
            if (!isExcludedByHeader(file)) {
                sources.push_back(file.lexically_normal().string());
            } else if (passedOver != nullptr) {
                passedOver->push_back({file, explain::PassedOver::Why::Generic, {}});
            }
        },
        passedOver);
    // Bytewise order, so that "/std/a.qr" comes before "/std/a/b.qr" on every
    // machine, whatever order the directory listing gave.
    std::sort(sources.begin(), sources.end());
    return sources;
}

// ---------------------------------------------------------------------------
// Pruning

using Version = std::array<unsigned long long, 3>;

// Exactly three non-empty runs of ASCII digits separated by single dots, each
// fitting in 64 bits. Leading zeros are allowed. On failure `out` may already
// hold the components read before it.
bool parseVersion(const std::string& text, Version& out) {
    std::size_t position = 0;
    for (std::size_t component = 0; component < out.size(); ++component) {
        std::size_t end = text.size();
        if (component + 1 < out.size()) {
            if (position >= text.size()) {
                return false;
            }
            end = text.find('.', position);
            if (end == std::string::npos) {
                return false;
            }
        }
        const std::string_view digits = std::string_view(text).substr(position, end - position);
        if (digits.empty() || !std::all_of(digits.begin(), digits.end(),
                                           [](char c) { return c >= '0' && c <= '9'; })) {
            return false;
        }
        unsigned long long value = 0;
        const auto [next, error] =
            std::from_chars(digits.data(), digits.data() + digits.size(), value);
        if (error != std::errc() || next != digits.data() + digits.size()) {
            return false; // too large for 64 bits
        }
        out[component] = value;
        position = end + 1;
    }
    return true;
}

bool isMissing(const std::error_code& error, const fs::file_status& status) {
    return error == std::errc::no_such_file_or_directory || !fs::exists(status);
}

std::runtime_error versionListingError(const fs::path& cacheRoot, const std::error_code& error) {
    return failure(message::listVersions, cacheRoot.native() + "': " + error.message());
}

// The test removeOlderCacheVersions() runs on `target` just before deleting
// it: the tree may have changed since the listing, and a link or a path
// outside `root` is never deleted. Both are lexically normal.
explain::RemovalVerdict removalVerdictOf(const fs::path& root, const fs::path& target) {
    std::error_code error;
    const fs::file_status status = fs::symlink_status(target, error);
    if (isMissing(error, status)) {
        return explain::RemovalVerdict::Gone;
    }
    if (error || target.parent_path().compare(root) != 0 ||
        status.type() != fs::file_type::directory) {
        return explain::RemovalVerdict::Refuse;
    }
    return explain::RemovalVerdict::Remove;
}

// A child is an older version only when it is a real directory (a link to one
// does not count) named as an exact version below `current`.
bool isOlderVersionDirectory(const fs::directory_entry& child, const Version& current) {
    std::error_code error;
    const fs::file_status status = child.symlink_status(error);
    if (error || status.type() != fs::file_type::directory) {
        return false;
    }
    Version version{};
    return parseVersion(child.path().filename().string(), version) && version < current;
}

fs::path defaultCacheRoot() {
    return fs::path(Runtime::getInstance().getCacheBranchPath()).parent_path();
}

} // namespace

// ---------------------------------------------------------------------------
// Entry points

bool StandardLibraryBootstrap::isRequired() {
    const std::string root = Runtime::getInstance().getStandardLibraryPath();
    // Whether the root is a directory, links followed, as fs::status tells it
    // (an error counts as "no"), and without the path object. The installed
    // fingerprint file is opened first: when a file inside the root opens,
    // the root is a directory and its own stat is not needed. Only a root
    // that names no directory by itself (empty, or cut short by a NUL byte)
    // is always asked directly.
    const std::string file = installedFingerprintFile(root);
    const bool plainText = !root.empty() && root.find('\0') == std::string::npos;
    std::optional<LineReader> reader;
    if (plainText) {
        reader.emplace(file.c_str());
    }
    if (!reader || !reader->pathOpened()) {
        struct stat status {};
        if (::stat(root.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
            return false; // without a library tree there is nothing to build
        }
    }
    // The identity asks the runtime for the library again; the file already
    // read stands for it as long as the answer is the same.
    const std::string library = Runtime::getInstance().getStandardLibraryPath();
    std::string installed;
    if (reader && library == root) {
        installed = readFingerprint(*reader);
    } else {
        installed = readFingerprintFile(installedFingerprintFile(library));
    }
    reader.reset();
    return !isReady(firstLaunchIdentityAfter(std::move(installed)));
}

StandardLibraryBootstrapResult
StandardLibraryBootstrap::ensure(const StandardLibraryBootstrapCallback& progress) {
    StandardLibraryBootstrapResult result;
    FirstLaunchIdentity identity = currentFirstLaunchIdentity();
    if (isReady(identity)) {
        return result;
    }
    StandardLibraryCacheState state = cacheStateOf(identity);

    const fs::path stateDirectory = state.getMarkerPath().parent_path();
    const fs::path lockDirectory = stateDirectory.parent_path();
    std::error_code error;
    fs::create_directories(lockDirectory, error);
    if (error) {
        throw failure(message::createCacheRoot, lockDirectory.native() + "': " + error.message());
    }
    BootstrapLock lock(lockFileOf(stateDirectory));
    acquire(lock);

    // Only this second look, under the lock, decides: another process may have
    // finished the build while this one waited.
    state = currentFirstLaunchState();
    if (state.isReady()) {
        return result;
    }
    report(progress, StandardLibraryBootstrapStage::Preparing, 0, 0);

    Compiler::ensureObjectAbiCacheCurrent();
    const fs::path root(Runtime::getInstance().getStandardLibraryPath());
    const std::vector<std::string> sources = collectSourceUnits(root, nullptr);
    if (sources.empty()) {
        throw failure(message::noUnits, root.native());
    }

    result.bootstrapped = true;
    {
        const std::function<void(const Compiler::CompilationProgress&)> onProgress =
            CompilationProgressAdapter(result, progress, root);
        Compiler::precompileSources(sources, std::shared_ptr<Context>(), onProgress);
    }

    // The marker describes the situation after the build: a fingerprint file
    // that changed meanwhile is certified as it is now.
    state = currentFirstLaunchState();
    state.markReady();
    report(progress, StandardLibraryBootstrapStage::Finished, result.total, result.total);
    return result;
}

std::vector<fs::path>
StandardLibraryBootstrap::olderCacheVersions(const fs::path& cacheRoot,
                                             const std::string& currentVersion) {
    Version current{};
    if (!parseVersion(currentVersion, current)) {
        return {};
    }
    std::error_code error;
    const fs::file_status rootStatus = fs::symlink_status(cacheRoot, error);
    if (isMissing(error, rootStatus)) {
        return {};
    }
    if (error) {
        throw failure(message::inspectCacheRoot, cacheRoot.native() + "': " + error.message());
    }
    if (rootStatus.type() != fs::file_type::directory) {
        return {}; // a link to a cache root is not followed either
    }

    std::vector<fs::path> versions;
    fs::directory_iterator children(cacheRoot, fs::directory_options::skip_permission_denied,
                                    error);
    if (error) {
        throw versionListingError(cacheRoot, error);
    }
    const fs::directory_iterator end;
    while (children != end) {
        if (isOlderVersionDirectory(*children, current)) {
            versions.push_back(children->path().lexically_normal());
        }
        children.increment(error);
        if (error) {
            throw versionListingError(cacheRoot, error);
        }
    }
    // Path order, not version order ("0.10.0" before "0.9.0"): it fixes the
    // order in which removal deletes.
    std::sort(versions.begin(), versions.end());
    return versions;
}

std::vector<fs::path> StandardLibraryBootstrap::olderCacheVersions() {
    return olderCacheVersions(defaultCacheRoot(), std::string(compilerVersion));
}

std::size_t StandardLibraryBootstrap::removeOlderCacheVersions(const fs::path& cacheRoot,
                                                               const std::string& currentVersion) {
    const fs::path root = cacheRoot.lexically_normal();
    const std::vector<fs::path> candidates = olderCacheVersions(cacheRoot, currentVersion);
    std::size_t removed = 0;
    for (const fs::path& candidate : candidates) {
        const fs::path target = candidate.lexically_normal();
        const explain::RemovalVerdict verdict = removalVerdictOf(root, target);
        if (verdict == explain::RemovalVerdict::Gone) {
            continue; // gone since the listing; its first-launch state is not ours to touch
        }
        if (verdict == explain::RemovalVerdict::Refuse) {
            throw failure(message::unsafeRemoval, target.native() + "'");
        }
        std::error_code error;
        fs::remove_all(target, error);
        if (error) {
            throw failure(message::removeVersion, candidate.native() + "': " + error.message());
        }
        const fs::path state =
            explain::versionDirectories(root, target.filename().native()).firstLaunchState;
        fs::remove_all(state, error);
        if (error && error != std::errc::no_such_file_or_directory) {
            throw failure(message::removeVersionState, state.native() + "': " + error.message());
        }
        ++removed;
    }
    return removed;
}

std::size_t StandardLibraryBootstrap::removeOlderCacheVersions() {
    return removeOlderCacheVersions(defaultCacheRoot(), std::string(compilerVersion));
}

// ---------------------------------------------------------------------------
// Explanations
//
// The same decisions as above, with their reasons kept. Each function calls
// the helpers that decide; where a decision stops at the first "no", the
// explanation goes on to say everything that differs, and the fuzz targets
// and the tool's tests hold the two to the same verdict.

namespace explain {

std::string_view compilerVersion() {
    return compiler::compilerVersion;
}

std::string_view fingerprintSourceName(FingerprintSource source) {
    switch (source) {
    case FingerprintSource::InstalledFile:
        return "installed";
    case FingerprintSource::BuildTreeFile:
        return "build-tree";
    case FingerprintSource::Fallback:
        break;
    }
    return "fallback";
}

std::string readFingerprintFile(const fs::path& file) {
    return compiler::readFingerprintFile(file.native());
}

fs::path installedFingerprintFile(const fs::path& library) {
    return compiler::installedFingerprintFile(library.native());
}

fs::path buildTreeFingerprintFile() {
    return compiler::buildTreeFingerprintFile();
}

Identity currentIdentity() {
    const std::string library = Runtime::getInstance().getStandardLibraryPath();
    const FirstLaunchIdentity decided = firstLaunchIdentityAfter(
        compiler::readFingerprintFile(compiler::installedFingerprintFile(library)));
    Identity identity;
    identity.version = std::string(compiler::compilerVersion);
    identity.abiVersion = decided.abiVersion;
    identity.fingerprint = decided.fingerprint;
    identity.source = decided.source;
    switch (decided.source) {
    case FingerprintSource::InstalledFile:
        identity.fingerprintFile = installedFingerprintFile(library);
        break;
    case FingerprintSource::BuildTreeFile:
        identity.fingerprintFile = compiler::buildTreeFingerprintFile();
        break;
    case FingerprintSource::Fallback:
        break;
    }
    return identity;
}

FirstLaunchPaths currentPaths() {
    const Runtime& runtime = Runtime::getInstance();
    FirstLaunchPaths paths;
    paths.library = runtime.getStandardLibraryPath();
    std::string marker;
    std::size_t stateDirectoryLength = 0;
    composeMarkerPath(marker, stateDirectoryLength);
    paths.cacheBranch = runtime.getCacheBranchPath();
    paths.libraryCache = runtime.getLibCachePath();
    paths.cacheRoot = std::string(parentPathOf(paths.cacheBranch.native()));
    paths.firstLaunch = layout::firstLaunchPath(paths.cacheRoot.native());
    paths.versionState =
        layout::versionStatePath(paths.cacheRoot.native(), compiler::compilerVersion);
    paths.stateDirectory = marker.substr(0, stateDirectoryLength);
    paths.marker = marker;
    paths.lockFile = lockFileOf(paths.stateDirectory);
    return paths;
}

std::string_view markerVerdictName(MarkerVerdict verdict) {
    switch (verdict) {
    case MarkerVerdict::Valid:
        return "valid";
    case MarkerVerdict::Missing:
        return "missing";
    case MarkerVerdict::Unreadable:
        return "unreadable";
    case MarkerVerdict::Malformed:
        return "malformed";
    case MarkerVerdict::Mismatch:
        break;
    }
    return "mismatch";
}

namespace {

// "a FIFO", "a character device", ... for what is not a regular file.
std::string_view fileKindName(mode_t type) {
    switch (type) {
    case S_IFIFO:
        return "a FIFO";
    case S_IFCHR:
        return "a character device";
    case S_IFBLK:
        return "a block device";
    case S_IFSOCK:
        return "a socket";
    default:
        return {};
    }
}

mode_t fileTypeBits(fs::file_type type) {
    switch (type) {
    case fs::file_type::fifo:
        return S_IFIFO;
    case fs::file_type::character:
        return S_IFCHR;
    case fs::file_type::block:
        return S_IFBLK;
    case fs::file_type::socket:
        return S_IFSOCK;
    case fs::file_type::directory:
        return S_IFDIR;
    default:
        return 0;
    }
}

// Why a marker path that the reader does not take reads as no marker.
void explainUnopened(const fs::path& marker, const LineReader& reader, MarkerDiagnosis& diagnosis) {
    diagnosis.verdict = MarkerVerdict::Unreadable;
    mode_t type = reader.type();
    if (!reader.pathOpened()) {
        if (reader.openError() == ENOENT || reader.openError() == ENOTDIR) {
            diagnosis.verdict = MarkerVerdict::Missing;
            diagnosis.detail = "no readiness marker";
            return;
        }
        // What it is, for a path that cannot be opened at all (a socket,
        // a link that leads nowhere it may go).
        std::error_code error;
        const fs::file_status status = fs::status(marker, error);
        if (error) {
            diagnosis.detail = "cannot examine the marker: " + error.message();
            return;
        }
        type = fileTypeBits(status.type());
    }
    if (type == S_IFDIR) {
        diagnosis.detail = "the marker path is a directory";
    } else if (const std::string_view kind = fileKindName(type); !kind.empty()) {
        diagnosis.detail = "the marker is not a regular file (" + std::string(kind) + ")";
    } else {
        diagnosis.detail = "the marker cannot be opened for reading";
    }
}

} // namespace

MarkerDiagnosis diagnoseMarker(const fs::path& marker, const Identity& identity) {
    MarkerDiagnosis diagnosis;
    LineReader reader(marker.c_str());
    if (!reader.isOpen()) {
        explainUnopened(marker, reader, diagnosis);
        return diagnosis;
    }
    std::array<std::string, layout::markerLineCount> lines;
    std::size_t count = 0;
    std::string_view line;
    while (count < lines.size() && reader.readLine(line)) {
        lines[count++] = line;
    }
    if (reader.lineTooLong()) {
        diagnosis.verdict = MarkerVerdict::Malformed;
        diagnosis.detail = "line " + std::to_string(count + 1) + " of the marker is longer than " +
                           std::to_string(layout::maxLineLength) + " bytes";
        return diagnosis;
    }
    if (count == 0 && reader.readFailed()) {
        diagnosis.verdict = MarkerVerdict::Unreadable;
        diagnosis.detail = "the marker cannot be read";
        return diagnosis;
    }
    if (count < lines.size()) {
        diagnosis.verdict = MarkerVerdict::Malformed;
        diagnosis.detail = "the marker has " + std::to_string(count) + " of its " +
                           std::to_string(lines.size()) + " lines";
        return diagnosis;
    }
    // Compared untrimmed, as markerCertifies() compares it.
    if (lines[0] != layout::markerHeader) {
        diagnosis.verdict = MarkerVerdict::Malformed;
        diagnosis.detail = "the marker's first line is not " + std::string(layout::markerHeader);
        return diagnosis;
    }
    const std::array<MarkerField, 4> fields{{
        {"format", std::to_string(layout::markerFormat),
         std::string(compiler::markerValue(lines[1], "format"))},
        {"version", identity.version, std::string(compiler::markerValue(lines[2], "version"))},
        {"abi", std::to_string(identity.abiVersion),
         std::string(compiler::markerValue(lines[3], "abi"))},
        {"fingerprint", identity.fingerprint,
         std::string(compiler::markerValue(lines[4], "fingerprint"))},
    }};
    for (const MarkerField& field : fields) {
        if (field.expected != field.found) {
            diagnosis.differences.push_back(field);
        }
    }
    diagnosis.verdict =
        diagnosis.differences.empty() ? MarkerVerdict::Valid : MarkerVerdict::Mismatch;
    return diagnosis;
}

std::string_view passedOverName(PassedOver::Why why) {
    switch (why) {
    case PassedOver::Why::Generic:
        return "generic";
    case PassedOver::Why::Link:
        return "link";
    case PassedOver::Why::NotRegular:
        return "not-regular";
    case PassedOver::Why::Unexaminable:
        return "unexaminable";
    case PassedOver::Why::ClosedFolder:
        break;
    }
    return "closed-folder";
}

namespace {

void sortByPath(std::vector<PassedOver>& passedOver) {
    std::sort(passedOver.begin(), passedOver.end(),
              [](const PassedOver& a, const PassedOver& b) { return a.path < b.path; });
}

} // namespace

UnitChoice chooseUnits(const fs::path& root) {
    UnitChoice choice;
    choice.units = collectSourceUnits(root, &choice.passedOver);
    sortByPath(choice.passedOver);
    return choice;
}

std::vector<std::string> libraryUnitFiles(const fs::path& root,
                                          std::vector<PassedOver>* passedOver) {
    std::vector<std::string> files;
    walkLibrary(
        root, [&files](const fs::path& file) { files.push_back(file.lexically_normal().string()); },
        passedOver);
    std::sort(files.begin(), files.end());
    if (passedOver != nullptr) {
        sortByPath(*passedOver);
    }
    return files;
}

VersionDirectories versionDirectories(const fs::path& cacheRoot, std::string_view version) {
    const std::string root = cacheRoot.lexically_normal().native();
    return {layout::cacheBranchPath(root, version), layout::versionStatePath(root, version)};
}

RemovalVerdict removalVerdict(const fs::path& cacheRoot, const fs::path& candidate) {
    return removalVerdictOf(cacheRoot.lexically_normal(), candidate.lexically_normal());
}

std::span<const FailureMessage> failureMessages() {
    return failureTable;
}

std::optional<FailureCause> failureCauseOf(std::string_view message) {
    for (const FailureMessage& known : failureTable) {
        if (message.starts_with(known.opening)) {
            return known.cause;
        }
    }
    return std::nullopt;
}

std::string trim(std::string_view text) {
    return std::string(compiler::trim(text));
}

std::string markerValue(std::string_view line, std::string_view key) {
    return std::string(compiler::markerValue(line, key));
}

bool parseVersion(const std::string& text, std::array<unsigned long long, 3>& version) {
    return compiler::parseVersion(text, version);
}

} // namespace explain

} // namespace quor::compiler
