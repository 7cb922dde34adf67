// Hostile setups: another user prepares the scene. The test runs as root, the
// user with the most to lose; the attacker is a forked child that has dropped to
// uid and gid 65534 and owns directories in a shared sticky directory (mode
// 1777, as /tmp is). At one path the tool creates, reads or deletes, it plants a
// symbolic link into a sentinel tree outside the cache root, a dangling link to
// a path outside that must never come to exist, a FIFO, a hard link to a
// sentinel file, a forged ready cache or a build lock it holds; or it keeps
// swapping that path with a link while the tool runs, by renameat2 with
// RENAME_EXCHANGE or by plain renames. The cache root is one the attacker owns,
// one root owns with a piece inside it that the attacker may write, a name in
// the shared directory that the attacker plants at, or a name that does not
// exist yet and that the attacker races the tool to create.
//
// Each round runs the built tool as root with one subcommand under a deadline,
// then checks that
//  - the sentinel tree is unchanged (names, types, modes, owners, contents and
//    link targets), so no dangling link's target came to exist either;
//  - the tool exited with a documented status, not by a signal, and printed no
//    uncaught exception or sanitizer report;
//  - whenever it vouched for a cache (ensure or status --check exiting 0, or
//    status --json saying it is ready), that cache is one only root could have
//    written: every layout directory a real directory owned by root that nobody
//    else may write, nothing in the library cache that is a link or belongs to
//    someone else, a valid marker, and objects byte-identical to a clean build.
// A private cache root without an attacker is the control: ensure must build
// there, so a tool that refused everything would not pass.
//
// The round mix, the attacker's pauses and the races come from stressSeed().
// The first rounds cover every pair of a target and a plant once, on a host
// drawn for it; later rounds cycle through every combination.

#include "compiler/Compiler.h"
#include "quor/Config.h"
#include "tests/reliability/ReliabilitySupport.h"
#include "tests/reliability/ToolHarness.h"
#include "tests/support/ChildChecks.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <iomanip>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#ifndef QUOR_BUILD_TREE_DIR
#error "QUOR_BUILD_TREE_DIR must come from the build configuration"
#endif

namespace quor::reliability {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr uid_t kAttacker = 65534;
const std::string kVersion = QUOR_COMPILER_VERSION;
const std::string kOldVersion = "0.1.5";

// ---------------------------------------------------------------------------
// What is attacked, with what, and where

enum class Target {
    None,
    Root,
    Version,
    Lib,
    Package,
    Object,
    AbiRecord,
    FirstLaunch,
    VersionState,
    State,
    Marker,
    Lock,
    OldVersion,
    OldState,
    Fingerprint
};

const Target kTargets[] = {Target::Root,        Target::Version,      Target::Lib,
                           Target::Package,     Target::Object,       Target::AbiRecord,
                           Target::FirstLaunch, Target::VersionState, Target::State,
                           Target::Marker,      Target::Lock,         Target::OldVersion,
                           Target::OldState,    Target::Fingerprint};

struct TargetInfo {
    const char* name;
    std::string relative; // below the cache root, or below the library for the fingerprint
    bool directory;
};

TargetInfo infoOf(Target target) {
    const std::string state = ".first-launch/" + kVersion;
    switch (target) {
    case Target::None:
        return {"nothing", "", true};
    case Target::Root:
        return {"the cache root", "", true};
    case Target::Version:
        return {"the version directory", kVersion, true};
    case Target::Lib:
        return {"the library cache", kVersion + "/lib", true};
    case Target::Package:
        return {"a package directory", kVersion + "/lib/core", true};
    case Target::Object:
        return {"an object", kVersion + "/lib/core/Unit0.qo", false};
    case Target::AbiRecord:
        return {"the ABI record", kVersion + "/lib/.quor-object-abi", false};
    case Target::FirstLaunch:
        return {".first-launch", ".first-launch", true};
    case Target::VersionState:
        return {".first-launch/<version>", state, true};
    case Target::State:
        return {"the state directory", state + "/lib", true};
    case Target::Marker:
        return {"the marker", state + "/lib/.quor-stdlib-ready", false};
    case Target::Lock:
        return {"the lock file", state + "/.stdlib-bootstrap-lib.lock", false};
    case Target::OldVersion:
        return {"an older version", kOldVersion, true};
    case Target::OldState:
        return {"an older version's state", ".first-launch/" + kOldVersion, true};
    case Target::Fingerprint:
        return {"the library's fingerprint", ".quor-stdlib-fingerprint", false};
    }
    return {"?", "", true};
}

enum class Plant {
    None,
    Link,         // a symbolic link to the sentinel of the same name
    Dangling,     // a symbolic link to a path outside that does not exist
    Fifo,         // a named pipe nobody writes to
    HardLink,     // a hard link to the sentinel file of the same name
    Forged,       // a valid marker over poisoned objects
    HeldLock,     // a lock file of the attacker's, locked by it
    SwapExchange, // the path exchanged with a link, again and again
    SwapRename    // the same with three plain renames, so the path is missing at times
};

const char* nameOf(Plant plant) {
    switch (plant) {
    case Plant::None:
        return "no plant";
    case Plant::Link:
        return "link to a sentinel";
    case Plant::Dangling:
        return "dangling link";
    case Plant::Fifo:
        return "FIFO";
    case Plant::HardLink:
        return "hard link to a sentinel";
    case Plant::Forged:
        return "forged ready cache";
    case Plant::HeldLock:
        return "lock held by the attacker";
    case Plant::SwapExchange:
        return "swapped with a link (exchange)";
    case Plant::SwapRename:
        return "swapped with a link (renames)";
    }
    return "?";
}

enum class Host {
    Private,        // a root-only directory holds the cache root; no attacker
    SharedName,     // the cache root's name in the shared directory is the plant
    AttackerRoot,   // the cache root is a directory of the attacker's
    OpenParent,     // root's cache root; the target's directory is open to the attacker
    Race,           // no cache root yet; the attacker races the tool to make one
    AttackerLibrary // the library's root directory is the attacker's
};

const char* nameOf(Host host) {
    switch (host) {
    case Host::Private:
        return "private root";
    case Host::SharedName:
        return "name in the shared directory";
    case Host::AttackerRoot:
        return "attacker's cache root";
    case Host::OpenParent:
        return "root's cache root, open piece";
    case Host::Race:
        return "absent root, raced";
    case Host::AttackerLibrary:
        return "attacker's library directory";
    }
    return "?";
}

struct Scenario {
    Target target;
    Plant plant;
    Host host;

