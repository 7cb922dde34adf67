// Reproduces the bootstrap's reading rules for fingerprints, markers and
// compilable units, so that `status` can explain what the bootstrap decides.

#include "CacheProbe.h"

#include "compiler/CacheLayout.h"
#include "compiler/Compiler.h"
#include "compiler/Runtime.h"
#include "compiler/SourceManager.h"
#include "compiler/source/TypeHeader.h"
#include "quor/Config.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#ifndef QUOR_COMPILER_VERSION
#error "QUOR_COMPILER_VERSION must be defined by the build"
#endif
#ifndef QUOR_BUILD_TREE_DIR
#error "QUOR_BUILD_TREE_DIR must be defined by the build"
#endif

namespace quor::stdlibtool {

namespace fs = std::filesystem;
namespace layout = compiler::layout;

namespace {

std::string trim(const std::string& text) {
    const auto first = text.find_first_not_of(layout::lineWhiteSpace);
    if (first == std::string::npos)
        return {};
    const auto last = text.find_last_not_of(layout::lineWhiteSpace);
    return text.substr(first, last - first + 1);
}

std::string markerValue(const std::string& line, const std::string& key) {
    const std::string prefix = key + "=";
    if (line.size() < prefix.size() || line.compare(0, prefix.size(), prefix) != 0)
        return {};
    return trim(line.substr(prefix.size()));
}

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The bootstrap's reading of the marker and the fingerprint files: only a
// regular file opens, and the open never waits (a FIFO opens at once and then
// counts as no file); lines end at a line feed, which is dropped, and a read
// error ends the file as its end would. A line longer than maxLineLength fails
// its read, so that a huge or endless file is judged at once, in bounded
// memory. Unlike the bootstrap, it keeps what a diagnosis needs: what the path
// is when it is not a regular file, and why a read failed.
class LineFile {
public:
    static constexpr std::size_t maxLineLength = layout::maxLineLength;

    enum class Read {
        Line,    // `line` holds the next line
        End,     // the file ended before another line began
        TooLong, // the next line is longer than maxLineLength; nothing more is read
    };

    explicit LineFile(const fs::path& path)
        : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {
        if (fd_ < 0) {
            openError_ = errno;
            return;
        }
        struct stat status {};
        if (::fstat(fd_, &status) != 0) {
            openError_ = errno;
            close();
            return;
        }
        type_ = status.st_mode & S_IFMT;
        if (!S_ISREG(status.st_mode))
            close();
    }
    ~LineFile() { close(); }
    LineFile(const LineFile&) = delete;
    LineFile& operator=(const LineFile&) = delete;

    // True for a regular file that could be opened.
    bool isOpen() const { return fd_ >= 0; }
    // The errno of a failed open, else 0.
    int openError() const { return openError_; }
    // The file type bits (S_IFMT) of what was opened, else 0.
    mode_t type() const { return type_; }
    // True when some read failed with an error rather than at the end.
    bool readFailed() const { return readFailed_; }

    Read readLine(std::string& line) {
        line.clear();
        bool extracted = false;
        while (position_ < size_ || fill()) {
            const char* begin = buffer_ + position_;
            const auto* newline =
                static_cast<const char*>(std::memchr(begin, '\n', size_ - position_));
            const char* end = newline != nullptr ? newline : buffer_ + size_;
            if (line.size() + static_cast<std::size_t>(end - begin) > maxLineLength) {
                position_ = size_ = 0;
                close();
                return Read::TooLong;
            }
            line.append(begin, end);
            if (newline != nullptr) {
                position_ = static_cast<std::size_t>(newline - buffer_) + 1;
                return Read::Line;
            }
            position_ = size_;
            extracted = true;
        }
        return extracted ? Read::Line : Read::End;
    }

private:
    bool fill() {
        while (fd_ >= 0) {
            const ssize_t count = ::read(fd_, buffer_, sizeof buffer_);
            if (count < 0 && errno == EINTR)
                continue;
            if (count < 0)
                readFailed_ = true;
            if (count <= 0)
                return false;
            position_ = 0;
            size_ = static_cast<std::size_t>(count);
            return true;
        }
        return false;
    }

    void close() {
        if (fd_ >= 0)
            ::close(fd_); // opened read-only: closing cannot lose anything
        fd_ = -1;
    }

    int fd_;
    int openError_ = 0;
    mode_t type_ = 0;
    bool readFailed_ = false;
    char buffer_[512];
    std::size_t position_ = 0;
    std::size_t size_ = 0;
};

// "a FIFO", "a character device", ... for a file that is not a regular file.
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
    case S_IFDIR:
        return "a directory";
    default:
        return {};
    }
}

