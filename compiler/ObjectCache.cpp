// Objects in the library cache: planning, judging, reusing, setting aside.
//
// A build reuses an object only after reading it whole and checking its own
// checksum, its ABI, its unit and the digest of the bytes it was compiled from
// against the unit's bytes of today; nothing about it is taken on trust (not
// its time stamp, not its size, not a record written elsewhere). A sound
// object that a build must replace is moved into the set-aside area rather
// than deleted, under a name made of the unit and those bytes, which is what
// makes a switch back to an earlier library cost one rename per unit. What an
// object's bytes say is read by the object format (compiler/ObjectFormat.h),
// and where objects, the ABI record and the set-aside area lie is the cache
// layout's (compiler/CacheLayout.h).

#include "compiler/ObjectCache.h"
#include "compiler/PathText.h"
#include "compiler/ServiceError.h"

#include "compiler/CacheLayout.h"
#include "compiler/ObjectFormat.h"
#include "compiler/Runtime.h"
#include "compiler/Sha256.h"
#include "compiler/SourceManager.h"
#include "compiler/Tokenizer.h"
#include "compiler/UnitCompiler.h"
#include "quor/Config.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/openat2.h>
#include <mutex>
#include <signal.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>
#include <unordered_set>

namespace quor::compiler {

namespace {

namespace fs = std::filesystem;

std::string systemMessage(int error) {
    return std::generic_category().message(error);
}

// An object is the declarations of one unit; one this large was not written
// by this compiler, and reading it whole could exhaust memory.
constexpr std::uint64_t objectReadLimit = std::uint64_t(256) << 20;

// A name for a temporary file that no other thread or process of this machine
// picks at the same time.
std::string temporarySuffix() {
    static std::atomic<unsigned long> counter{0};
    return std::string(layout::temporaryMarker) + std::to_string(::getpid()) + "." +
           std::to_string(++counter);
}

// The process id in a temporary's name (".<name>.tmp.<pid>.<n>"), or 0 when
// the name is not one of ours.
pid_t temporaryWriter(const std::string& name) {
    const std::size_t marker = name.rfind(layout::temporaryMarker);
    if (name.empty() || name[0] != '.' || marker == std::string::npos) {
        return 0;
    }
    const std::size_t start = marker + layout::temporaryMarker.size();
    const std::size_t end = name.find('.', start);
    if (end == std::string::npos || end == start) {
        return 0;
    }
    pid_t pid = 0;
    for (std::size_t i = start; i < end; ++i) {
        if (name[i] < '0' || name[i] > '9' || pid > 99999999) {
            return 0;
        }
        pid = pid * 10 + (name[i] - '0');
    }
    return pid;
}

// A temporary whose writer is another process that still runs: a precompile
// outside the bootstrap's lock may be writing it right now.
bool belongsToLiveWriter(const std::string& name) {
    const pid_t writer = temporaryWriter(name);
    return writer > 0 && writer != ::getpid() && (::kill(writer, 0) == 0 || errno != ESRCH);
}

// The bytes of the regular file at `path`, read without following a link and
// without blocking. `error` is 0, or why there is nothing to read: the errno
// of open or read, ELOOP for a link, EFTYPE-like ENODEV for a file that is not
// regular, EFBIG for one over the limit.
struct FileBytes {
    int error = 0;
    std::string bytes;
};

// The bytes of the file open as `fd`, when it is a regular file within the
// limit. Leaves `fd` open.
FileBytes readRegularDescriptor(int fd) {
    FileBytes result;
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        result.error = errno;
    } else if (!S_ISREG(status.st_mode)) {
        result.error = ENODEV;
    } else if (std::uint64_t(status.st_size) > objectReadLimit) {
        result.error = EFBIG;
    } else {
        // One byte more than the size, so that a file still growing is not
        // mistaken for a whole one; the checksum settles the rest.
        result.bytes.resize(std::size_t(status.st_size) + 1);
        std::size_t used = 0;
        while (used < result.bytes.size()) {
            const std::size_t wanted = result.bytes.size() - used;
            const ssize_t count = ::read(fd, result.bytes.data() + used, wanted);
            if (count > 0) {
                used += std::size_t(count);
                if (std::size_t(count) < wanted) {
                    break; // a regular file reads short only at its end
                }
            } else if (count == 0) {
                break;
            } else if (errno != EINTR) {
                result.error = errno;
                break;
            }
        }
        result.bytes.resize(used);
    }
    return result;
}

// The file at `relative` below the open folder `base`, reached through no
// link (defined with the adoption below).
int openBelowWithoutLinks(int base, const fs::path& relative);

FileBytes readRegularFile(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return FileBytes{errno, {}};
    }
    FileBytes result = readRegularDescriptor(fd);
    ::close(fd); // read-only descriptor: nothing to lose on a failing close
    return result;
}

