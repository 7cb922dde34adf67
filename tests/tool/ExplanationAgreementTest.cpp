// The tool explains what the bootstrap decides; these tests hold the two
// together on hostile input. For markers of every malformation, fingerprint
// files of every kind and libraries with generic units, links, FIFOs, folders
// named like units and closed folders, what `status --json` explains (the
// marker's verdict, the identity and where it came from, the units and what
// the walk passes over) must agree with what the bootstrap then does in a real
// build (`ensure --json`): whether it builds, which fingerprint it certifies,
// which units it compiles.

#include "ToolTestSupport.h"
#include "compiler/BootstrapExplanation.h"
#include "compiler/StandardLibraryCacheState.h"
#include "tests/support/ChildChecks.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace quor::tooltest {
namespace {

using nlohmann::json;

// What a build did: every event `ensure --json` wrote, in order.
struct Build {
    int status = -1;
    std::vector<json> events;
    std::string err;

    const json& result() const { return events.back(); }
    bool built() const { return result().value("bootstrapped", false); }
    std::set<std::string> compiledUnits() const {
        std::set<std::string> units;
        for (const json& event : events)
            if (event.value("event", "") == "progress" && event.value("stage", "") == "Compiling")
                units.insert(event["sourcePath"].get<std::string>());
        return units;
    }
};

Build ensure(const Sandbox& sandbox) {
    const ToolRun run = runTool(sandbox.arguments({"ensure", "--json"}), sandbox.path());
    Build build;
    build.status = run.status;
    build.err = run.err;
    build.events = jsonLines(run.out);
    EXPECT_FALSE(build.events.empty()) << run.err;
    return build;
}

void replaceWithFile(const fs::path& path, const std::string& bytes) {
    fs::remove_all(path);
    writeFile(path, bytes);
}

// A listening Unix socket bound at `path`; the descriptor is closed at once,
// the socket file stays.
void makeSocket(const fs::path& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.native().size(), sizeof address.sun_path);
    std::copy(path.native().begin(), path.native().end(), address.sun_path);
    ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
}

struct Variant {
    std::string name;
    std::function<void(const fs::path& file, const std::string& good)> make;
};

// The marker's lines with line `index` replaced.
std::string withLine(const std::string& marker, std::size_t index, const std::string& line) {
    std::vector<std::string> lines;
    std::istringstream stream(marker);
    for (std::string each; std::getline(stream, each);)
        lines.push_back(each);
    lines.at(index) = line;
    std::string text;
    for (const auto& each : lines)
        text += each + '\n';
    return text;
}

