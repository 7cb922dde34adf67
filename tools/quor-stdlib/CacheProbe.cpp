// Reproduces the bootstrap's reading rules for fingerprints, markers and
// compilable units, so that `status` can explain what the bootstrap decides.

#include "CacheProbe.h"

#include "compiler/Compiler.h"
#include "compiler/Runtime.h"
#include "compiler/SourceManager.h"
#include "compiler/source/TypeHeader.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <stdexcept>
#include <sys/stat.h>

#ifndef QUOR_COMPILER_VERSION
#error "QUOR_COMPILER_VERSION must be defined by the build"
#endif
#ifndef QUOR_BUILD_TREE_DIR
#error "QUOR_BUILD_TREE_DIR must be defined by the build"
#endif

namespace quor::stdlibtool {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view markerHeader = "QUOR_STANDARD_LIBRARY_CACHE";

std::string trim(std::string text) {
    const char* space = " \t\r\n";
    const auto first = text.find_first_not_of(space);
    if (first == std::string::npos)
        return {};
    const auto last = text.find_last_not_of(space);
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
            return !header.text3.empty();
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
    std::ifstream stream(file);
    if (!stream)
        return {};
    std::string line;
    if (!std::getline(stream, line))
        return {};
    line = trim(std::move(line));
    if (line.size() != 64 || !std::all_of(line.begin(), line.end(), isHexDigit))
        return {};
    for (char& c : line)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return line;
}

fs::path buildTreeFingerprintFile() {
    return fs::path(QUOR_BUILD_TREE_DIR) / "generated" / "quor-stdlib.fingerprint";
}

Identity currentIdentity() {
    Identity identity;
    identity.version = std::string(compilerVersion());
    identity.abiVersion = compiler::Compiler::objectAbiVersion();
    const fs::path installed = fs::path(compiler::Runtime::getInstance().getStandardLibraryPath()) /
                               ".quor-stdlib-fingerprint";
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
    const fs::path versionState =
        paths.cacheRoot / ".first-launch" / std::string(compilerVersion());
    paths.stateDirectory = versionState / leaf;
    paths.marker = paths.stateDirectory / ".quor-stdlib-ready";
    paths.lockFile =
        versionState / (".stdlib-bootstrap-" + paths.stateDirectory.filename().string() + ".lock");
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
    if (status.type() == fs::file_type::directory) {
        diagnosis.verdict = MarkerVerdict::Unreadable;
        diagnosis.detail = "the marker path is a directory";
        return diagnosis;
    }
    std::ifstream stream(marker);
    if (!stream) {
        diagnosis.verdict = MarkerVerdict::Unreadable;
        diagnosis.detail = "the marker cannot be opened for reading";
        return diagnosis;
    }
    std::string lines[5];
    int count = 0;
    while (count < 5 && std::getline(stream, lines[count]))
        ++count;
    if (count == 0 && stream.bad()) {
        diagnosis.verdict = MarkerVerdict::Unreadable;
        diagnosis.detail = "the marker cannot be read";
        return diagnosis;
    }
    if (count < 5) {
        diagnosis.verdict = MarkerVerdict::Malformed;
        diagnosis.detail = "the marker has " + std::to_string(count) + " of its 5 lines";
        return diagnosis;
    }
    if (lines[0] != markerHeader) {
        diagnosis.verdict = MarkerVerdict::Malformed;
        diagnosis.detail = "the marker's first line is not " + std::string(markerHeader);
        return diagnosis;
    }
    const MarkerField expected[] = {
        {"format", "1", markerValue(lines[1], "format")},
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

std::vector<std::string> compilableUnits(const fs::path& root) {
    std::vector<std::string> units;
    std::error_code error;
    fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, error);
    if (error)
        throw enumerationError(root, error);
    for (const fs::recursive_directory_iterator end; it != end;) {
        const fs::directory_entry& entry = *it;
        std::error_code entryError;
        const auto own = entry.symlink_status(entryError);
        if (!entryError && own.type() == fs::file_type::regular &&
            entry.path().extension() == fs::path(".qr") && !isExcludedByHeader(entry.path()))
            units.push_back(entry.path().lexically_normal().string());
        it.increment(error);
        if (error)
            throw enumerationError(root, error);
    }
    std::sort(units.begin(), units.end());
    return units;
}

std::uint64_t diskUsage(const fs::path& path) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0)
        return 0;
    std::uint64_t bytes = static_cast<std::uint64_t>(info.st_blocks) * 512;
    if (!S_ISDIR(info.st_mode))
        return bytes;
    std::error_code error;
    fs::recursive_directory_iterator it(path, fs::directory_options::skip_permission_denied, error);
    for (const fs::recursive_directory_iterator end; !error && it != end; it.increment(error)) {
        struct stat child {};
        if (lstat(it->path().c_str(), &child) == 0)
            bytes += static_cast<std::uint64_t>(child.st_blocks) * 512;
    }
    return bytes;
}

} // namespace quor::stdlibtool
