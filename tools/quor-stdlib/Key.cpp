// `quor-stdlib key`: the signing keys of library packs, for the people and
// scripts that publish a pack and the machines that fetch it.
//
//   key generate NAME [--dir DIR]    NAME.secret (0600) and NAME.public
//   key sign FILE --key NAME.secret  FILE.sig, over FILE's bytes
//   key verify FILE --keys TRUSTED   whether FILE.sig is a signature of FILE by
//                                    a key TRUSTED lists under the name it gives
//
// The formats and the checks are compiler/PackSignature.h's; this file only
// reads and writes the files the command line names and reports.

#include "Commands.h"
#include "Console.h"
#include "Failure.h"
#include "JsonText.h"

#include "compiler/ObjectCache.h"
#include "compiler/PackSignature.h"

#include <nlohmann/json.hpp>

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace quor::stdlibtool {

namespace {

namespace fs = std::filesystem;
namespace signature = compiler::signature;

// The largest file `key sign` and `key verify` read whole.
constexpr std::uint64_t signedFileLimit = std::uint64_t(1) << 30;

// The bytes of the regular file `file`; a FIFO is not waited for.
std::string readSignedFile(const fs::path& file) {
    const auto failure = [&](const std::string& why) {
        return ToolError(kind::io, "Unable to read the file to sign or verify '" + file.string() +
                                       "': " + why);
    };
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0)
        throw failure(std::strerror(errno));
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat status {};
    if (::fstat(fd, &status) != 0)
        throw failure(std::strerror(errno));
    if (!S_ISREG(status.st_mode))
        throw failure("not a regular file");
    if (static_cast<std::uint64_t>(status.st_size) > signedFileLimit)
        throw failure("larger than 1 GiB");
    std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t used = 0;
    while (used < bytes.size()) {
        const ssize_t count = ::read(fd, bytes.data() + used, bytes.size() - used);
        if (count > 0)
            used += static_cast<std::size_t>(count);
        else if (count == 0)
            break;
        else if (errno != EINTR)
            throw failure(std::strerror(errno));
    }
    bytes.resize(used);
    return bytes;
}

fs::path signatureFileOf(const std::string& file) {
    return fs::path(file + ".sig");
}

int generate(const Invocation& invocation, Console& console) {
    const KeyOptions& options = invocation.key;
    const fs::path directory =
        options.directory.empty() ? fs::path(".") : fs::path(options.directory);
    const signature::KeyPair pair = signature::generateKeyPair(options.subject);
    const signature::KeyFiles files = signature::writeKeyPair(pair, directory);
    const std::string line = signature::publicKeyLine(pair.name, pair.publicKey);
    if (invocation.global.json) {
        console.out() << jsonText(
                             nlohmann::ordered_json{{"name", pair.name},
                                                    {"secretFile", files.secretFile.string()},
                                                    {"publicFile", files.publicFile.string()},
                                                    {"publicKey", line.substr(0, line.size() - 1)}})
                      << std::endl;
    } else {
        if (!invocation.global.quiet) {
            console.note("wrote the secret key " + files.secretFile.string() +
                         " (mode 0600: keep it private)");
            console.note("wrote the public key " + files.publicFile.string() +
                         "; add its line to the trusted keys of every machine that "
                         "must accept what it signs:");
        }
        // The line alone on standard output, for >> trusted-keys.
        console.out() << line << std::flush;
    }
    return console.finish(ExitSuccess, "the key pair was written");
}

int signFile(const Invocation& invocation, Console& console) {
    const KeyOptions& options = invocation.key;
    const signature::KeyPair pair = signature::readSecretKey(options.secretKey);
    const std::string bytes = readSignedFile(options.subject);
    const std::string text = signature::signatureText(signature::sign(bytes, pair));
    const fs::path file = signatureFileOf(options.subject);
    if (const int error = compiler::writeFileAtomically(file, text))
        throw ToolError(kind::io, "Unable to write the signature file '" + file.string() +
                                      "': " + std::strerror(error));
    if (invocation.global.json)
        console.out() << jsonText(nlohmann::ordered_json{{"file", options.subject},
                                                         {"signatureFile", file.string()},
                                                         {"key", pair.name}})
                      << std::endl;
    else if (!invocation.global.quiet)
        console.note("signed " + options.subject + " with the key '" + pair.name + "': wrote " +
                     file.string());
    return console.finish(ExitSuccess, "the signature was written");
}

int verifyFile(const Invocation& invocation, Console& console) {
    const KeyOptions& options = invocation.key;
    const signature::TrustedKeys trusted = signature::readTrustedKeys(options.trustedKeys);
    const fs::path file = signatureFileOf(options.subject);
    const std::optional<std::string> signatureText = signature::readSignatureFile(file);
    const std::string bytes = readSignedFile(options.subject);
    const signature::Verification result = signature::verify(bytes, signatureText, trusted);
    nlohmann::ordered_json problems = nlohmann::ordered_json::array();
    for (const signature::TrustedKeyProblem& problem : trusted.problems) {
        problems.push_back({{"line", problem.line}, {"reason", problem.reason}});
        if (!invocation.global.quiet)
            console.note("warning: " + options.trustedKeys + ":" + std::to_string(problem.line) +
                         ": " + problem.reason + "; the line is ignored");
    }
    if (result.verdict != signature::Verdict::Valid)
        throw ToolError(kind::untrusted, "Refusing '" + options.subject + "': " + result.reason,
                        {{"verdict", signature::verdictName(result.verdict)},
                         {"key", result.keyName.empty() ? nlohmann::ordered_json()
                                                        : nlohmann::ordered_json(result.keyName)},
                         {"problems", problems}});
    if (invocation.global.json)
        console.out() << jsonText(nlohmann::ordered_json{
                             {"file", options.subject},
                             {"signatureFile", file.string()},
                             {"verdict", signature::verdictName(result.verdict)},
                             {"key", result.keyName},
                             {"problems", problems}})
                      << std::endl;
    else if (!invocation.global.quiet)
        console.note(options.subject + ": signed by the trusted key '" + result.keyName + "'");
    return console.finish(ExitSuccess, "the signature is valid");
}

} // namespace

int runKey(const Invocation& invocation, Console& console) {
    try {
        if (invocation.key.action == "generate")
            return generate(invocation, console);
        if (invocation.key.action == "sign")
            return signFile(invocation, console);
        return verifyFile(invocation, console);
    } catch (const std::exception& failure) {
        reportFailure(console, invocation.global.json, failure, ExitFailure);
        return ExitFailure;
    }
}

} // namespace quor::stdlibtool