// The bootstrap's marker path for the configured runtime.
fs::path readinessMarkerPath() {
    const Runtime& runtime = Runtime::getInstance();
    return layout::markerPath(fs::path(runtime.getCacheBranchPath()).parent_path().native(),
                              QUOR_COMPILER_VERSION,
                              fs::path(runtime.getLibCachePath()).filename().native());
}

// Moves the sound object at `object` (of the unit recorded as `unitField`,
// compiled from bytes hashing to `compiledFrom`) into the set-aside area, and
// marks it as just used, which is the age trimSetAside() goes by. False when it
// could not be moved; the caller then removes or replaces it.
bool setAsideObject(const fs::path& object, const fs::path& setAside, std::string_view unitField,
                    std::string_view compiledFrom) {
    const fs::path target = setAsidePath(setAside, unitField, compiledFrom);
    if (::rename(object.c_str(), target.c_str()) != 0) {
        return false;
    }
    ::utimensat(AT_FDCWD, target.c_str(), nullptr, AT_SYMLINK_NOFOLLOW); // age only: best effort
    return true;
}

// What a batch puts in the library cache: its objects and the folders on the
// way to them, as path text. Everything else there belongs to no unit.
struct BatchLayout {
    std::unordered_set<std::string> objects;
    std::unordered_set<std::string> folders;
};

BatchLayout layoutOf(const fs::path& lib, const std::vector<PlannedObject>& planned) {
    BatchLayout batch;
    batch.objects.reserve(planned.size());
    for (const PlannedObject& unit : planned) {
        batch.objects.insert(unit.object.native());
        for (fs::path folder = unit.object.parent_path();
             folder != lib && folder.has_relative_path(); folder = folder.parent_path()) {
            if (!batch.folders.insert(folder.native()).second) {
                break;
            }
        }
    }
    return batch;
}

// The record is one short word; anything past this many bytes cannot be part of
// a record this compiler wrote.
constexpr std::size_t abiRecordReadLimit = 4096;

} // namespace

std::vector<PlannedObject> planObjects(const std::vector<std::string>& sources) {
    const Runtime& runtime = Runtime::getInstance();
    std::error_code error;
    fs::path root = fs::absolute(runtime.getStandardLibraryPath(), error).lexically_normal();
    if (error) {
        root = fs::path(runtime.getStandardLibraryPath()).lexically_normal();
    }
    const fs::path lib = runtime.getLibCachePath();
    const std::string prefix = root.native() + (root.native().ends_with('/') ? "" : "/");
    std::vector<PlannedObject> planned;
    planned.reserve(sources.size());
    for (const std::string& source : sources) {
        // The bootstrap names its units below the root in normal form; their
        // path below the root is then the rest of the text.
        if (source.starts_with(prefix) && source.ends_with(layout::sourceExtension) &&
            source.size() > prefix.size() + 3 && isAbsoluteAndNormal(source)) {
            const std::string_view relative = std::string_view(source).substr(prefix.size());
            planned.push_back({source, std::string(relative), layout::objectPath(lib, relative)});
            continue;
        }
        fs::path absolute = fs::absolute(source, error).lexically_normal();
        if (error) {
            absolute = fs::path(source).lexically_normal();
        }
        const fs::path relative = absolute.lexically_relative(root);
        if (relative.empty() || *relative.begin() == ".." || *relative.begin() == "." ||
            !absolute.has_filename()) {
            throw ServiceInternalError(source +
                                       ":1:1: the unit lies outside the standard library '" +
                                       root.native() + "'");
        }
        if (relative.extension() != layout::sourceExtension) {
            throw ServiceInternalError(source +
                                       ":1:1: not a Quor source unit (its name must end in .qr)");
        }
        std::string unitPath = relative.generic_string();
        fs::path object = layout::objectPath(lib, unitPath);
        planned.push_back({source, std::move(unitPath), std::move(object)});
    }
    return planned;
}