    std::string name() const {
        if (plant == Plant::None) {
            return std::string("control: ") + nameOf(host);
        }
        return std::string(nameOf(plant)) + " at " + infoOf(target).name + " (" + nameOf(host) +
               ")";
    }
};

std::vector<Plant> plantsFor(Target target) {
    if (infoOf(target).directory) {
        return {Plant::Link, Plant::Dangling, Plant::Fifo, Plant::SwapExchange, Plant::SwapRename};
    }
    std::vector<Plant> plants = {Plant::Link,     Plant::Dangling,     Plant::Fifo,
                                 Plant::HardLink, Plant::SwapExchange, Plant::SwapRename};
    if (target == Target::Marker) {
        plants.push_back(Plant::Forged);
    }
    if (target == Target::Lock) {
        plants.push_back(Plant::HeldLock);
    }
    return plants;
}

std::vector<Host> hostsFor(Target target) {
    if (target == Target::Root) {
        return {Host::SharedName, Host::Race};
    }
    if (target == Target::Fingerprint) {
        return {Host::AttackerLibrary};
    }
    return {Host::AttackerRoot, Host::OpenParent, Host::Race};
}

enum class Command { Ensure, EnsureJobs, Prune, PruneDryRun, Status, StatusCheck, StatusJson };

const Command kCommands[] = {Command::Ensure,      Command::EnsureJobs, Command::Prune,
                             Command::PruneDryRun, Command::Status,     Command::StatusCheck,
                             Command::StatusJson};

std::vector<std::string> wordsOf(Command command) {
    switch (command) {
    case Command::Ensure:
        return {"ensure"};
    case Command::EnsureJobs:
        return {"ensure", "-j", "2"};
    case Command::Prune:
        return {"prune"};
    case Command::PruneDryRun:
        return {"prune", "-n"};
    case Command::Status:
        return {"status"};
    case Command::StatusCheck:
        return {"status", "--check"};
    case Command::StatusJson:
        return {"status", "--json"};
    }
    return {};
}

std::string nameOf(Command command) {
    std::string name;
    for (const std::string& word : wordsOf(command)) {
        name += (name.empty() ? "" : " ") + word;
    }
    return name;
}

bool isEnsure(Command command) {
    return command == Command::Ensure || command == Command::EnsureJobs;
}

// The subcommands that act on a target in the first pass over the scenarios,
// where each pair of a target and a plant gets one round: the one that writes or
// deletes there, or, for what is only read, the readers too.
std::vector<Command> firstCommandsFor(const Scenario& scenario) {
    switch (scenario.target) {
    case Target::Root:
    case Target::FirstLaunch:
        return {Command::Ensure, Command::EnsureJobs, Command::Prune};
    case Target::OldVersion:
    case Target::OldState:
        return {Command::Prune};
    case Target::Fingerprint:
        return {Command::Ensure, Command::EnsureJobs, Command::Status, Command::StatusCheck,
                Command::StatusJson};
    case Target::Marker:
        if (scenario.plant == Plant::Forged) {
            return {Command::Ensure, Command::StatusCheck};
        }
        return {Command::Ensure, Command::EnsureJobs, Command::Status, Command::StatusCheck,
                Command::StatusJson};
    default:
        return {Command::Ensure, Command::EnsureJobs};
    }
}

// ---------------------------------------------------------------------------
// The old version's files every scene starts with, so that prune has something
// to delete wherever the attacker's links lead it.

struct OldFile {
    std::string relative;
    const char* content;
};

std::vector<OldFile> oldFiles() {
    return {{kOldVersion + "/lib/core/Unit0.qo", "old object\n"},
            {".first-launch/" + kOldVersion + "/lib/.quor-stdlib-ready", "old marker\n"}};
}

// True when `relative` is `top` or lies below it ("" is the cache root).
bool isAtOrBelow(const std::string& relative, const std::string& top) {
    return top.empty() || relative == top || relative.rfind(top + "/", 0) == 0;
}

std::string parentOf(const std::string& relative) {
    return fs::path(relative).parent_path().string();
}

// ---------------------------------------------------------------------------
// The sentinel tree: outside every cache root, owned by root, readable by all.
// Its "mirror" is laid out as a cache root, with sentinels under exactly the
// names the tool writes and deletes, so that a link followed even once changes
// it. Its "ghosts" directory is where dangling links point; nothing may appear
// there.

void buildSentinels(const fs::path& outside, const std::string& fingerprint) {
    const fs::path mirror = outside / "mirror";
    const std::string state = ".first-launch/" + kVersion;
    const std::vector<std::string> files = {
        "keep",
        kVersion + "/keep",
        kVersion + "/lib/.quor-object-abi",
        kVersion + "/lib/core/Unit0.qo",
        kVersion + "/lib/core/Unit7.qo",
        kVersion + "/lib/text/Unit3.qo",
        state + "/.stdlib-bootstrap-lib.lock",
        state + "/lib/.quor-stdlib-ready",
        kOldVersion + "/lib/core/Unit0.qo",
        ".first-launch/" + kOldVersion + "/lib/.quor-stdlib-ready",
    };
    fs::create_directories(outside / "ghosts");
    for (const std::string& file : files) {
        fs::create_directories((mirror / file).parent_path());
        writeFile(mirror / file, "sentinel " + file + "\n", Parents::MustExist);
    }
    // A corner only root may enter, as a home directory's secrets would be.
    const fs::path closed = mirror / kVersion / "lib" / "core" / "closed";
    fs::create_directories(closed);
    writeFile(closed / "secret", "sentinel secret\n", Parents::MustExist);
    fs::permissions(closed / "secret", fs::perms::owner_read | fs::perms::owner_write);
    fs::permissions(closed, fs::perms::owner_all);
    fs::permissions(mirror / state / ".stdlib-bootstrap-lib.lock",
                    fs::perms::owner_read | fs::perms::owner_write);
    writeFile(outside / "fingerprint", fingerprint + "\n", Parents::MustExist);
}

std::string describe(const fs::path& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        return "gone";
    }
    std::ostringstream text;
    const mode_t type = info.st_mode & S_IFMT;
    text << (type == S_IFDIR   ? "directory"
             : type == S_IFREG ? "file"
             : type == S_IFLNK ? "link"
             : type == S_IFIFO ? "fifo"
                               : "other")
         << " mode " << std::oct << (info.st_mode & 07777) << std::dec << " owner " << info.st_uid
         << ":" << info.st_gid;
    if (type == S_IFREG) {
        text << " content " << readFile(path, Unreadable::Throw);
    } else if (type == S_IFLNK) {
        std::error_code error;
        text << " to " << fs::read_symlink(path, error).string();
    }
    return text.str();
}