// The same for what fs::status saw, used when the path could not be opened
// (a socket cannot be).
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
    case fs::file_type::regular:
        return S_IFREG;
    default:
        return 0;
    }
}

std::string notRegularFileDetail(mode_t type) {
    const std::string_view kind = fileKindName(type);
    return kind.empty() ? std::string("the marker is not a regular file")
                        : "the marker is not a regular file (" + std::string(kind) + ")";
}

// Mirrors the bootstrap's header test: excluded only when the first header line
// naming the file's stem carries generic parameters. Unreadable text is kept.
bool isExcludedByHeader(const fs::path& file) {
    const auto text = compiler::SourceManager::instance().contents(file);
    if (!text)
        return false;
    const std::string stem = file.stem().string();
    std::string_view rest(*text);
    while (true) {
        const auto end = rest.find('\n');
        const std::string_view line = rest.substr(0, end);
        compiler::source::TypeHeader header;
        if (compiler::source::parseTypeHeader(line, header) && header.typeName == stem)
            return compiler::source::isGeneric(header);
        if (end == std::string_view::npos)
            return false;
        rest.remove_prefix(end + 1);
        // A text ending in '\n' has no further line to look at.
        if (rest.empty())
            return false;
    }
}

std::runtime_error enumerationError(const fs::path& root, const std::error_code& error) {
    return std::runtime_error("Unable to enumerate Quor standard library '" + root.native() +
                              "': " + error.message());
}

} // namespace

std::string_view compilerVersion() {
    return QUOR_COMPILER_VERSION;
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
    LineFile reader(file);
    if (!reader.isOpen())
        return {};
    std::string line;
    if (reader.readLine(line) != LineFile::Read::Line)
        return {};
    line = trim(line);
    if (line.size() != layout::fingerprintLength ||
        !std::all_of(line.begin(), line.end(), isHexDigit))
        return {};
    for (char& c : line)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return line;
}

fs::path installedFingerprintFile(const fs::path& library) {
    return library / layout::installedFingerprintFile;
}

fs::path buildTreeFingerprintFile() {
    return fs::path(QUOR_BUILD_TREE_DIR) / layout::generatedDirectory /
           layout::buildTreeFingerprintFile;
}

Identity currentIdentity() {
    Identity identity;
    identity.version = std::string(compilerVersion());
    identity.abiVersion = compiler::Compiler::objectAbiVersion();
    const fs::path installed =
        installedFingerprintFile(compiler::Runtime::getInstance().getStandardLibraryPath());
    if (auto fingerprint = readFingerprintFile(installed); !fingerprint.empty()) {
        identity.fingerprint = std::move(fingerprint);
        identity.source = FingerprintSource::InstalledFile;
        identity.fingerprintFile = installed;
    } else if (fingerprint = readFingerprintFile(buildTreeFingerprintFile());
               !fingerprint.empty()) {
        identity.fingerprint = std::move(fingerprint);
        identity.source = FingerprintSource::BuildTreeFile;
        identity.fingerprintFile = buildTreeFingerprintFile();
    } else {
        identity.fingerprint =
            "version-" + identity.version + "-abi-" + std::to_string(identity.abiVersion);
        identity.source = FingerprintSource::Fallback;
    }
    return identity;
}