std::string_view objectVerdictName(ObjectVerdict verdict) {
    switch (verdict) {
    case ObjectVerdict::Sound:
        return "sound";
    case ObjectVerdict::Missing:
        return "missing";
    case ObjectVerdict::Damaged:
        return "damaged";
    case ObjectVerdict::Stale:
        return "stale";
    }
    return "damaged";
}

namespace {

// judgeObject() for what reading the object gave.
ObjectJudgement judgeObjectBytes(const FileBytes& file, std::string_view unitPath,
                                 std::uint64_t sourceSize, std::string_view sourceSha256) {
    ObjectJudgement judgement;
    if (file.error == ENOENT) {
        return judgement; // Missing
    }
    judgement.verdict = ObjectVerdict::Damaged;
    if (file.error == ELOOP) {
        judgement.problem = "a symbolic link, never followed";
        return judgement;
    }
    if (file.error == ENODEV) {
        judgement.problem = "not a regular file";
        return judgement;
    }
    if (file.error == EFBIG) {
        judgement.problem = "larger than any object this compiler writes";
        return judgement;
    }
    if (file.error != 0) {
        judgement.problem = "unreadable: " + systemMessage(file.error);
        return judgement;
    }
    return judgeObjectText(file.bytes, unitPath, sourceSize, sourceSha256);
}

} // namespace

ObjectJudgement judgeObjectText(std::string_view bytes, std::string_view unitPath,
                                std::uint64_t sourceSize, std::string_view sourceSha256) {
    ObjectJudgement judgement;
    judgement.verdict = ObjectVerdict::Damaged;
    objectformat::Head head;
    if (std::string problem = objectformat::readHead(bytes, head); !problem.empty()) {
        judgement.problem = std::move(problem);
        return judgement;
    }
    if (head.unitField != objectformat::escapedField(unitPath)) {
        judgement.problem = "the object of another unit ('" + head.unitField + "')";
        return judgement;
    }
    judgement.compiledFrom = head.sourceSha256;
    if (head.sourceSize != std::to_string(sourceSize) || head.sourceSha256 != sourceSha256) {
        judgement.verdict = ObjectVerdict::Stale;
        judgement.problem = "compiled from other bytes than the unit holds now";
        return judgement;
    }
    judgement.verdict = ObjectVerdict::Sound;
    judgement.bytes = bytes.size();
    return judgement;
}

ObjectJudgement judgeObject(const fs::path& object, std::string_view unitPath,
                            std::uint64_t sourceSize, std::string_view sourceSha256,
                            std::string* judged) {
    FileBytes file = readRegularFile(object);
    ObjectJudgement judgement = judgeObjectBytes(file, unitPath, sourceSize, sourceSha256);
    if (judged != nullptr) {
        *judged = judgement.verdict == ObjectVerdict::Sound ? std::move(file.bytes) : std::string();
    }
    return judgement;
}

fs::path setAsideDirectory() {
    return layout::setAsideDirectoryPath(Runtime::getInstance().getCacheBranchPath());
}

fs::path setAsidePath(const fs::path& setAside, std::string_view unitField,
                      std::string_view sourceSha256) {
    std::string key(unitField);
    key += '\n';
    key += sourceSha256;
    return setAside / layout::setAsideEntryName(Sha256::hex(key));
}

