// Fuzz target: the readiness marker. The input is the bytes of a marker file.
// The bootstrap's verdict (StandardLibraryCacheState::isReady on a file holding those
// bytes) must match an independent reading of the format: five lines read as a
// stream reads them, the header compared untrimmed, the values trimmed and
// compared with the expected identity. The identities tried are a fixed one and
// one taken from the input itself, so both verdicts are reached. The input also
// names an identity for the writer: markReady must write exactly the format's
// bytes, leave no temporary file, and certify what it wrote whenever the
// identity can be certified at all. trim and markerValue are checked against
// their own rules on every line. The bootstrap's explanation of a marker
// (explain::diagnoseMarker), which reads on past the first difference, must
// reach isReady's verdict on every input.

#include "compiler/BootstrapExplanation.h"
#include "compiler/CacheLayout.h"
#include "compiler/StandardLibraryCacheState.h"
#include "fuzz/FuzzCheck.h"

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;
using quor::compiler::StandardLibraryCacheState;

constexpr std::string_view kWhiteSpace = " \t\r\n";

std::string modelTrim(std::string_view text) {
    while (!text.empty() && kWhiteSpace.find(text.front()) != std::string_view::npos) {
        text.remove_prefix(1);
    }
    while (!text.empty() && kWhiteSpace.find(text.back()) != std::string_view::npos) {
        text.remove_suffix(1);
    }
    return std::string(text);
}

std::string modelValue(const std::string& line, const std::string& key) {
    const std::string prefix = key + "=";
    if (line.rfind(prefix, 0) != 0) {
        return {};
    }
    return modelTrim(std::string_view(line).substr(prefix.size()));
}

// The first five lines as getline gives them, or nothing when the bytes end
// before a fifth line has begun.
std::optional<std::array<std::string, 5>> modelLines(std::string_view bytes) {
    std::array<std::string, 5> lines;
    std::size_t position = 0;
    for (std::string& line : lines) {
        if (position >= bytes.size()) {
            return std::nullopt;
        }
        const std::size_t end = bytes.find('\n', position);
        const std::size_t stop = end == std::string_view::npos ? bytes.size() : end;
        line = std::string(bytes.substr(position, stop - position));
        position = end == std::string_view::npos ? bytes.size() : end + 1;
    }
    return lines;
}

struct Identity {
    std::string version;
    int abi = 0;
    std::string fingerprint;
};

bool modelCertifies(std::string_view bytes, const Identity& identity) {
    const auto lines = modelLines(bytes);
    return lines && (*lines)[0] == "QUOR_STANDARD_LIBRARY_CACHE" &&
           modelValue((*lines)[1], "format") == "1" &&
           modelValue((*lines)[2], "version") == identity.version &&
           modelValue((*lines)[3], "abi") == std::to_string(identity.abi) &&
           modelValue((*lines)[4], "fingerprint") == identity.fingerprint;
}

std::string expectedMarker(const Identity& identity) {
    return "QUOR_STANDARD_LIBRARY_CACHE\nformat=1\nversion=" + identity.version +
           "\nabi=" + std::to_string(identity.abi) + "\nfingerprint=" + identity.fingerprint + "\n";
}

// One scratch directory per process, removed at exit.
const fs::path& scratchDirectory() {
    static const fs::path directory = [] {
        std::string pattern = (fs::temp_directory_path() / "quor-fuzz-marker-XXXXXX").string();
        QUOR_FUZZ_CHECK(::mkdtemp(pattern.data()) != nullptr);
        std::atexit([] {
            std::error_code ignored;
            fs::remove_all(scratchDirectory(), ignored); // a leftover scratch dir is harmless
        });
        return fs::path(pattern);
    }();
    return directory;
}

void writeFile(const fs::path& file, std::string_view bytes) {
    std::ofstream stream(file, std::ios::binary | std::ios::trunc);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    stream.flush();
    QUOR_FUZZ_CHECK(stream.good());
}

std::string readFile(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

void checkTrimAndValue(const std::string& line) {
    const std::string trimmed = quor::compiler::explain::trim(line);
    QUOR_FUZZ_CHECK(trimmed == modelTrim(line));
    QUOR_FUZZ_CHECK(quor::compiler::explain::trim(trimmed) == trimmed);
    for (const char* key : {"format", "version", "abi", "fingerprint", ""}) {
        QUOR_FUZZ_CHECK(quor::compiler::explain::markerValue(line, key) == modelValue(line, key));
    }
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos) {
        const std::string key = line.substr(0, equals);
        QUOR_FUZZ_CHECK(quor::compiler::explain::markerValue(line, key) ==
                        modelTrim(line.substr(equals + 1)));
    }
}