using Listing = std::map<std::string, std::string>;

Listing listTree(const fs::path& top) {
    Listing listing;
    listing["."] = describe(top);
    for (fs::recursive_directory_iterator entry(top), end; entry != end; ++entry) {
        listing[entry->path().lexically_relative(top).string()] = describe(entry->path());
    }
    return listing;
}

// One line of a listing, short enough for a failure message.
std::string shortened(const std::string& description) {
    std::string text;
    for (char c : description) {
        text += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return text.size() <= 100 ? text : text.substr(0, 100) + "...";
}

std::string differences(const Listing& before, const Listing& after) {
    std::ostringstream text;
    int shown = 0;
    const auto note = [&](const std::string& line) {
        if (shown++ < 6) {
            text << "\n    " << line;
        }
    };
    for (const auto& [name, was] : before) {
        const auto now = after.find(name);
        if (now == after.end()) {
            note("removed " + name);
        } else if (now->second != was) {
            note("changed " + name + ": " + shortened(now->second));
        }
    }
    for (const auto& [name, now] : after) {
        if (before.count(name) == 0) {
            note("appeared " + name + ": " + shortened(now));
        }
    }
    if (shown > 6) {
        text << "\n    ... " << shown - 6 << " more";
    }
    return text.str();
}

// ---------------------------------------------------------------------------
// The attacker's side, run in the unprivileged child

struct Scene {
    Scenario scenario;
    fs::path root;    // the cache root given to the tool
    fs::path library; // the library given to the tool
    fs::path victim;  // where the plant goes
    fs::path mirror;  // the sentinel of the same name
    fs::path ghost;   // where dangling links point
    fs::path lair;    // the attacker's own directory in the shared directory
    std::string fingerprint;
    std::string attackerFingerprint;
    std::vector<std::string> objects; // the names of a clean build's objects, to poison
    bool decoyDangles = false;
    std::uint64_t seed = 0;
    Clock::duration raceDelay{};
};

std::string markerText(const std::string& fingerprint) {
    return "QUOR_STANDARD_LIBRARY_CACHE\nformat=1\nversion=" + kVersion +
           "\nabi=" + std::to_string(compiler::Compiler::objectAbiVersion()) +
           "\nfingerprint=" + fingerprint + "\n";
}

class Attack {
public:
    Attack(const Scene& scene, int report, int go)
        : scene_(scene), info_(infoOf(scene.scenario.target)), report_(report), go_(go),
          random_(scene.seed) {}

    int run() {
        if (::mkdir(scene_.lair.c_str(), 0755) != 0) {
            return fail("mkdir " + scene_.lair.native());
        }
        if (go_ >= 0) {
            char go = 0;
            while (::read(go_, &go, 1) < 0 && errno == EINTR) {
            }
            const Clock::time_point until = Clock::now() + scene_.raceDelay;
            while (Clock::now() < until) {
            }
        }
        if (!buildRoot()) {
            return 0;
        }
        if (scene_.scenario.target == Target::Fingerprint && ::unlink(scene_.victim.c_str()) != 0) {
            return fail("unlink " + scene_.victim.native());
        }
        return plant();
    }

private:
    const Host& host() const { return scene_.scenario.host; }

    void say(const std::string& line) {
        const std::string text = line + "\n";
        [[maybe_unused]] const ssize_t written = ::write(report_, text.data(), text.size());
    }

    // A failed step: in a race, root got there first; anywhere else the scene
    // could not be set, which the parent reports as a fault of the harness.
    int fail(const std::string& step) {
        const std::string reason = step + ": " + std::strerror(errno);
        say((host() == Host::Race ? "lost " : "error ") + reason);
        return host() == Host::Race ? 0 : 1;
    }

    bool makePath(const std::string& relative) {
        fs::path current = scene_.root;
        for (const fs::path& part : fs::path(relative)) {
            current /= part;
            if (::mkdir(current.c_str(), 0755) != 0 && errno != EEXIST) {
                fail("mkdir " + current.native());
                return false;
            }
        }
        return true;
    }

    bool writeNew(const fs::path& file, const std::string& content, mode_t mode = 0644) {
        const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
        if (fd < 0) {
            fail("create " + file.native());
            return false;
        }
        const bool written =
            ::write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
        ::close(fd);
        if (!written) {
            fail("write " + file.native());
        }
        return written;
    }

    // The old version's files that lie at or below `top`, or, when `below` is
    // false, those that do not.
    bool writeOldFiles(const std::string& top, bool below) {
        for (const OldFile& file : oldFiles()) {
            if (isAtOrBelow(file.relative, top) != below) {
                continue;
            }
            if (!makePath(parentOf(file.relative)) ||
                !writeNew(scene_.root / file.relative, file.content)) {
                return false;
            }
        }
        return true;
    }

    // The attacker's own cache root with everything down to the target's
    // directory; on a host of root's, there is nothing to build.
    bool buildRoot() {
        if (host() != Host::AttackerRoot && host() != Host::Race) {
            return true;
        }
        if (scene_.scenario.target == Target::Root) {
            return true; // the cache root's name is the plant itself
        }
        if (::mkdir(scene_.root.c_str(), 0755) != 0) {
            fail("mkdir " + scene_.root.native());
            return false;
        }
        return writeOldFiles(info_.relative, false) && makePath(parentOf(info_.relative));
    }

    int plant() {
        const char* victim = scene_.victim.c_str();
        switch (scene_.scenario.plant) {
        case Plant::None:
            break;
        case Plant::Link:
            if (::symlink(scene_.mirror.c_str(), victim) != 0) {
                return fail("symlink " + scene_.victim.native());
            }
            break;
        case Plant::Dangling:
            if (::symlink(scene_.ghost.c_str(), victim) != 0) {
                return fail("symlink " + scene_.victim.native());
            }
            break;
        case Plant::Fifo:
            if (::mkfifo(victim, 0666) != 0) {
                return fail("mkfifo " + scene_.victim.native());
            }
            break;
        case Plant::HardLink:
            if (::link(scene_.mirror.c_str(), victim) != 0) {
                if (errno == EPERM) {
                    say("refused-hard-link");
                    return 0;
                }
                return fail("link " + scene_.victim.native());
            }
            break;
        case Plant::Forged:
            if (!forge()) {
                return host() == Host::Race ? 0 : 1;
            }
            break;
        case Plant::HeldLock:
            return holdLock();
        case Plant::SwapExchange:
        case Plant::SwapRename:
            return swap();
        }
        say("planted");
        return 0;
    }

    // A marker that validates, and, where the attacker may write the library
    // cache, objects of its own under every name a build writes.
    bool forge() {
        if (!writeNew(scene_.victim, markerText(scene_.fingerprint))) {
            return false;
        }
        if (host() == Host::OpenParent) {
            return true;
        }
        const std::string lib = kVersion + "/lib";
        if (!makePath(lib) || !writeNew(scene_.root / lib / ".quor-object-abi", "1\n")) {
            return false;
        }
        for (const std::string& object : scene_.objects) {
            const std::string relative = lib + "/" + object;
            if (!makePath(parentOf(relative)) ||
                !writeNew(scene_.root / relative, "poisoned " + object + "\n")) {
                return false;
            }
        }
        return true;
    }

    [[noreturn]] void waitToBeKilled() {
        for (;;) {
            ::pause();
        }
    }

    int holdLock() {
        const int fd = ::open(scene_.victim.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0666);
        if (fd < 0) {
            return fail("create " + scene_.victim.native());
        }
        if (::fchmod(fd, 0666) != 0 || ::flock(fd, LOCK_EX) != 0) {
            return fail("lock " + scene_.victim.native());
        }
        say("planted");
        waitToBeKilled();
    }

    int swap() {
        if (info_.directory) {
            if (::mkdir(scene_.victim.c_str(), 0755) != 0) {
                return fail("mkdir " + scene_.victim.native());
            }
            if (!writeOldFiles(info_.relative, true)) {
                return host() == Host::Race ? 0 : 1;
            }
        } else {
            const std::string content = scene_.scenario.target == Target::Fingerprint
                                            ? scene_.attackerFingerprint + "\n"
                                            : std::string("the attacker's own\n");
            if (!writeNew(scene_.victim, content, 0666)) {
                return host() == Host::Race ? 0 : 1;
            }
        }
        const fs::path decoy = scene_.lair / "decoy";
        const fs::path& to = !info_.directory && scene_.decoyDangles ? scene_.ghost : scene_.mirror;
        if (::symlink(to.c_str(), decoy.c_str()) != 0) {
            return fail("symlink " + decoy.native());
        }
        say("planted");

        const fs::path parked = scene_.lair / "parked";
        std::uniform_int_distribution<unsigned> spins(0, 20000);
        std::uniform_int_distribution<unsigned> sleeps(0, 7);
        volatile unsigned sink = 0;
        for (;;) {
            if (scene_.scenario.plant == Plant::SwapExchange) {
                ::renameat2(AT_FDCWD, scene_.victim.c_str(), AT_FDCWD, decoy.c_str(),
                            RENAME_EXCHANGE);
            } else if (::rename(scene_.victim.c_str(), parked.c_str()) == 0) {
                ::rename(decoy.c_str(), scene_.victim.c_str());
                ::rename(parked.c_str(), decoy.c_str());
            }
            // Mostly a short spin; now and then a sleep, so that the tool also
            // sees the path stay one way for a while.
            if (sleeps(random_) == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(spins(random_) / 40));
            } else {
                for (unsigned i = spins(random_); i > 0; --i) {
                    sink = sink + 1;
                }
            }
        }
    }

    const Scene& scene_;
    TargetInfo info_;
    int report_;
    int go_;
    std::mt19937_64 random_;
};

