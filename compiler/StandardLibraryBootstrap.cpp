// The standard-library bootstrap in one translation unit, in the order its
// pieces build on each other: the readiness marker, the cache state that
// checks and publishes it, the first-launch state that says which identity the
// running compiler expects, the progress adapter, the driver with its build
// lock, and the pruning of older versions' caches.
//
// The unit keeps nothing between calls and starts no thread; everything runs on
// the caller's thread. File-system work goes through the std::filesystem forms
// that report into a std::error_code, so that every failure becomes one of the
// unit's own messages. The lock is plain POSIX (open, flock, close), and so is
// the ready path, which every compiler start pays for: the two small files are
// read with open/read/close, the state's paths are composed as text, and the
// library root is asked with stat only when its fingerprint file does not
// already show that it is a directory.

#include "compiler/StandardLibraryBootstrap.h"

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
        struct stat status {};
        if (fd_ >= 0 && (::fstat(fd_, &status) != 0 || !S_ISREG(status.st_mode))) {
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
        throw std::runtime_error("Unable to create standard-library cache directory '" +
                                 cacheDirectory.native() + "': " + error.message());
    }

    // A sibling of the marker, so that the rename below stays inside one
    // directory and replaces the marker atomically.
    const std::string temporaryPath = markerPath.native() + temporaryMarkerSuffix();
    {
        std::ofstream stream(temporaryPath, std::ios::out | std::ios::trunc);
        if (!stream) {
            throw std::runtime_error("Unable to write standard-library cache marker '" +
                                     temporaryPath + "'");
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
            throw std::runtime_error("Unable to flush standard-library cache marker '" +
                                     temporaryPath + "'");
        }
    } // closing cannot lose data that the flush above did not already report

    // The objects the marker certifies were synced by the precompiler before it
    // returned. The marker itself is not synced: if a power loss takes it, the
    // cache reads as not ready and is built again, which is safe.
    fs::rename(temporaryPath, markerPath, error);
    if (error) {
        std::error_code ignored;
        fs::remove(temporaryPath, ignored); // the rename error is the one worth reporting
        throw std::runtime_error("Unable to publish standard-library cache marker: " +
                                 error.message());
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

// The paths of the first-launch state are composed as text, exactly as
// std::filesystem composes them on POSIX, because every compiler start pays
// for them: a path object splits its text into a list of element paths on
// construction and again on every append, several times the cost of the two
// file reads the ready path exists for. Every piece appended here is
// relative, so `path / piece` comes down to one rule: a separator goes between
// the two when the left side has a file name, that is, when it is not empty
// and does not end in '/'.
void appendPathElement(std::string& path, std::string_view element) {
    if (!path.empty() && path.back() != '/') {
        path += '/';
    }
    path += element;
}

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
};

// The installed fingerprint file of the library at `libraryDirectory`.
std::string installedFingerprintFile(std::string libraryDirectory) {
    appendPathElement(libraryDirectory, layout::installedFingerprintFile);
    return libraryDirectory;
}