std::string readAbiRecord(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return {};
    }
    std::string text;
    struct stat status {};
    if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        char buffer[abiRecordReadLimit];
        std::size_t used = 0;
        while (used < sizeof buffer) {
            const ssize_t count = ::read(fd, buffer + used, sizeof buffer - used);
            if (count > 0) {
                used += static_cast<std::size_t>(count);
            } else if (count == 0 || errno != EINTR) {
                break;
            }
        }
        text.assign(buffer, used);
    }
    ::close(fd); // read-only descriptor: nothing to lose on a failing close
    // White space as the C locale knows it, so that a record with a CR or a
    // blank around the number still reads.
    constexpr std::string_view space = " \t\n\v\f\r";
    const std::size_t begin = text.find_first_not_of(space);
    if (begin == std::string::npos) {
        return {};
    }
    const std::size_t end = text.find_first_of(space, begin);
    if (end == std::string::npos && text.size() == abiRecordReadLimit) {
        return {}; // the word may go on past the limit: not a record of ours
    }
    return text.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
}

LibraryCacheReport inspectLibraryCache(const std::vector<std::string>& sources) {
    LibraryCacheReport report;
    const std::vector<PlannedObject> planned = planObjects(sources);
    const fs::path lib = Runtime::getInstance().getLibCachePath();
    const fs::path setAside = setAsideDirectory();
    // The adoption source's objects are reached as a build reaches them:
    // beneath its folder, through no link.
    const fs::path adoptionSource = Runtime::getInstance().getAdoptionSource();
    const int adoptionFolder =
        adoptionSource.empty()
            ? -1
            : ::open(adoptionSource.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    struct CloseOnExit {
        int fd;
        ~CloseOnExit() {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    } closeAdoptionFolder{adoptionFolder};
    const BatchLayout batch = layoutOf(lib, planned);
    report.units.reserve(planned.size());
    for (const PlannedObject& unit : planned) {
        UnitObjectReport entry;
        entry.planned = unit;
        const std::shared_ptr<const std::string> text =
            SourceManager::instance().contents(unit.source);
        if (!text) {
            entry.unreadable = true;
        } else {
            const std::string digest = Sha256::hex(*text);
            entry.judgement = judgeObject(unit.object, unit.unitPath, text->size(), digest);
            if (entry.judgement.verdict != ObjectVerdict::Sound) {
                entry.setAside =
                    judgeObject(
                        setAsidePath(setAside, objectformat::escapedField(unit.unitPath), digest),
                        unit.unitPath, text->size(), digest)
                        .verdict == ObjectVerdict::Sound;
            }
            if (entry.judgement.verdict != ObjectVerdict::Sound && !entry.setAside &&
                adoptionFolder >= 0) {
                const int object =
                    openBelowWithoutLinks(adoptionFolder, layout::objectPath({}, unit.unitPath));
                const FileBytes bytes =
                    object < 0 ? FileBytes{errno, {}} : readRegularDescriptor(object);
                if (object >= 0) {
                    ::close(object);
                }
                entry.adoptable =
                    judgeObjectBytes(bytes, unit.unitPath, text->size(), digest).verdict ==
                    ObjectVerdict::Sound;
            }
        }
        report.units.push_back(std::move(entry));
    }

    const fs::path abiRecord = layout::abiRecordPath(lib.native());
    report.abiRecord = readAbiRecord(abiRecord);
    report.abiRecordCurrent = report.abiRecord == std::to_string(objectformat::abiVersion);

    std::error_code error;
    fs::recursive_directory_iterator entries(lib, fs::directory_options::none, error);
    if (error == std::errc::no_such_file_or_directory) {
        return report; // no library cache, so nothing in it belongs to no unit
    }
    for (; !error && entries != fs::recursive_directory_iterator(); entries.increment(error)) {
        const fs::path& path = entries->path();
        std::error_code typeError;
        const fs::file_status status = entries->symlink_status(typeError);
        if (fs::is_directory(status)) {
            if (batch.folders.count(path.native()) == 0) {
                report.orphans.push_back(path);
                entries.disable_recursion_pending();
            }
            continue;
        }
        if (batch.objects.count(path.native()) != 0 || path == abiRecord) {
            continue;
        }
        report.orphans.push_back(path);
    }
    if (error) {
        throw CacheIoError("Unable to inspect Quor library cache '" + lib.native() +
                           "': " + error.message());
    }
    std::sort(report.orphans.begin(), report.orphans.end());
    return report;
}

void withdrawReadinessMarker() {
    const fs::path marker = readinessMarkerPath();
    if (::unlink(marker.c_str()) != 0) {
        // Nothing there, or a directory, which vouches for nothing either.
        if (errno == ENOENT || errno == ENOTDIR || errno == EISDIR) {
            return;
        }
        throw CacheIoError("Unable to withdraw Quor readiness marker '" + marker.native() +
                           "': " + systemMessage(errno));
    }
    const fs::path state = marker.parent_path();
    const int fd = ::open(state.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int error = fd < 0 ? errno : ::fsync(fd) == 0 ? 0 : errno;
    if (fd >= 0) {
        ::close(fd); // read-only directory descriptor: nothing to lose on close
    }
    if (error != 0) {
        throw CacheIoError("Unable to withdraw Quor readiness marker '" + marker.native() +
                           "': " + systemMessage(error));
    }
}

int writeFileAtomically(const fs::path& path, std::string_view data) {
    const fs::path temporary =
        path.parent_path() / ("." + path.filename().native() + temporarySuffix());
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        return errno;
    }
    int error = 0;
    std::size_t written = 0;
    while (written < data.size()) {
        const ssize_t count = ::write(fd, data.data() + written, data.size() - written);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = errno;
            break;
        }
        written += static_cast<std::size_t>(count);
    }
    if (::close(fd) != 0 && error == 0) {
        error = errno;
    }
    if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        ::unlink(temporary.c_str()); // best effort: the error being reported is the first one
    }
    return error;
}