// ---------------------------------------------------------------------------
// The root side

// The attacker's process, killed and reaped when the round is over, however it
// ends, so that no swapping loop outlives its round.
class AttackerProcess {
public:
    AttackerProcess() = default;
    AttackerProcess(const AttackerProcess&) = delete;
    AttackerProcess& operator=(const AttackerProcess&) = delete;
    ~AttackerProcess() { stop(); }

    // Root passes every permission check, so the attacker acts as uid 65534.
    void start(const std::function<int()>& work) {
        pid_ = startChild([work] {
            testsupport::becomeUser(testsupport::kNobody);
            return work();
        });
    }
    bool started() const { return pid_ > 0; }

    // Its exit status, or 128 + SIGKILL when it was still at work.
    int stop() {
        if (pid_ <= 0) {
            return status_;
        }
        ::kill(pid_, SIGKILL);
        status_ = waitForChild(pid_);
        pid_ = -1;
        return status_;
    }

private:
    pid_t pid_ = -1;
    int status_ = -1;
};

struct Counts {
    unsigned rounds = 0, refused = 0, built = 0, ready = 0, notReady = 0, done = 0, interrupted = 0,
             failed = 0, skipped = 0, raceLost = 0;
};

struct ToolResult {
    bool hung = false;
    bool signalled = false;
    int code = -1;
    int signal = 0;
    std::string output;
};