// The identity the input's own lines claim, when line 4 holds a plain int.
std::optional<Identity> claimedIdentity(std::string_view bytes) {
    const auto lines = modelLines(bytes);
    if (!lines) {
        return std::nullopt;
    }
    const std::string abiText = modelValue((*lines)[3], "abi");
    int abi = 0;
    const auto [end, error] = std::from_chars(abiText.data(), abiText.data() + abiText.size(), abi);
    if (error != std::errc() || end != abiText.data() + abiText.size()) {
        return std::nullopt;
    }
    return Identity{modelValue((*lines)[2], "version"), abi,
                    modelValue((*lines)[4], "fingerprint")};
}

// The writer's identity: the input up to its first NUL is the version, up to the
// second the fingerprint, and the four bytes after that the ABI number.
Identity writerIdentity(std::string_view bytes) {
    Identity identity;
    const std::size_t first = bytes.find('\0');
    identity.version = std::string(bytes.substr(0, first));
    if (first == std::string_view::npos) {
        return identity;
    }
    bytes.remove_prefix(first + 1);
    const std::size_t second = bytes.find('\0');
    identity.fingerprint = std::string(bytes.substr(0, second));
    if (second == std::string_view::npos) {
        return identity;
    }
    bytes.remove_prefix(second + 1);
    std::uint32_t abi = 0;
    for (std::size_t i = 0; i < 4 && i < bytes.size(); ++i) {
        abi = (abi << 8) | static_cast<unsigned char>(bytes[i]);
    }
    identity.abi = static_cast<int>(abi);
    return identity;
}

bool certifiable(const Identity& identity) {
    return identity.version.find('\n') == std::string::npos &&
           identity.fingerprint.find('\n') == std::string::npos &&
           modelTrim(identity.version) == identity.version &&
           modelTrim(identity.fingerprint) == identity.fingerprint;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);

    std::string_view rest = bytes;
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        checkTrimAndValue(std::string(rest.substr(0, end)));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }

    // The reader.
    const fs::path readerDirectory = scratchDirectory() / "reader";
    std::error_code error;
    fs::create_directories(readerDirectory, error);
    QUOR_FUZZ_CHECK(!error);
    writeFile(readerDirectory / quor::compiler::layout::markerFileName, bytes);
    std::vector<Identity> identities = {
        {"0.1.6", 3, "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef"},
        {"", 0, ""}};
    if (const auto claimed = claimedIdentity(bytes)) {
        identities.push_back(*claimed);
    }
    for (const Identity& identity : identities) {
        const StandardLibraryCacheState state(readerDirectory, identity.version, identity.abi,
                                              identity.fingerprint);
        QUOR_FUZZ_CHECK(state.isReady() == modelCertifies(bytes, identity));
        // The explanation must reach the decision's verdict on every input:
        // `status` reports "valid" exactly when the bootstrap accepts the marker.
        quor::compiler::explain::Identity probed;
        probed.version = identity.version;
        probed.abiVersion = identity.abi;
        probed.fingerprint = identity.fingerprint;
        const auto diagnosis = quor::compiler::explain::diagnoseMarker(
            readerDirectory / quor::compiler::layout::markerFileName, probed);
        QUOR_FUZZ_CHECK((diagnosis.verdict == quor::compiler::explain::MarkerVerdict::Valid) ==
                        state.isReady());
    }

    // The writer.
    const Identity identity = writerIdentity(bytes);
    const fs::path writerDirectory = scratchDirectory() / "writer" / "state";
    const StandardLibraryCacheState state(writerDirectory, identity.version, identity.abi,
                                          identity.fingerprint);
    state.markReady();
    const std::string written = readFile(state.getMarkerPath());
    QUOR_FUZZ_CHECK(written == expectedMarker(identity));
    QUOR_FUZZ_CHECK(state.isReady() == modelCertifies(written, identity));
    if (certifiable(identity)) {
        QUOR_FUZZ_CHECK(state.isReady());
    }
    for (const fs::directory_entry& entry : fs::directory_iterator(writerDirectory)) {
        QUOR_FUZZ_CHECK(entry.path().filename() == quor::compiler::layout::markerFileName);
    }
    return 0;
}