std::vector<Variant> markerVariants() {
    auto bytes = [](std::function<std::string(const std::string&)> edit) {
        return [edit](const fs::path& file, const std::string& good) {
            replaceWithFile(file, edit(good));
        };
    };
    const std::string longLine(70 * 1024, 'x');
    return {
        {"as written", bytes([](const std::string& good) { return good; })},
        {"missing", [](const fs::path& file, const std::string&) { fs::remove_all(file); }},
        {"empty", bytes([](const std::string&) { return std::string(); })},
        {"four lines", bytes([](const std::string& good) {
             return good.substr(0, good.rfind('\n', good.size() - 2) + 1);
         })},
        {"last line without its line feed",
         bytes([](const std::string& good) { return good.substr(0, good.size() - 1); })},
        {"lines after the fifth",
         bytes([](const std::string& good) { return good + "extra=1\n\n"; })},
        {"header with a carriage return", bytes([](const std::string& good) {
             return withLine(good, 0, "QUOR_STANDARD_LIBRARY_CACHE\r");
         })},
        {"header in lower case", bytes([](const std::string& good) {
             return withLine(good, 0, "quor_standard_library_cache");
         })},
        {"values padded with space, tab and CR", bytes([](const std::string& good) {
             std::string text = good;
             for (std::size_t index = 1; index < 5; ++index) {
                 std::istringstream stream(text);
                 std::string line;
                 for (std::size_t skip = 0; skip <= index; ++skip)
                     std::getline(stream, line);
                 const auto equals = line.find('=');
                 text =
                     withLine(text, index,
                              line.substr(0, equals + 1) + " \t" + line.substr(equals + 1) + " \r");
             }
             return text;
         })},
        {"space before the key",
         bytes([](const std::string& good) { return withLine(good, 1, " format=1"); })},
        {"format 2", bytes([](const std::string& good) { return withLine(good, 1, "format=2"); })},
        {"another version",
         bytes([](const std::string& good) { return withLine(good, 2, "version=0.0.1"); })},
        {"another ABI",
         bytes([](const std::string& good) { return withLine(good, 3, "abi=999"); })},
        {"ABI with a plus sign", bytes([](const std::string& good) {
             std::istringstream stream(good);
             std::string line;
             for (int skip = 0; skip < 4; ++skip)
                 std::getline(stream, line);
             return withLine(good, 3, "abi=+" + line.substr(4));
         })},
        {"fingerprint in upper case", bytes([](const std::string& good) {
             std::string text = good;
             const auto at = text.find("fingerprint=");
             for (std::size_t i = at + 12; i < text.size(); ++i)
                 text[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[i])));
             return text;
         })},
        {"fingerprint key missing",
         bytes([](const std::string& good) { return withLine(good, 4, "print=x"); })},
        {"keys in another order", bytes([](const std::string& good) {
             std::istringstream stream(good);
             std::vector<std::string> lines;
             for (std::string line; std::getline(stream, line);)
                 lines.push_back(line);
             std::swap(lines[2], lines[3]);
             std::string text;
             for (const auto& line : lines)
                 text += line + '\n';
             return text;
         })},
        {"a line longer than 64 KiB",
         bytes([longLine](const std::string& good) { return withLine(good, 2, longLine); })},
        {"a link to a good copy",
         [](const fs::path& file, const std::string& good) {
             replaceWithFile(file.parent_path() / "copy", good);
             fs::remove_all(file);
             fs::create_symlink("copy", file);
         }},
        {"a link to nothing",
         [](const fs::path& file, const std::string&) {
             fs::remove_all(file);
             fs::create_symlink("nowhere", file);
         }},
        {"a FIFO",
         [](const fs::path& file, const std::string&) {
             fs::remove_all(file);
             ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
         }},
        {"a directory",
         [](const fs::path& file, const std::string&) {
             fs::remove_all(file);
             fs::create_directory(file);
         }},
        {"a socket",
         [](const fs::path& file, const std::string&) {
             fs::remove_all(file);
             makeSocket(file);
         }},
    };
}

TEST(ExplanationAgreement, EveryMarkerIsJudgedByStatusAsTheBuildJudgesIt) {
    Sandbox sandbox;
    ASSERT_EQ(ensure(sandbox).status, 0);
    const std::string good = readFile(sandbox.marker());
    ASSERT_EQ(std::count(good.begin(), good.end(), '\n'), 5);
    std::set<std::string> verdicts;
    for (const Variant& variant : markerVariants()) {
        SCOPED_TRACE(variant.name);
        variant.make(sandbox.marker(), good);
        const json status = statusOf(sandbox);
        // The bootstrap's explanation and its decision, called directly.
        compiler::explain::Identity identity;
        identity.version = status["version"];
        identity.abiVersion = status["abi"];
        identity.fingerprint = status["fingerprint"];
        const auto diagnosis = compiler::explain::diagnoseMarker(sandbox.marker(), identity);
        const bool valid = diagnosis.verdict == compiler::explain::MarkerVerdict::Valid;
        EXPECT_EQ(valid,
                  compiler::StandardLibraryCacheState(sandbox.stateDirectory(), identity.version,
                                                      identity.abiVersion, identity.fingerprint)
                      .isReady());
        const std::string verdict(compiler::explain::markerVerdictName(diagnosis.verdict));
        verdicts.insert(verdict);
        const Build build = ensure(sandbox);
        if (status["access"] == "refused") {
            // The tool's guard refuses what stands there before the bootstrap
            // is asked; a build is refused alike.
            EXPECT_FALSE(valid);
            EXPECT_TRUE(status["marker"].is_null());
            EXPECT_NE(build.status, 0);
            EXPECT_TRUE(build.compiledUnits().empty());
            continue;
        }
        // What status shows is that explanation, beside the bootstrap's answer...
        ASSERT_TRUE(status["marker"].is_object()) << status.dump();
        EXPECT_EQ(status["marker"]["verdict"], verdict);
        EXPECT_EQ(valid, status["ready"].get<bool>()) << status["marker"].dump();
        // ...and a build then does what it says: builds exactly when the
        // marker does not certify (and may fail to publish over what stands
        // in the marker's place).
        if (build.status == 0) {
            EXPECT_EQ(valid, !build.built()) << status["marker"].dump();
        } else {
            EXPECT_FALSE(valid) << build.err;
            EXPECT_NE(build.err.find("Unable to publish standard-library cache marker"),
                      std::string::npos)
                << build.err;
        }
    }
    // The variants reach every verdict.
    EXPECT_EQ(verdicts,
              (std::set<std::string>{"valid", "missing", "unreadable", "malformed", "mismatch"}));
}