ToolResult runWithDeadline(const std::vector<std::string>& arguments, const fs::path& output,
                           std::chrono::seconds deadline) {
    std::error_code ignored;
    fs::remove(output, ignored); // a missing file is what we want
    const pid_t child = startTool(arguments, output);
    const Clock::time_point until = Clock::now() + deadline;
    auto nap = std::chrono::microseconds(100);
    int status = 0;
    ToolResult result;
    for (;;) {
        const pid_t done = ::waitpid(child, &status, WNOHANG);
        if (done == child) {
            break;
        }
        if (done < 0 && errno != EINTR) {
            throw std::runtime_error("waitpid failed");
        }
        if (Clock::now() > until) {
            ::kill(child, SIGKILL);
            while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
            }
            result.hung = true;
            break;
        }
        std::this_thread::sleep_for(nap);
        nap = std::min(nap * 2, std::chrono::microseconds(5000));
    }
    if (!result.hung) {
        result.signalled = WIFSIGNALED(status);
        result.signal = result.signalled ? WTERMSIG(status) : 0;
        result.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    result.output = readFile(output, Unreadable::Throw);
    return result;
}

bool isTemporary(const std::string& name) {
    return name.find(".tmp.") != std::string::npos;
}

// Why a directory or file could have been written by someone other than root,
// or "" when only root could have.
std::string foreignHand(const fs::path& path, bool directory) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        return path.native() + " is missing";
    }
    if (directory ? !S_ISDIR(info.st_mode) : !S_ISREG(info.st_mode)) {
        return path.native() + " is not a " + (directory ? "directory" : "regular file");
    }
    if (info.st_uid != ::geteuid()) {
        return path.native() + " belongs to uid " + std::to_string(info.st_uid);
    }
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        std::ostringstream mode;
        mode << std::oct << (info.st_mode & 07777);
        return path.native() + " may be written by others (mode " + mode.str() + ")";
    }
    if (!directory && info.st_nlink != 1) {
        return path.native() + " has " + std::to_string(info.st_nlink) + " names";
    }
    return {};
}

// "" when the cache below `root` is one only root could have written.
std::string untrustworthy(const fs::path& root) {
    const fs::path lib = libCacheOf(root);
    const fs::path marker = markerPathOf(root);
    for (const fs::path& directory :
         {root, lib.parent_path(), lib, marker.parent_path().parent_path().parent_path(),
          marker.parent_path().parent_path(), marker.parent_path()}) {
        if (std::string why = foreignHand(directory, true); !why.empty()) {
            return why;
        }
    }
    if (std::string why = foreignHand(marker, false); !why.empty()) {
        return why;
    }
    for (fs::recursive_directory_iterator entry(lib), end; entry != end; ++entry) {
        if (isTemporary(entry->path().filename().string())) {
            continue;
        }
        const bool directory = entry->symlink_status().type() == fs::file_type::directory;
        if (std::string why = foreignHand(entry->path(), directory); !why.empty()) {
            return why;
        }
    }
    return {};
}

std::string readFingerprint(const fs::path& file) {
    std::error_code error;
    if (!fs::is_regular_file(file, error)) {
        return {};
    }
    std::string line = readFile(file, Unreadable::Throw);
    line = line.substr(0, line.find('\n'));
    if (line.size() != 64) {
        return {};
    }
    std::transform(line.begin(), line.end(), line.begin(),
                   [](char c) { return static_cast<char>(std::tolower(c)); });
    return line;
}

std::chrono::seconds deadline() {
    if (const char* value = std::getenv("QUOR_HOSTILE_DEADLINE")) {
        const long seconds = std::strtol(value, nullptr, 10);
        if (seconds > 0) {
            return std::chrono::seconds(seconds);
        }
    }
    return std::chrono::seconds(30);
}

class HostileSetupRun {
public:
    HostileSetupRun() {
        // Root's files are what the tool makes them; a umask that lets others
        // write would make every cache root untrustworthy before any attack.
        previousMask_ = ::umask(022);
        // The scratch directory must be searchable by the attacker.
        fs::permissions(scratch_.path(), fs::perms::owner_all | fs::perms::group_read |
                                             fs::perms::group_exec | fs::perms::others_read |
                                             fs::perms::others_exec);
        fs::create_directory(shared_);
        fs::permissions(shared_, fs::perms::all | fs::perms::sticky_bit);
        fs::create_directory(private_);
        fs::permissions(private_, fs::perms::owner_all);
    }

    ~HostileSetupRun() { ::umask(previousMask_); }

    void prepare(std::uint64_t seed) {
        compiled_ = generateLibrary(library_, 24, 1200, seed);
        fingerprint_ = readFingerprint(library_ / ".quor-stdlib-fingerprint");
        sentinelFingerprint_ = std::string(64, 'e');
        attackerFingerprint_ = std::string(64, 'a');
        buildSentinels(outside_, sentinelFingerprint_);
        baseline_ = listTree(outside_);

        const fs::path reference = private_ / "reference";
        const ToolRun clean = runTool(argumentsFor(reference, library_, Command::Ensure),
                                      scratch_.path() / "reference.log");
        ASSERT_EQ(clean.status, 0) << clean.output;
        ASSERT_TRUE(markerValid(reference, fingerprint_));
        referenceObjects_ = snapshot(libCacheOf(reference), isTemporary);
        for (const auto& [name, content] : referenceObjects_) {
            if (fs::path(name).extension() == ".qo") {
                objectNames_.push_back(name);
            }
        }
        ASSERT_EQ(objectNames_.size(), compiled_.size());

        // How long the quickest subcommand takes, so that the races start
        // anywhere from before the tool's first step to after its last.
        auto quickest = Clock::duration::max();
        for (int run = 0; run < 3; ++run) {
            const Clock::time_point started = Clock::now();
            runTool(argumentsFor(reference, library_, Command::Status),
                    scratch_.path() / "timing.log");
            quickest = std::min(quickest, Clock::now() - started);
        }
        statusTime_ = quickest;
        std::cout << "hostile setup: " << objectNames_.size() << " units, a status takes "
                  << std::chrono::duration_cast<std::chrono::microseconds>(quickest).count()
                  << " us" << std::endl;
    }