std::size_t sweepLibraryCache(const fs::path& lib, const std::vector<PlannedObject>& planned,
                              const fs::path& setAside, std::string_view keepName) {
    const BatchLayout batch = layoutOf(lib, planned);
    const auto failure = [](const fs::path& path, const std::error_code& error) {
        return CacheIoError("Unable to remove stale Quor object '" + path.native() +
                            "': " + error.message());
    };
    std::size_t removed = 0;
    std::error_code error;
    fs::recursive_directory_iterator entries(lib, fs::directory_options::none, error);
    for (; !error && entries != fs::recursive_directory_iterator(); entries.increment(error)) {
        const fs::path path = entries->path();
        std::error_code typeError;
        const fs::file_status status = entries->symlink_status(typeError);
        const std::string name = path.filename().native();
        if (fs::is_directory(status)) {
            if (batch.folders.count(path.native()) != 0) {
                continue;
            }
            // A folder no unit needs any more. Its sound objects are set aside
            // first, so that a library that has them again compiles nothing.
            entries.disable_recursion_pending();
            std::error_code innerError;
            for (fs::recursive_directory_iterator inner(path, innerError);
                 !innerError && inner != fs::recursive_directory_iterator();
                 inner.increment(innerError)) {
                if (inner->is_regular_file(typeError) && !inner->is_symlink(typeError)) {
                    const FileBytes file = readRegularFile(inner->path());
                    objectformat::Head head;
                    if (file.error == 0 && objectformat::readHead(file.bytes, head).empty()) {
                        setAsideObject(inner->path(), setAside, head.unitField, head.sourceSha256);
                    }
                }
            }
            fs::remove_all(path, error);
            if (error) {
                throw failure(path, error);
            }
            ++removed;
            continue;
        }
        if (path.parent_path() == lib && name == keepName) {
            continue;
        }
        const bool regular = fs::is_regular_file(status);
        if (regular && batch.objects.count(path.native()) != 0) {
            continue; // judged by updateObject()
        }
        if (regular && belongsToLiveWriter(name)) {
            continue;
        }
        if (regular && temporaryWriter(name) == 0) {
            const FileBytes file = readRegularFile(path);
            objectformat::Head head;
            if (file.error == 0 && objectformat::readHead(file.bytes, head).empty() &&
                setAsideObject(path, setAside, head.unitField, head.sourceSha256)) {
                ++removed;
                continue;
            }
        }
        if (!fs::remove(path, error) && error) {
            throw failure(path, error);
        }
        ++removed;
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        throw CacheIoError("Unable to inspect Quor library cache '" + lib.native() +
                           "': " + error.message());
    }
    return removed;
}