TEST(ExplanationAgreement, EveryFingerprintFileGivesTheIdentityTheBuildCertifies) {
    Sandbox sandbox;
    const fs::path file = sandbox.library() / ".quor-stdlib-fingerprint";
    const std::string digits = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
    std::string upper = digits;
    for (char& c : upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    const auto text = [&file](std::string bytes) {
        return [&file, bytes] { replaceWithFile(file, bytes); };
    };
    const std::vector<std::pair<std::string, std::function<void()>>> variants = {
        {"no file", [&file] { fs::remove_all(file); }},
        {"lower case", text(digits + "\n")},
        {"upper case", text(upper + "\n")},
        {"no line feed", text(upper)},
        {"CRLF", text(digits + "\r\n")},
        {"padded with space and tab", text(" \t" + digits + "\t \n")},
        {"a vertical tab", text(digits + "\v\n")},
        {"63 digits", text(digits.substr(1) + "\n")},
        {"65 digits", text(digits + "0\n")},
        {"a letter past f", text("g" + digits.substr(1) + "\n")},
        {"empty", text("")},
        {"the digits on the second line", text("\n" + digits + "\n")},
        {"a first line longer than 64 KiB", text(std::string(70 * 1024, 'a') + "\n")},
        {"a FIFO",
         [&file] {
             fs::remove_all(file);
             ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
         }},
        {"a directory",
         [&file] {
             fs::remove_all(file);
             fs::create_directory(file);
         }},
        {"a link to a good file",
         [&file, &digits] {
             replaceWithFile(file.parent_path().parent_path() / "elsewhere", digits + "\n");
             fs::remove_all(file);
             fs::create_symlink("../elsewhere", file);
         }},
        {"a link to nothing",
         [&file] {
             fs::remove_all(file);
             fs::create_symlink("nowhere", file);
         }},
    };
    std::set<std::string> sources;
    for (const auto& [name, make] : variants) {
        SCOPED_TRACE(name);
        make();
        const json status = statusOf(sandbox);
        const std::string fingerprint = status["fingerprint"];
        sources.insert(status["fingerprintSource"].get<std::string>());
        const Build build = ensure(sandbox);
        ASSERT_EQ(build.status, 0) << build.err;
        // What the build certified is the identity status named.
        const std::string marker = readFile(sandbox.marker());
        EXPECT_NE(marker.find("\nfingerprint=" + fingerprint + "\n"), std::string::npos) << marker;
        EXPECT_TRUE(statusOf(sandbox)["ready"].get<bool>());
    }
    EXPECT_TRUE(sources.count("installed") == 1 && sources.size() == 2) << json(sources).dump();
}

// Every regular ".qr" file below `root`, links not followed, by a walk of the
// test's own.
std::set<std::string> regularUnitFiles(const fs::path& root) {
    std::set<std::string> files;
    for (auto it =
             fs::recursive_directory_iterator(root, fs::directory_options::skip_permission_denied);
         it != fs::recursive_directory_iterator(); ++it)
        if (it->is_regular_file() && !it->is_symlink() && it->path().extension() == ".qr")
            files.insert(it->path().lexically_normal().string());
    return files;
}

// The sandbox's library made hostile: generic units deeper down, a FIFO, a
// link to nothing and a link to a folder under unit names, a folder named like
// a unit with a unit inside, a hidden unit, and a unit whose header names a
// generic type of another name before its own.
void makeHostile(const Sandbox& sandbox) {
    const fs::path lib = sandbox.library();
    writeFile(lib / "collections" / "deep" / "Map.qr",
              "package collections.deep\n\npublic class Map<K, V> {\n}\n");
    writeFile(lib / "collections" / "deep" / "Set.qr",
              "package collections.deep\n\npublic class Helper<T> {\n}\n\npublic class Set {\n}\n");
    // No package can be named like a folder "odd.qr", so the unit inside is a
    // generic one, which is left out before any package is checked.
    writeFile(lib / "odd.qr" / "Inner.qr", "public class Inner<T> {\n}\n");
    writeFile(lib / "core" / ".Hidden.qr", "package core\n\npublic class Hidden {\n}\n");
    ASSERT_EQ(::mkfifo((lib / "core" / "Pipe.qr").c_str(), 0600), 0);
    fs::create_symlink("nowhere.qr", lib / "core" / "Gone.qr");
    fs::create_directory_symlink("core", lib / "linked");
    fs::create_directory_symlink("core", lib / "Folder.qr");
}

// Checks that what status explains about the library's units is what the
// build then compiles; returns "" when they agree, else what differs.
std::string unitsDisagreement(const Sandbox& sandbox) {
    std::ostringstream problems;
    const json status = statusOf(sandbox);
    const Build build = ensure(sandbox);
    if (build.status != 0)
        return "ensure failed: " + build.err;
    const std::set<std::string> compiled = build.compiledUnits();
    if (status["units"] != compiled.size())
        problems << "status counts " << status["units"] << " units, the build compiled "
                 << compiled.size() << "\n";
    std::set<std::string> generic;
    for (const json& entry : status["passedOver"]) {
        const std::string path = fs::path(entry["path"].get<std::string>()).lexically_normal();
        if (compiled.count(path) != 0)
            problems << "passed over but compiled: " << path << "\n";
        if (entry["why"] == "generic")
            generic.insert(path);
    }
    // Every regular unit file is either compiled or left out as generic.
    std::set<std::string> accounted = compiled;
    accounted.insert(generic.begin(), generic.end());
    if (accounted != regularUnitFiles(sandbox.library()))
        problems << "compiled and generic units are not the library's regular unit files\n";
    return problems.str();
}

std::string whyOf(const json& status, const fs::path& path) {
    for (const json& entry : status["passedOver"])
        if (entry["path"] == path.string())
            return entry["why"];
    return "";
}

TEST(ExplanationAgreement, TheUnitsStatusNamesAreTheUnitsTheBuildCompiles) {
    Sandbox sandbox;
    makeHostile(sandbox);
    const fs::path lib = sandbox.library();
    const json status = statusOf(sandbox);
    EXPECT_EQ(whyOf(status, lib / "collections" / "List.qr"), "generic");
    EXPECT_EQ(whyOf(status, lib / "collections" / "deep" / "Map.qr"), "generic");
    EXPECT_EQ(whyOf(status, lib / "collections" / "deep" / "Set.qr"), "");
    EXPECT_EQ(whyOf(status, lib / "core" / "Alias.qr"), "link");
    EXPECT_EQ(whyOf(status, lib / "core" / "Gone.qr"), "link");
    EXPECT_EQ(whyOf(status, lib / "Folder.qr"), "link");
    EXPECT_EQ(whyOf(status, lib / "core" / "Pipe.qr"), "not-regular");
    EXPECT_EQ(whyOf(status, lib / "odd.qr"), "");
    EXPECT_EQ(whyOf(status, lib / "odd.qr" / "Inner.qr"), "generic");
    EXPECT_EQ(unitsDisagreement(sandbox), "");
}

TEST(ExplanationAgreement, AClosedFolderIsPassedOverByBothAsAnotherUser) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to hand the sandbox to another user";
    Sandbox sandbox;
    makeHostile(sandbox);
    writeFile(sandbox.library() / "closed" / "Hidden.qr",
              "package closed\n\npublic class Hidden {\n}\n");
    for (const auto& entry : fs::recursive_directory_iterator(sandbox.path()))
        ASSERT_EQ(::lchown(entry.path().c_str(), testsupport::kNobody, testsupport::kNobody), 0);
    ASSERT_EQ(::chown(sandbox.path().c_str(), testsupport::kNobody, testsupport::kNobody), 0);
    fs::permissions(sandbox.library() / "closed", fs::perms::none);
    EXPECT_EXIT(testsupport::reportAsNobody([&] {
                    const json status = statusOf(sandbox);
                    std::string report = whyOf(status, sandbox.library() / "closed");
                    return report + "\n" + unitsDisagreement(sandbox);
                }),
                testing::ExitedWithCode(0), testing::Eq("closed-folder\n"));
}

} // namespace
} // namespace quor::tooltest