    void round(unsigned number, const Scenario& scenario, Command command,
               std::mt19937_64& random) {
        Counts& counts = counts_[scenario.name()];
        ++counts.rounds;
        const std::string label = "round " + std::to_string(number) + " [" + scenario.name() +
                                  ", " + nameOf(command) + "]";
        Scene scene = sceneFor(number, scenario, random);
        setUpHost(scene, random);

        // The attacker: sets its scene and reports, then, for the persistent
        // plants and the races, keeps at it until killed.
        AttackerProcess attacker;
        int report[2] = {-1, -1};
        int go[2] = {-1, -1};
        const bool race = scenario.host == Host::Race;
        bool skipped = false;
        std::string attackerSaid;
        if (scenario.plant != Plant::None) {
            if (::pipe2(report, O_CLOEXEC) != 0 || (race && ::pipe2(go, O_CLOEXEC) != 0)) {
                throw std::runtime_error("pipe2 failed");
            }
            attacker.start([&] {
                ::close(report[0]);
                if (race) {
                    ::close(go[1]);
                }
                return Attack(scene, report[1], race ? go[0] : -1).run();
            });
            ::close(report[1]);
            if (race) {
                ::close(go[0]);
            } else {
                attackerSaid = readLine(report[0], std::chrono::seconds(20));
                if (attackerSaid == "refused-hard-link") {
                    if (!hardLinksRefusedNoted_) {
                        std::cout << "hostile setup: the kernel refuses the attacker hard links "
                                     "to root's files (protected_hardlinks); those plants are "
                                     "skipped"
                                  << std::endl;
                        hardLinksRefusedNoted_ = true;
                    }
                    skipped = true;
                } else if (attackerSaid != "planted") {
                    ADD_FAILURE() << label << ": the attacker could not set the scene: "
                                  << (attackerSaid.empty() ? "no word from it" : attackerSaid);
                    skipped = true;
                }
            }
        }

        ToolResult result;
        if (!skipped) {
            if (race) {
                [[maybe_unused]] const ssize_t written = ::write(go[1], "g", 1);
            }
            result = runWithDeadline(argumentsFor(scene.root, scene.library, command),
                                     scratch_.path() / "tool.log", deadline());
        }
        if (attacker.started()) {
            const int status = attacker.stop();
            if (race) {
                ::close(go[1]);
                attackerSaid = readLine(report[0], std::chrono::seconds(0));
            }
            ::close(report[0]);
            if (status != 128 + SIGKILL && status != 0) {
                if (!race) {
                    ADD_FAILURE() << label << ": the attacker ended with status " << status << ": "
                                  << attackerSaid;
                }
            }
        }
        if (race && attackerSaid.rfind("planted", 0) != 0 && !skipped) {
            ++counts.raceLost;
            if (attackerSaid.rfind("error", 0) == 0) {
                ADD_FAILURE() << label << ": the attacker failed: " << attackerSaid;
            }
        }

        // An escape outside the cache root is the worst fault, so it comes first.
        std::vector<std::string> faults;
        const Listing now = listTree(outside_);
        if (now != baseline_) {
            faults.push_back("the sentinel tree outside the cache root changed:" +
                             differences(baseline_, now));
            fs::remove_all(outside_);
            buildSentinels(outside_, sentinelFingerprint_);
            baseline_ = listTree(outside_);
        }
        if (!skipped) {
            const std::vector<std::string> more = check(scene, command, result);
            faults.insert(faults.end(), more.begin(), more.end());
        }

        if (skipped) {
            ++counts.skipped;
        } else if (!faults.empty()) {
            ++counts.failed;
            std::string all;
            for (const std::string& fault : faults) {
                all += "\n  " + fault;
            }
            ADD_FAILURE() << label << ":" << all << "\n  tool output:" << excerpt(result.output);
            if (firstFault_.count(scenario.name()) == 0) {
                std::string first = nameOf(command) + ": " + faults.front();
                std::replace(first.begin(), first.end(), '\n', ' ');
                firstFault_[scenario.name()] = first;
            }
        } else {
            classify(counts, command, result);
        }
        tearDown(scene);
    }

    void summary(unsigned rounds, std::uint64_t seed) const {
        Counts total;
        std::cout << "hostile setup: " << rounds << " rounds, seed " << seed
                  << "; outcomes per scenario (rounds, refused, built, ready, not ready, done, "
                     "interrupted, failed, skipped; races the attacker lost):\n";
        for (const auto& [name, c] : counts_) {
            std::cout << "  " << std::setw(3) << c.rounds << std::setw(4) << c.refused
                      << std::setw(4) << c.built << std::setw(4) << c.ready << std::setw(4)
                      << c.notReady << std::setw(4) << c.done << std::setw(4) << c.interrupted
                      << std::setw(4) << c.failed << std::setw(4) << c.skipped << "  " << name;
            if (c.raceLost > 0) {
                std::cout << "; lost " << c.raceLost;
            }
            std::cout << "\n";
            total.rounds += c.rounds;
            total.refused += c.refused;
            total.built += c.built;
            total.ready += c.ready;
            total.failed += c.failed;
            total.skipped += c.skipped;
        }
        std::cout << "hostile setup: " << total.refused << " refused, " << total.built << " built, "
                  << total.ready << " ready, " << total.failed << " failed, " << total.skipped
                  << " skipped, in " << total.rounds << " rounds" << std::endl;
        if (!firstFault_.empty()) {
            std::cout << "hostile setup: failing scenarios, with their first fault:\n";
            for (const auto& [name, fault] : firstFault_) {
                std::cout << "  " << name << "\n      " << fault.substr(0, 240) << "\n";
            }
            std::cout << std::flush;
        }
        ::testing::Test::RecordProperty("refused", static_cast<int>(total.refused));
        ::testing::Test::RecordProperty("built", static_cast<int>(total.built));
        ::testing::Test::RecordProperty("failed", static_cast<int>(total.failed));
    }

private:
    static std::vector<std::string> argumentsFor(const fs::path& root, const fs::path& library,
                                                 Command command) {
        std::vector<std::string> arguments = {"--cache-root",   root.string(), "--stdlib",
                                              library.string(), "--color",     "never"};
        for (const std::string& word : wordsOf(command)) {
            arguments.push_back(word);
        }
        return arguments;
    }