namespace {

// Closes a descriptor when it goes out of scope.
struct Descriptor {
    int fd = -1;
    Descriptor() = default;
    explicit Descriptor(int opened) : fd(opened) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
};

// The file at `relative` below the open folder `base`, opened for reading
// without following a link at any step and without blocking on a FIFO; -1
// when there is none such. One openat2() resolves the whole path beneath
// `base`; on a kernel without it each folder is opened in turn.
int openBelowWithoutLinks(int base, const fs::path& relative) {
    constexpr int fileFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    open_how how{};
    how.flags = fileFlags;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const long opened = ::syscall(SYS_openat2, base, relative.c_str(), &how, sizeof how);
    if (opened >= 0 || errno != ENOSYS) {
        return static_cast<int>(opened);
    }
    Descriptor folder(::dup(base));
    if (folder.fd < 0) {
        return -1;
    }
    for (const fs::path& element : relative.parent_path()) {
        const int next =
            ::openat(folder.fd, element.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (next < 0) {
            return -1;
        }
        ::close(folder.fd);
        folder.fd = next;
    }
    return ::openat(folder.fd, relative.filename().c_str(), fileFlags);
}

// Whether cloning a file's blocks (FICLONE) is still worth a try: not once
// the file systems have said that they cannot, for the rest of the process.
std::atomic<bool> cloningWorthATry{true};

// Clones `from` into a temporary beside `planned.object`, judges the clone
// and renames it into place when it is sound. Nothing when the file systems
// cannot clone, or when the clone is not sound.
std::optional<std::uint64_t> adoptByCloning(const PlannedObject& planned, int from,
                                            std::uint64_t sourceSize,
                                            std::string_view sourceSha256) {
    const fs::path temporary = planned.object.parent_path() /
                               ("." + planned.object.filename().native() + temporarySuffix());
    bool cloned = false;
    {
        const Descriptor to(
            ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
        if (to.fd < 0) {
            return std::nullopt;
        }
        cloned = ::ioctl(to.fd, FICLONE, from) == 0;
        if (!cloned && (errno == EOPNOTSUPP || errno == EXDEV || errno == EINVAL ||
                        errno == ENOTTY || errno == ENOSYS)) {
            cloningWorthATry.store(false, std::memory_order_relaxed);
        }
    }
    if (cloned) {
        const ObjectJudgement clone =
            judgeObject(temporary, planned.unitPath, sourceSize, sourceSha256);
        if (clone.verdict == ObjectVerdict::Sound &&
            ::rename(temporary.c_str(), planned.object.c_str()) == 0) {
            return clone.bytes;
        }
    }
    ::unlink(temporary.c_str());
    return std::nullopt;
}

} // namespace

std::optional<std::uint64_t> adoptObject(const PlannedObject& planned, int adoptionSource,
                                         std::uint64_t sourceSize, std::string_view sourceSha256) {
    if (adoptionSource < 0) {
        return std::nullopt;
    }
    const Descriptor from(
        openBelowWithoutLinks(adoptionSource, layout::objectPath({}, planned.unitPath)));
    if (from.fd < 0) {
        return std::nullopt;
    }
    if (cloningWorthATry.load(std::memory_order_relaxed)) {
        if (const auto cloned = adoptByCloning(planned, from.fd, sourceSize, sourceSha256)) {
            return cloned;
        }
        if (cloningWorthATry.load(std::memory_order_relaxed)) {
            return std::nullopt; // cloned, or could not be, and not sound
        }
    }
    // A copy: the bytes read once, judged, and written as they were judged.
    const FileBytes bytes = readRegularDescriptor(from.fd);
    const ObjectJudgement judgement =
        judgeObjectBytes(bytes, planned.unitPath, sourceSize, sourceSha256);
    if (judgement.verdict != ObjectVerdict::Sound ||
        writeFileAtomically(planned.object, bytes.bytes) != 0) {
        return std::nullopt;
    }
    return judgement.bytes;
}

ObjectUpdate updateObject(const PlannedObject& planned, const fs::path& setAside, int abi,
                          int adoptionSource) {
    const std::shared_ptr<const std::string> text =
        SourceManager::instance().contents(planned.source);
    if (!text) {
        throw CacheIoError(planned.source + ":1:1: unable to read the unit");
    }
    const std::string digest = Sha256::hex(*text);
    const std::string unitField = objectformat::escapedField(planned.unitPath);
    ObjectUpdate update;

    const ObjectJudgement current =
        judgeObject(planned.object, planned.unitPath, text->size(), digest);
    if (current.verdict == ObjectVerdict::Sound) {
        update.outcome = ObjectOutcome::Kept;
        update.bytes = current.bytes;
        return update;
    }
    if (current.verdict == ObjectVerdict::Stale) {
        // Sound for other bytes of this unit: kept for a library that has them.
        setAsideObject(planned.object, setAside, unitField, current.compiledFrom);
    }

    const fs::path stored = setAsidePath(setAside, unitField, digest);
    const ObjectJudgement kept = judgeObject(stored, planned.unitPath, text->size(), digest);
    if (kept.verdict == ObjectVerdict::Sound &&
        ::rename(stored.c_str(), planned.object.c_str()) == 0) {
        update.outcome = ObjectOutcome::MovedBack;
        update.bytes = kept.bytes;
        return update;
    }

    if (const auto adopted = adoptObject(planned, adoptionSource, text->size(), digest)) {
        update.outcome = ObjectOutcome::Adopted;
        update.bytes = *adopted;
        return update;
    }

    try {
        update.object = compileUnit(*text, planned.unitPath, abi, digest);
    } catch (const SourceError& failure) {
        throw UnitSourceError(planned.source + ":" + std::to_string(failure.line()) + ":" +
                              std::to_string(failure.column()) + ": " + failure.what());
    }
    update.outcome = ObjectOutcome::Compiled;
    update.bytes = update.object.size();
    return update;
}

void writeObject(const PlannedObject& planned, std::string_view object) {
    const int failure = writeFileAtomically(planned.object, object);
    if (failure != 0) {
        throw CacheIoError(planned.source + ":1:1: unable to write its object '" +
                           planned.object.native() + "': " + systemMessage(failure));
    }
}

void trimSetAside(const fs::path& setAside, std::uint64_t budget) {
    struct Entry {
        fs::path path;
        struct timespec used;
        std::uint64_t bytes;
    };
    std::vector<Entry> objects;
    std::uint64_t total = 0;
    std::error_code error;
    for (fs::directory_iterator entries(setAside, error);
         !error && entries != fs::directory_iterator(); entries.increment(error)) {
        const fs::path& path = entries->path();
        struct stat status {};
        const std::string name = path.filename().native();
        const bool ours = layout::isSetAsideEntryName(name);
        if (::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && ours) {
            objects.push_back({path, status.st_mtim, std::uint64_t(status.st_size)});
            total += std::uint64_t(status.st_size);
        } else if (!belongsToLiveWriter(name)) {
            std::error_code ignored;
            fs::remove_all(path, ignored); // best effort, see the declaration
        }
    }
    if (total <= budget) {
        return;
    }
    std::sort(objects.begin(), objects.end(), [](const Entry& a, const Entry& b) {
        return a.used.tv_sec != b.used.tv_sec ? a.used.tv_sec < b.used.tv_sec
                                              : a.used.tv_nsec < b.used.tv_nsec;
    });
    for (const Entry& entry : objects) {
        if (total <= budget) {
            break;
        }
        if (::unlink(entry.path.c_str()) == 0) {
            total -= entry.bytes;
        }
    }
}

} // namespace quor::compiler