CachePaths currentPaths() {
    const auto& runtime = compiler::Runtime::getInstance();
    CachePaths paths;
    paths.library = runtime.getStandardLibraryPath();
    paths.cacheBranch = runtime.getCacheBranchPath();
    paths.libraryCache = runtime.getLibCachePath();
    paths.cacheRoot = paths.cacheBranch.parent_path();
    const std::string leaf = paths.libraryCache.filename().string();
    paths.firstLaunch = paths.cacheRoot / layout::firstLaunchDirectory;
    paths.versionState = paths.firstLaunch / std::string(compilerVersion());
    const fs::path& versionState = paths.versionState;
    paths.stateDirectory = versionState / leaf;
    paths.marker = paths.stateDirectory / layout::markerFileName;
    paths.lockFile = versionState / (std::string(layout::lockFilePrefix) + leaf +
                                     std::string(layout::lockFileSuffix));
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

MarkerDiagnosis diagnoseMarker(const fs::path& marker, const Identity& identity) {
    MarkerDiagnosis diagnosis;
    std::error_code error;
    const auto status = fs::status(marker, error);
    if (status.type() == fs::file_type::not_found ||
        error == std::errc::no_such_file_or_directory) {
        diagnosis.verdict = MarkerVerdict::Missing;
        diagnosis.detail = "no readiness marker";
        return diagnosis;
    }
    if (error) {
        diagnosis.verdict = MarkerVerdict::Unreadable;
        diagnosis.detail = "cannot examine the marker: " + error.message();
        return diagnosis;
    }
    // What the path is, judged on what was opened: it may have changed since
    // the look above.
    LineFile reader(marker);
    if (!reader.isOpen()) {
        const mode_t type = reader.type() != 0 ? reader.type() : fileTypeBits(status.type());
        if (reader.type() == 0 && reader.openError() == ENOENT) {
            diagnosis.verdict = MarkerVerdict::Missing;
            diagnosis.detail = "no readiness marker";
        } else if (type == S_IFDIR) {
            diagnosis.verdict = MarkerVerdict::Unreadable;
            diagnosis.detail = "the marker path is a directory";
        } else if (type != S_IFREG && type != 0) {
            diagnosis.verdict = MarkerVerdict::Unreadable;
            diagnosis.detail = notRegularFileDetail(type);
        } else {
            diagnosis.verdict = MarkerVerdict::Unreadable;
            diagnosis.detail = "the marker cannot be opened for reading";
        }
        return diagnosis;
    }
    std::string lines[layout::markerLineCount];
    std::size_t count = 0;
    while (count < layout::markerLineCount) {
        const LineFile::Read read = reader.readLine(lines[count]);
        if (read == LineFile::Read::TooLong) {
            diagnosis.verdict = MarkerVerdict::Malformed;
            diagnosis.detail = "line " + std::to_string(count + 1) +
                               " of the marker is longer than " +
                               std::to_string(LineFile::maxLineLength) + " bytes";
            return diagnosis;
        }
        if (read == LineFile::Read::End)
            break;
        ++count;
    }
    if (count == 0 && reader.readFailed()) {
        diagnosis.verdict = MarkerVerdict::Unreadable;
        diagnosis.detail = "the marker cannot be read";
        return diagnosis;
    }
    if (count < layout::markerLineCount) {
        diagnosis.verdict = MarkerVerdict::Malformed;
        diagnosis.detail = "the marker has " + std::to_string(count) + " of its " +
                           std::to_string(layout::markerLineCount) + " lines";
        return diagnosis;
    }
    if (lines[0] != layout::markerHeader) {
        diagnosis.verdict = MarkerVerdict::Malformed;
        diagnosis.detail = "the marker's first line is not " + std::string(layout::markerHeader);
        return diagnosis;
    }
    const MarkerField expected[] = {
        {"format", std::to_string(layout::markerFormat), markerValue(lines[1], "format")},
        {"version", identity.version, markerValue(lines[2], "version")},
        {"abi", std::to_string(identity.abiVersion), markerValue(lines[3], "abi")},
        {"fingerprint", identity.fingerprint, markerValue(lines[4], "fingerprint")},
    };
    for (const auto& field : expected)
        if (field.expected != field.found)
            diagnosis.differences.push_back(field);
    diagnosis.verdict =
        diagnosis.differences.empty() ? MarkerVerdict::Valid : MarkerVerdict::Mismatch;
    return diagnosis;
}

std::vector<std::string> libraryUnitFiles(const fs::path& root,
                                          std::vector<UnreachableEntry>* unreachable) {
    std::vector<std::string> units;
    std::error_code error;
    fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, error);
    if (error)
        throw enumerationError(root, error);
    for (const fs::recursive_directory_iterator end; it != end;) {
        const fs::directory_entry& entry = *it;
        std::error_code entryError;
        const auto own = entry.symlink_status(entryError);
        const bool isUnit = entry.path().extension() == layout::sourceExtension;
        if (!entryError && own.type() == fs::file_type::regular && isUnit)
            units.push_back(entry.path().lexically_normal().string());
        if (unreachable != nullptr) {
            // The walk skips both in silence; only `status` says so.
            if (entryError && isUnit && entryError != std::errc::no_such_file_or_directory)
                unreachable->push_back({entry.path(), entryError.message()});
            if (!entryError && own.type() == fs::file_type::directory) {
                const int fd =
                    ::open(entry.path().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
                if (fd >= 0)
                    ::close(fd); // opened only to see whether the walk can
                else if (errno == EACCES)
                    unreachable->push_back({entry.path(), std::strerror(EACCES)});
            }
        }
        it.increment(error);
        if (error)
            throw enumerationError(root, error);
    }
    std::sort(units.begin(), units.end());
    if (unreachable != nullptr)
        std::sort(
            unreachable->begin(), unreachable->end(),
            [](const UnreachableEntry& a, const UnreachableEntry& b) { return a.path < b.path; });
    return units;
}

std::vector<std::string> compilableUnits(const fs::path& root,
                                         std::vector<UnreachableEntry>* unreachable) {
    std::vector<std::string> units = libraryUnitFiles(root, unreachable);
    std::erase_if(units, [](const std::string& unit) { return isExcludedByHeader(unit); });
    return units;
}

namespace {

// The size walk below a directory, shared by a few threads. One stat per entry
// is the whole cost of a du, all of it system time; on a machine whose cores
// are busy, a single thread waits for its turn far longer than it runs, so the
// walk takes as many turns at once as there are cores (up to four). Each
// thread walks depth first, by descriptor; a thread that finds another idle
// hands it the next subfolder it meets, opened, so that at most a few
// descriptors wait in the queue. When no thread can be started, the calling
// thread walks alone.
class SizeWalk {
public:
    // Adds what lies below the directory open as `directory` to `size`, and
    // closes it. A directory that cannot be listed, or an entry that cannot
    // be examined, adds nothing; the walk goes on with the rest.
    static void run(int directory, TreeSize& size) {
        SizeWalk walk;
        walk.queue_.push_back(directory);
        const unsigned cores = std::thread::hardware_concurrency();
        const unsigned helpers = std::clamp(cores, 1u, 4u) - 1;
        std::vector<std::thread> threads;
        for (unsigned index = 0; index < helpers; ++index) {
            try {
                threads.emplace_back([&walk] { walk.work(); });
            } catch (const std::system_error&) {
                break; // no thread to be had: fewer walkers
            }
        }
        {
            const std::lock_guard lock(walk.mutex_);
            walk.workers_ = static_cast<unsigned>(threads.size()) + 1;
            walk.ready_ = true;
        }
        walk.wake_.notify_all();
        walk.work();
        for (auto& thread : threads)
            thread.join();
        size.bytes += walk.total_.bytes;
        size.files += walk.total_.files;
    }

private:
    // Takes folders from the queue until every walker is idle and the queue
    // is empty.
    void work() {
        TreeSize mine;
        std::unique_lock lock(mutex_);
        wake_.wait(lock, [this] { return ready_; });
        while (true) {
            if (!queue_.empty()) {
                const int directory = queue_.back();
                queue_.pop_back();
                lock.unlock();
                walk(directory, mine);
                lock.lock();
                continue;
            }
            if (++idle_ == workers_) {
                finished_ = true;
                wake_.notify_all();
            }
            idleHint_.store(idle_, std::memory_order_relaxed);
            wake_.wait(lock, [this] { return finished_ || !queue_.empty(); });
            if (finished_)
                break;
            idleHint_.store(--idle_, std::memory_order_relaxed);
        }
        total_.bytes += mine.bytes;
        total_.files += mine.files;
    }

    void walk(int directory, TreeSize& size) {
        DIR* listing = ::fdopendir(directory);
        if (listing == nullptr) {
            ::close(directory); // opened read-only to list it: closing loses nothing
            return;
        }
        const int fd = ::dirfd(listing);
        while (const dirent* entry = ::readdir(listing)) {
            const char* name = entry->d_name;
            if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
                continue;
            struct stat info {};
            if (::fstatat(fd, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            size.bytes += static_cast<std::uint64_t>(info.st_blocks) * 512;
            if (!S_ISDIR(info.st_mode)) {
                ++size.files;
                continue;
            }
            // O_NOFOLLOW: a directory swapped for a link since the stat is
            // not entered.
            const int child = ::openat(fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (child < 0)
                continue;
            if (idleHint_.load(std::memory_order_relaxed) > 0 && handOver(child))
                continue;
            walk(child, size);
        }
        ::closedir(listing);
    }

    // Queues `directory` for an idle walker; false when the queue is full
    // enough already.
    bool handOver(int directory) {
        const std::lock_guard lock(mutex_);
        if (queue_.size() >= workers_)
            return false;
        queue_.push_back(directory);
        wake_.notify_one();
        return true;
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<int> queue_; // open folders nobody walks yet
    unsigned workers_ = 1;
    unsigned idle_ = 0;
    std::atomic<unsigned> idleHint_{0}; // idle_, read without the lock
    bool ready_ = false;                // workers_ is set
    bool finished_ = false;
    TreeSize total_;
};

} // namespace

TreeSize treeSize(const fs::path& path) {
    TreeSize size;
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        return size;
    size.bytes = static_cast<std::uint64_t>(info.st_blocks) * 512;
    if (!S_ISDIR(info.st_mode))
        return size;
    const int directory = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (directory >= 0)
        SizeWalk::run(directory, size);
    return size;
}

VersionSize versionSize(const fs::path& cacheRoot, const std::string& version) {
    const fs::path root = cacheRoot.lexically_normal();
    const TreeSize cache = treeSize(root / version);
    return {cache.bytes + treeSize(root / layout::firstLaunchDirectory / version).bytes,
            cache.files};
}

std::uint64_t versionBytes(const fs::path& cacheRoot, const std::string& version) {
    return versionSize(cacheRoot, version).bytes;
}

} // namespace quor::stdlibtool