    // The first line the attacker reported, waiting up to `patience` for it.
    static std::string readLine(int fd, std::chrono::seconds patience) {
        std::string text;
        const Clock::time_point until = Clock::now() + patience;
        for (;;) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
            pollfd ready{fd, POLLIN, 0};
            if (::poll(&ready, 1, static_cast<int>(std::max<long long>(left.count(), 0))) <= 0) {
                break;
            }
            char buffer[256];
            const ssize_t count = ::read(fd, buffer, sizeof buffer);
            if (count <= 0) {
                break;
            }
            text.append(buffer, static_cast<std::size_t>(count));
            if (text.find('\n') != std::string::npos) {
                break;
            }
        }
        return text.substr(0, text.find('\n'));
    }

    // The last lines of the tool's output, where its verdict is.
    static std::string excerpt(const std::string& output) {
        std::vector<std::string> lines;
        std::istringstream stream(output);
        for (std::string line; std::getline(stream, line);) {
            if (!line.empty()) {
                lines.push_back(line);
            }
        }
        std::string text;
        for (std::size_t i = lines.size() > 3 ? lines.size() - 3 : 0; i < lines.size(); ++i) {
            text += "\n    " + lines[i];
        }
        return text.empty() ? " (none)" : text;
    }

    Scene sceneFor(unsigned number, const Scenario& scenario, std::mt19937_64& random) const {
        const std::string n = std::to_string(number);
        const TargetInfo info = infoOf(scenario.target);
        Scene scene;
        scene.scenario = scenario;
        const bool privateRoot =
            scenario.host == Host::Private || scenario.host == Host::AttackerLibrary;
        scene.root = (privateRoot ? private_ : shared_) / ("r" + n);
        scene.library = scenario.host == Host::AttackerLibrary ? shared_ / ("l" + n) : library_;
        if (scenario.target == Target::Fingerprint) {
            scene.victim = scene.library / info.relative;
            scene.mirror = outside_ / "fingerprint";
        } else {
            scene.victim = info.relative.empty() ? scene.root : scene.root / info.relative;
            scene.mirror =
                info.relative.empty() ? outside_ / "mirror" : outside_ / "mirror" / info.relative;
        }
        scene.ghost = outside_ / "ghosts" / ("g" + n);
        scene.lair = shared_ / ("e" + n);
        scene.fingerprint = fingerprint_;
        scene.attackerFingerprint = attackerFingerprint_;
        scene.objects = objectNames_;
        scene.decoyDangles = random() % 2 == 0;
        scene.seed = random();
        scene.raceDelay = std::chrono::duration_cast<Clock::duration>(
            statusTime_ * std::uniform_real_distribution<double>(0.0, 1.5)(random));
        return scene;
    }

    // Root's part of the scene: a cache root of root's with the target's
    // directory opened to the attacker, or a copy of the library in a directory
    // the attacker owns.
    void setUpHost(const Scene& scene, std::mt19937_64& random) const {
        const TargetInfo info = infoOf(scene.scenario.target);
        if (scene.scenario.host == Host::AttackerLibrary) {
            fs::copy(library_, scene.library, fs::copy_options::recursive);
            if (::lchown(scene.library.c_str(), kAttacker, kAttacker) != 0) {
                throw std::runtime_error("lchown failed for " + scene.library.native());
            }
            return;
        }
        if (scene.scenario.host != Host::OpenParent) {
            return;
        }
        fs::create_directory(scene.root);
        for (const OldFile& file : oldFiles()) {
            if (!isAtOrBelow(file.relative, info.relative)) {
                fs::create_directories((scene.root / file.relative).parent_path());
                writeFile(scene.root / file.relative, file.content, Parents::MustExist);
            }
        }
        const fs::path opened = scene.root / parentOf(info.relative);
        fs::create_directories(opened);
        // Three ways to leave a piece open: the attacker's own directory inside
        // root's cache, a directory anyone may write, and one with the sticky bit
        // too, where the attacker may add names but not move root's.
        switch (random() % 3) {
        case 0:
            if (::lchown(opened.c_str(), kAttacker, kAttacker) != 0) {
                throw std::runtime_error("lchown failed for " + opened.native());
            }
            break;
        case 1:
            fs::permissions(opened, fs::perms::all);
            break;
        default:
            fs::permissions(opened, fs::perms::all | fs::perms::sticky_bit);
            break;
        }
    }

    void tearDown(const Scene& scene) const {
        // remove_all deletes a link at the top, never what it points to, and the
        // attacker is gone, so nothing moves under it.
        fs::remove_all(scene.root);
        fs::remove_all(scene.lair);
        if (scene.library != library_) {
            fs::remove_all(scene.library);
        }
    }

    std::vector<std::string> check(const Scene& scene, Command command,
                                   const ToolResult& result) const {
        std::vector<std::string> faults;
        if (result.hung) {
            faults.push_back("no end after " + std::to_string(deadline().count()) + " s; killed");
            return faults;
        }
        if (result.signalled) {
            faults.push_back("died of signal " + std::to_string(result.signal) + " (" +
                             strsignal(result.signal) + ")");
            return faults;
        }
        const std::set<int> documented = {0, 1, 130, 141, 143};
        if (result.code == 2) {
            faults.push_back("exit status 2: a usage error, yet the command line is valid");
        } else if (documented.count(result.code) == 0) {
            faults.push_back("exit status " + std::to_string(result.code) +
                             " is not one the tool documents");
        }
        for (const char* sign : {"terminate called", "Sanitizer", "runtime error:"}) {
            if (result.output.find(sign) != std::string::npos) {
                faults.push_back(std::string("the output holds \"") + sign + "\"");
            }
        }
        if (scene.scenario.host == Host::Private && isEnsure(command) && result.code != 0) {
            faults.push_back("ensure failed on a private cache root nobody attacked");
        }
        const bool vouched =
            result.code == 0 && (isEnsure(command) || command == Command::StatusCheck ||
                                 (command == Command::StatusJson && reportsReady(result.output)));
        if (vouched) {
            const std::string why = untrustworthy(scene.root);
            if (!why.empty()) {
                faults.push_back(nameOf(command) +
                                 " vouched for a cache others could write: " + why);
                return faults;
            }
            if (!markerValidForAny(scene)) {
                faults.push_back(nameOf(command) +
                                 " vouched for a cache whose marker is not valid");
            }
            const Tree objects = snapshot(libCacheOf(scene.root), isTemporary);
            if (objects != referenceObjects_) {
                faults.push_back(nameOf(command) +
                                 " vouched for a cache whose objects differ from a clean build" +
                                 treeDifference(objects));
            }
        }
        return faults;
    }

    // True when the JSON of `status --json` says the cache is ready, which a
    // script takes at its word.
    static bool reportsReady(const std::string& output) {
        const nlohmann::json report = nlohmann::json::parse(output, nullptr, false);
        return report.is_object() && report.value("ready", false) == true;
    }

    bool markerValidForAny(const Scene& scene) const {
        std::vector<std::string> accepted = {fingerprint_};
        if (scene.scenario.target == Target::Fingerprint) {
            // The attacker may change its own library's fingerprint, or make the
            // tool fall back to another source of it; the objects are compared
            // all the same.
            accepted.push_back(sentinelFingerprint_);
            accepted.push_back(attackerFingerprint_);
            accepted.push_back("version-" + kVersion + "-abi-" +
                               std::to_string(compiler::Compiler::objectAbiVersion()));
            const std::string buildTree = readFingerprint(fs::path(QUOR_BUILD_TREE_DIR) /
                                                          "generated" / "quor-stdlib.fingerprint");
            if (!buildTree.empty()) {
                accepted.push_back(buildTree);
            }
        }
        return std::any_of(accepted.begin(), accepted.end(), [&](const std::string& fingerprint) {
            return markerValid(scene.root, fingerprint);
        });
    }

    std::string treeDifference(const Tree& objects) const {
        std::string text;
        int shown = 0;
        for (const auto& [name, content] : referenceObjects_) {
            const auto found = objects.find(name);
            if ((found == objects.end() || found->second != content) && shown++ < 3) {
                text += (found == objects.end() ? "; missing " : "; differs: ") + name;
            }
        }
        for (const auto& [name, content] : objects) {
            if (referenceObjects_.count(name) == 0 && shown++ < 6) {
                text += "; extra " + name;
            }
        }
        return text;
    }

    static void classify(Counts& counts, Command command, const ToolResult& result) {
        const bool error = result.output.find("error:") != std::string::npos;
        if (result.code == 1) {
            ++(error || command != Command::StatusCheck ? counts.refused : counts.notReady);
        } else if (result.code == 0) {
            if (isEnsure(command)) {
                ++(result.output.find("up to date") != std::string::npos ? counts.ready
                                                                         : counts.built);
            } else if (command == Command::StatusCheck) {
                ++counts.ready;
            } else {
                ++counts.done;
            }
        } else {
            ++counts.interrupted;
        }
    }

    TemporaryDirectory scratch_;
    fs::path shared_ = scratch_.path() / "shared";
    fs::path private_ = scratch_.path() / "private";
    fs::path outside_ = scratch_.path() / "outside";
    fs::path library_ = scratch_.path() / "stdlib";
    mode_t previousMask_ = 022;
    std::vector<fs::path> compiled_;
    std::string fingerprint_;
    std::string sentinelFingerprint_;
    std::string attackerFingerprint_;
    Listing baseline_;
    Tree referenceObjects_;
    std::vector<std::string> objectNames_;
    Clock::duration statusTime_{};
    std::map<std::string, Counts> counts_;
    std::map<std::string, std::string> firstFault_;
    bool hardLinksRefusedNoted_ = false;
};