// The identity after the installed fingerprint file has given `installed`.
FirstLaunchIdentity firstLaunchIdentityAfter(std::string installed) {
    FirstLaunchIdentity identity;
    identity.fingerprint = std::move(installed);
    if (identity.fingerprint.empty()) {
        std::string file(buildTreeDirectory);
        appendPathElement(file, layout::generatedDirectory);
        appendPathElement(file, layout::buildTreeFingerprintFile);
        identity.fingerprint = readFingerprintFile(file);
    }
    if (identity.fingerprint.empty()) {
        identity.fingerprint = fallbackFingerprint();
    }
    identity.abiVersion = Compiler::objectAbiVersion();
    const std::string_view cacheRoot = parentPathOf(Runtime::getInstance().getCacheBranchPath());
    std::string& marker = identity.markerPath;
    // Room for the pieces below and a library-cache leaf of up to 64 bytes,
    // so that the text is normally allocated once.
    marker.reserve(cacheRoot.size() + layout::firstLaunchDirectory.size() + compilerVersion.size() +
                   layout::markerFileName.size() + 64 + 4);
    marker = cacheRoot;
    appendPathElement(marker, layout::firstLaunchDirectory);
    appendPathElement(marker, compilerVersion);
    appendPathElement(marker, fileNameOf(Runtime::getInstance().getLibCachePath()));
    identity.stateDirectoryLength = marker.size();
    appendPathElement(marker, layout::markerFileName);
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

std::runtime_error lockError(const fs::path& lockPath) {
    return std::runtime_error("Unable to lock Quor standard-library cache '" + lockPath.native() +
                              "'");
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
    return std::runtime_error("Unable to enumerate Quor standard library '" + root.native() +
                              "': " + error.message());
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

// Regular ".qr" files reached without following a symbolic link. Trouble with a
// single entry only skips it; trouble with the walk itself is an error.
bool isCompilableUnit(const fs::directory_entry& entry) {
    std::error_code error;
    const fs::file_status ownStatus = entry.symlink_status(error);
    if (error || fs::is_symlink(ownStatus) || ownStatus.type() != fs::file_type::regular) {
        return false;
    }
    if (entry.path().extension() != layout::sourceExtension) {
        return false;
    }
    return !isExcludedByHeader(entry.path());
}

std::vector<std::string> collectSourceUnits(const fs::path& root) {
    std::vector<std::string> sources;
    std::error_code error;
    fs::recursive_directory_iterator entries(root, fs::directory_options::skip_permission_denied,
                                             error);
    if (error) {
        throw enumerationError(root, error);
    }
    const fs::recursive_directory_iterator end;
    while (entries != end) {
        if (isCompilableUnit(*entries)) {
            sources.push_back(entries->path().lexically_normal().string());
        }
        entries.increment(error);
        if (error) {
            throw enumerationError(root, error);
        }
    }
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
    return std::runtime_error("Unable to inspect Quor cache versions in '" + cacheRoot.native() +
                              "': " + error.message());
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
        throw std::runtime_error("Unable to create Quor cache root '" + lockDirectory.native() +
                                 "': " + error.message());
    }
    BootstrapLock lock(lockDirectory /
                       (std::string(layout::lockFilePrefix) + stateDirectory.filename().string() +
                        std::string(layout::lockFileSuffix)));
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
    std::vector<std::string> sources = collectSourceUnits(root);
    // Bytewise order, so that "/std/a.qr" comes before "/std/a/b.qr" on every
    // machine, whatever order the directory listing gave.
    std::sort(sources.begin(), sources.end());
    if (sources.empty()) {
        throw std::runtime_error("Quor standard library contains no compilable source units: " +
                                 root.native());
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
        throw std::runtime_error("Unable to inspect Quor cache root '" + cacheRoot.native() +
                                 "': " + error.message());
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
        std::error_code error;
        const fs::file_status status = fs::symlink_status(target, error);
        if (isMissing(error, status)) {
            continue; // gone since the listing; its first-launch state is not ours to touch
        }
        // Tested again just before deleting: the tree may have changed since the
        // listing, and a link or a path outside the root is never deleted.
        if (error || target.parent_path().compare(root) != 0 ||
            status.type() != fs::file_type::directory) {
            throw std::runtime_error("Refusing to remove unsafe Quor cache path '" +
                                     target.native() + "'");
        }
        fs::remove_all(target, error);
        if (error) {
            throw std::runtime_error("Unable to remove old Quor cache '" + candidate.native() +
                                     "': " + error.message());
        }
        const fs::path state = root / layout::firstLaunchDirectory / target.filename();
        fs::remove_all(state, error);
        if (error && error != std::errc::no_such_file_or_directory) {
            throw std::runtime_error("Unable to remove old Quor first-launch state '" +
                                     state.native() + "': " + error.message());
        }
        ++removed;
    }
    return removed;
}

std::size_t StandardLibraryBootstrap::removeOlderCacheVersions() {
    return removeOlderCacheVersions(defaultCacheRoot(), std::string(compilerVersion));
}

} // namespace quor::compiler