// Every combination, and a first pass that holds each pair of a target and a
// plant once, on a host drawn for it, in a seeded order.
struct Plan {
    std::vector<Scenario> firstPass;
    std::vector<Scenario> all;
};

Plan planFor(std::mt19937_64& random) {
    Plan plan;
    plan.firstPass.push_back({Target::None, Plant::None, Host::Private});
    plan.firstPass.push_back({Target::None, Plant::None, Host::SharedName});
    plan.all = plan.firstPass;
    for (Target target : kTargets) {
        const std::vector<Host> hosts = hostsFor(target);
        for (Plant plant : plantsFor(target)) {
            plan.firstPass.push_back({target, plant, hosts[random() % hosts.size()]});
            for (Host host : hosts) {
                plan.all.push_back({target, plant, host});
            }
        }
    }
    std::shuffle(plan.firstPass.begin(), plan.firstPass.end(), random);
    return plan;
}

TEST(HostileSetup, AnotherUsersLinksFifosAndSwapsNeverTurnTheToolAgainstRoot) {
    ASSERT_FALSE(toolPath().empty()) << "this build has no quor-stdlib tool";
    ASSERT_EQ(::geteuid(), 0U) << "the attacker drops from root to uid 65534; run as root";
    const std::uint64_t seed = stressSeed();
    std::mt19937_64 random(seed);
    const Plan plan = planFor(random);
    const unsigned rounds =
        stressCount("QUOR_HOSTILE_ROUNDS", static_cast<unsigned>(plan.firstPass.size()),
                    static_cast<unsigned>(plan.all.size() * 8));
    std::cout << "hostile setup: " << rounds << " rounds, seed " << seed << "; " << plan.all.size()
              << " scenarios, " << plan.firstPass.size() << " in the first pass" << std::endl;

    HostileSetupRun run;
    run.prepare(seed);
    if (::testing::Test::HasFatalFailure()) {
        return;
    }
    const Clock::time_point started = Clock::now();
    std::vector<Scenario> cycle = plan.all;
    for (unsigned number = 0; number < rounds; ++number) {
        Scenario scenario{};
        std::vector<Command> commands;
        if (number < plan.firstPass.size()) {
            scenario = plan.firstPass[number];
            commands = firstCommandsFor(scenario);
        } else {
            const std::size_t index = (number - plan.firstPass.size()) % cycle.size();
            if (index == 0) {
                std::shuffle(cycle.begin(), cycle.end(), random);
            }
            scenario = cycle[index];
            commands.assign(std::begin(kCommands), std::end(kCommands));
        }
        const Command command = commands[random() % commands.size()];
        run.round(number, scenario, command, random);
    }
    run.summary(rounds, seed);
    std::cout
        << "hostile setup: the rounds took "
        << std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count()
        << " ms" << std::endl;
}

} // namespace
} // namespace quor::reliability
