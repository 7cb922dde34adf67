// Ed25519 keys, trusted-key lists and pack signatures; see PackSignature.h.
//
// Ed25519 comes from libcrypto's EVP interface, loaded on the first key
// operation through the services' one loader (Libcrypto.h), with the
// functions declared by OpenSSL's own header. Ed25519 signs the message itself
// (no separate digest), which is why the digest given to the EVP calls is NULL.

#include "compiler/PackSignature.h"
#include "compiler/Libcrypto.h"

#include <openssl/evp.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quor::compiler::signature {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view secretHeader = "# quor signing key 1: keep this file secret";
constexpr std::string_view signatureHeader = "quor-pack-signature 1";
// What a signature covers starts with this, so that it can never be taken for
// a signature over anything else this project (or anyone) signs with the key.
constexpr std::string_view domain = "quor library pack signature, format 1";

// ---- libcrypto ----

struct Ed25519 {
    decltype(&EVP_PKEY_new_raw_private_key) newPrivate = nullptr;
    decltype(&EVP_PKEY_new_raw_public_key) newPublic = nullptr;
    decltype(&EVP_PKEY_get_raw_public_key) getPublic = nullptr;
    decltype(&EVP_PKEY_free) keyFree = nullptr;
    decltype(&EVP_MD_CTX_new) contextNew = nullptr;
    decltype(&EVP_MD_CTX_free) contextFree = nullptr;
    decltype(&EVP_DigestSignInit) signInit = nullptr;
    decltype(&EVP_DigestSign) digestSign = nullptr;
    decltype(&EVP_DigestVerifyInit) verifyInit = nullptr;
    decltype(&EVP_DigestVerify) digestVerify = nullptr;
};

// Throws ServiceInternalError when libcrypto cannot be loaded or lacks a
// function; the next call then tries again.
Ed25519 loadEd25519() {
    Ed25519 ed;
    std::string reason;
    void* library = openssl::library(&reason);
    if (library == nullptr)
        throw ServiceInternalError("Unable to load " + std::string(openssl::libraryName()) +
                                   " for Ed25519: " + reason);
    using openssl::resolve;
    if (!resolve(library, "EVP_PKEY_new_raw_private_key", ed.newPrivate) ||
        !resolve(library, "EVP_PKEY_new_raw_public_key", ed.newPublic) ||
        !resolve(library, "EVP_PKEY_get_raw_public_key", ed.getPublic) ||
        !resolve(library, "EVP_PKEY_free", ed.keyFree) ||
        !resolve(library, "EVP_MD_CTX_new", ed.contextNew) ||
        !resolve(library, "EVP_MD_CTX_free", ed.contextFree) ||
        !resolve(library, "EVP_DigestSignInit", ed.signInit) ||
        !resolve(library, "EVP_DigestSign", ed.digestSign) ||
        !resolve(library, "EVP_DigestVerifyInit", ed.verifyInit) ||
        !resolve(library, "EVP_DigestVerify", ed.digestVerify))
        throw ServiceInternalError(std::string(openssl::libraryName()) +
                                   " lacks the Ed25519 functions");
    return ed;
}

// Thread-safe through the static's initialisation.
const Ed25519& ed25519() {
    static const Ed25519 ed = loadEd25519();
    return ed;
}

struct KeyDeleter {
    void operator()(EVP_PKEY* key) const { ed25519().keyFree(key); }
};
struct ContextDeleter {
    void operator()(EVP_MD_CTX* context) const { ed25519().contextFree(context); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyDeleter>;
using Context = std::unique_ptr<EVP_MD_CTX, ContextDeleter>;

Key privateKey(const Seed& seed) {
    Key key(ed25519().newPrivate(EVP_PKEY_ED25519, nullptr, seed.data(), seed.size()));
    if (!key)
        throw ServiceInternalError("libcrypto refused an Ed25519 private key");
    return key;
}

std::string_view bytesOf(const auto& array) {
    return {reinterpret_cast<const char*>(array.data()), array.size()};
}

template <std::size_t Size>
std::optional<std::array<std::uint8_t, Size>> decodeExactly(std::string_view text) {
    const std::optional<std::string> bytes = base64Decode(text);
    if (!bytes || bytes->size() != Size)
        return std::nullopt;
    std::array<std::uint8_t, Size> result{};
    std::memcpy(result.data(), bytes->data(), Size);
    return result;
}

// ---- Files ----

// The whole regular file at `path`, at most `limit` bytes, or KeyFileError
// "<opening> '<path>': <why>"; nullopt when there
// is nothing at the path and `missingIsNothing`. A FIFO or a device is refused
// without waiting for a writer, and a longer file without reading it to its
// end.
std::optional<std::string> readBounded(const fs::path& path, std::size_t limit,
                                       std::string_view opening, bool missingIsNothing) {
    const auto failure = [&](const std::string& why) {
        return KeyFileError(std::string(opening) + " '" + path.string() + "': " + why);
    };
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        if (errno == ENOENT && missingIsNothing)
            return std::nullopt;
        throw failure(std::strerror(errno));
    }
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); } // read-only: nothing to lose on a failing close
    } closer{fd};
    struct stat status {};
    if (::fstat(fd, &status) != 0)
        throw failure(std::strerror(errno));
    if (!S_ISREG(status.st_mode))
        throw failure("not a regular file");
    if (static_cast<std::uint64_t>(status.st_size) > limit)
        throw failure("larger than " + std::to_string(limit) + " bytes");
    // One byte more than the limit is asked for, so that a file that grew
    // since fstat() is still caught.
    std::string text(limit + 1, '\0');
    std::size_t used = 0;
    while (used < text.size()) {
        const ssize_t count = ::read(fd, text.data() + used, text.size() - used);
        if (count > 0)
            used += static_cast<std::size_t>(count);
        else if (count == 0)
            break;
        else if (errno != EINTR)
            throw failure(std::strerror(errno));
    }
    if (used > limit)
        throw failure("larger than " + std::to_string(limit) + " bytes");
    text.resize(used);
    return text;
}

// Writes `data` to a new file `path` with exactly `mode`, synced. Returns 0 or
// the errno of the step that failed; EEXIST when something is at `path`
// already (a link included), which is then left alone.
int createExclusively(const fs::path& path, std::string_view data, mode_t mode) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0)
        return errno;
    // The umask only narrows the mode; fchmod() also sets it when the umask
    // would have left a secret readable, or a public key writable, by others.
    int error = ::fchmod(fd, mode) == 0 ? 0 : errno;
    std::size_t written = 0;
    while (error == 0 && written < data.size()) {
        const ssize_t count = ::write(fd, data.data() + written, data.size() - written);
        if (count > 0)
            written += static_cast<std::size_t>(count);
        else if (count < 0 && errno != EINTR)
            error = errno;
    }
    if (error == 0 && ::fsync(fd) != 0)
        error = errno;
    if (::close(fd) != 0 && error == 0)
        error = errno;
    if (error != 0)
        ::unlink(path.c_str());
    return error;
}

// The lines of `text`, each without its line feed; a last line without one
// is still a line.
std::vector<std::string_view> linesOf(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        lines.push_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return lines;
}

// "NAME:<base64 of 32 bytes>": the name and the bytes, or nullopt with `reason`.
std::optional<std::pair<std::string, std::array<std::uint8_t, 32>>> keyLine(std::string_view line,
                                                                            std::string& reason) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        reason = "expected NAME:<base64 key>";
        return std::nullopt;
    }
    const std::string name(line.substr(0, colon));
    if (const std::string problem = keyNameProblem(name); !problem.empty()) {
        reason = problem;
        return std::nullopt;
    }
    const auto key = decodeExactly<32>(line.substr(colon + 1));
    if (!key) {
        reason = "the key is not the base64 of 32 bytes";
        return std::nullopt;
    }
    return std::pair{name, *key};
}

} // namespace

// ---- Base64 ----

std::string base64Encode(std::string_view bytes) {
    constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t left = bytes.size() - i;
        std::uint32_t group = std::uint32_t(static_cast<std::uint8_t>(bytes[i])) << 16;
        if (left > 1)
            group |= std::uint32_t(static_cast<std::uint8_t>(bytes[i + 1])) << 8;
        if (left > 2)
            group |= static_cast<std::uint8_t>(bytes[i + 2]);
        text += alphabet[(group >> 18) & 63];
        text += alphabet[(group >> 12) & 63];
        text += left > 1 ? alphabet[(group >> 6) & 63] : '=';
        text += left > 2 ? alphabet[group & 63] : '=';
    }
    return text;
}

std::optional<std::string> base64Decode(std::string_view text) {
    const auto value = [](char c) -> int {
        if (c >= 'A' && c <= 'Z')
            return c - 'A';
        if (c >= 'a' && c <= 'z')
            return c - 'a' + 26;
        if (c >= '0' && c <= '9')
            return c - '0' + 52;
        if (c == '+')
            return 62;
        if (c == '/')
            return 63;
        return -1;
    };
    if (text.size() % 4 != 0)
        return std::nullopt;
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        // Padding only in the last group: "xx==" or "xxx=".
        const std::size_t padding =
            !last ? 0 : (text[i + 3] == '=' ? (text[i + 2] == '=' ? 2 : 1) : 0);
        std::uint32_t group = 0;
        for (std::size_t j = 0; j < 4; ++j) {
            if (j >= 4 - padding) {
                group <<= 6;
                continue;
            }
            const int digit = value(text[i + j]);
            if (digit < 0)
                return std::nullopt;
            group = (group << 6) | static_cast<std::uint32_t>(digit);
        }
        // Bits in the padding's place would let two texts stand for one value.
        if ((padding == 1 && (group & 0xff) != 0) || (padding == 2 && (group & 0xffff) != 0))
            return std::nullopt;
        bytes += static_cast<char>((group >> 16) & 0xff);
        if (padding < 2)
            bytes += static_cast<char>((group >> 8) & 0xff);
        if (padding < 1)
            bytes += static_cast<char>(group & 0xff);
    }
    return bytes;
}

// ---- Keys ----

std::string keyNameProblem(std::string_view name) {
    if (name.empty())
        return "a key name may not be empty";
    if (name.size() > keyNameLimit)
        return "a key name may have at most " + std::to_string(keyNameLimit) + " characters";
    if (name.front() == '.' || name.front() == '-')
        return "a key name may not start with '.' or '-'";
    for (const char c : name)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '.' || c == '_' || c == '-'))
            return "a key name may hold only letters, digits, '.', '_' and '-'";
    return {};
}

bool isValidKeyName(std::string_view name) {
    return keyNameProblem(name).empty();
}

KeyPair keyPairFromSeed(const std::string& name, const Seed& seed) {
    if (const std::string problem = keyNameProblem(name); !problem.empty())
        throw std::invalid_argument("Invalid key name '" + name + "': " + problem);
    KeyPair pair;
    pair.name = name;
    pair.seed = seed;
    const Key key = privateKey(seed);
    std::size_t length = pair.publicKey.size();
    if (ed25519().getPublic(key.get(), pair.publicKey.data(), &length) != 1 ||
        length != pair.publicKey.size())
        throw ServiceInternalError("libcrypto gave no Ed25519 public key");
    return pair;
}

KeyPair generateKeyPair(const std::string& name) {
    if (const std::string problem = keyNameProblem(name); !problem.empty())
        throw std::invalid_argument("Invalid key name '" + name + "': " + problem);
    Seed seed{};
    std::size_t filled = 0;
    while (filled < seed.size()) {
        const ssize_t count = ::getrandom(seed.data() + filled, seed.size() - filled, 0);
        if (count > 0)
            filled += static_cast<std::size_t>(count);
        else if (count < 0 && errno != EINTR)
            throw ServiceInternalError(std::string("Unable to draw a random key: ") +
                                       std::strerror(errno));
    }
    return keyPairFromSeed(name, seed);
}

std::string publicKeyLine(const std::string& name, const PublicKey& key) {
    return name + ":" + base64Encode(bytesOf(key)) + "\n";
}

std::string secretKeyText(const KeyPair& pair) {
    return std::string(secretHeader) + "\n" + pair.name + ":" + base64Encode(bytesOf(pair.seed)) +
           "\n";
}

std::optional<KeyPair> parseSecretKey(std::string_view text, std::string* reason) {
    std::string why;
    const std::vector<std::string_view> lines = linesOf(text);
    std::optional<std::pair<std::string, std::array<std::uint8_t, 32>>> line;
    if (text.empty() || text.back() != '\n' || lines.size() != 2 || lines[0] != secretHeader)
        why = "not a secret key file";
    else if (line = keyLine(lines[1], why); line)
        return keyPairFromSeed(line->first, line->second);
    if (reason != nullptr)
        *reason = why;
    return std::nullopt;
}

KeyFiles writeKeyPair(const KeyPair& pair, const fs::path& directory) {
    if (const std::string problem = keyNameProblem(pair.name); !problem.empty())
        throw std::invalid_argument("Invalid key name '" + pair.name + "': " + problem);
    KeyFiles files{directory / (pair.name + ".secret"), directory / (pair.name + ".public")};
    // The public file first only as a look: the secret is created with O_EXCL
    // and the public one too, so neither check can be raced into a replacement.
    struct stat status {};
    for (const fs::path& file : {files.secretFile, files.publicFile})
        if (::lstat(file.c_str(), &status) == 0)
            throw KeyExistsError("Refusing to replace the key file '" + file.string() +
                                 "': it exists; choose another name or remove it first");
    const auto failed = [](const fs::path& file, int error) {
        if (error == EEXIST)
            return KeyFileError("Refusing to replace the key file '" + file.string() +
                                "': it exists; choose another name or remove it first");
        return KeyFileError("Unable to write the key file '" + file.string() +
                            "': " + std::strerror(error));
    };
    if (const int error = createExclusively(files.secretFile, secretKeyText(pair), 0600)) {
        if (error == EEXIST)
            throw KeyExistsError(failed(files.secretFile, error).what());
        throw failed(files.secretFile, error);
    }
    if (const int error =
            createExclusively(files.publicFile, publicKeyLine(pair.name, pair.publicKey), 0644)) {
        ::unlink(files.secretFile.c_str()); // half a key pair is no key pair
        if (error == EEXIST)
            throw KeyExistsError(failed(files.publicFile, error).what());
        throw failed(files.publicFile, error);
    }
    // The new names are durable with their folder.
    const int folder =
        ::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        ::fsync(folder);
        ::close(folder);
    }
    return files;
}

KeyPair readSecretKey(const fs::path& file) {
    const std::string text =
        *readBounded(file, keyFileLimit, "Unable to read the secret key file", false);
    std::string reason;
    std::optional<KeyPair> pair = parseSecretKey(text, &reason);
    if (!pair)
        throw KeyFileError("Unable to read the secret key file '" + file.string() + "': " + reason);
    return *pair;
}

// ---- Trusted keys ----

TrustedKeys parseTrustedKeys(std::string_view text) {
    TrustedKeys trusted;
    std::map<std::string, std::size_t, std::less<>> refused; // name, the line that refused it
    const std::vector<std::string_view> lines = linesOf(text);
    for (std::size_t index = 0; index < lines.size(); ++index) {
        const std::string_view line = lines[index];
        const std::size_t number = index + 1;
        if (line.empty() || line.front() == '#')
            continue;
        std::string reason;
        const auto entry = keyLine(line, reason);
        if (!entry) {
            trusted.problems.push_back({number, reason});
            continue;
        }
        const auto& [name, key] = *entry;
        if (refused.contains(name)) {
            trusted.problems.push_back({number, "the key '" + name +
                                                    "' is listed with different "
                                                    "keys; none of them is trusted"});
            continue;
        }
        const auto [known, added] = trusted.keys.emplace(name, key);
        if (!added && known->second != key) {
            trusted.keys.erase(known);
            refused.emplace(name, number);
            trusted.problems.push_back({number, "the key '" + name +
                                                    "' is listed with different "
                                                    "keys; none of them is trusted"});
        }
    }
    return trusted;
}

TrustedKeys readTrustedKeys(const fs::path& file) {
    return parseTrustedKeys(
        *readBounded(file, trustedKeysLimit, "Unable to read the trusted keys", false));
}

// ---- Signatures ----

std::string signedBytes(std::string_view keyName, std::string_view message) {
    std::string bytes(domain);
    bytes += '\0';
    bytes += keyName;
    bytes += '\0';
    bytes += message;
    return bytes;
}

Signature sign(std::string_view message, const KeyPair& pair) {
    const Ed25519& ed = ed25519();
    const Key key = privateKey(pair.seed);
    const Context context(ed.contextNew());
    const std::string bytes = signedBytes(pair.name, message);
    Signature signature;
    signature.keyName = pair.name;
    std::size_t length = signature.bytes.size();
    if (!context || ed.signInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1 ||
        ed.digestSign(context.get(), signature.bytes.data(), &length,
                      reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()) != 1 ||
        length != signature.bytes.size())
        throw ServiceInternalError("libcrypto could not make an Ed25519 signature");
    return signature;
}

std::string signatureText(const Signature& signature) {
    return std::string(signatureHeader) + "\nkey=" + signature.keyName +
           "\nsignature=" + base64Encode(bytesOf(signature.bytes)) + "\n";
}

std::optional<Signature> parseSignature(std::string_view text, std::string* reason) {
    const auto refuse = [&](std::string why) -> std::optional<Signature> {
        if (reason != nullptr)
            *reason = std::move(why);
        return std::nullopt;
    };
    const std::vector<std::string_view> lines = linesOf(text);
    if (text.empty() || text.back() != '\n' || lines.size() != 3 || lines[0] != signatureHeader)
        return refuse("not a signature file of format 1");
    if (!lines[1].starts_with("key=") || !lines[2].starts_with("signature="))
        return refuse("expected key=NAME and signature=<base64>");
    Signature signature;
    signature.keyName = std::string(lines[1].substr(4));
    if (const std::string problem = keyNameProblem(signature.keyName); !problem.empty())
        return refuse(problem);
    const auto bytes = decodeExactly<64>(lines[2].substr(10));
    if (!bytes)
        return refuse("the signature is not the base64 of 64 bytes");
    signature.bytes = *bytes;
    return signature;
}

Verification verify(std::string_view message, const std::optional<std::string>& signatureFile,
                    const TrustedKeys& trusted) {
    Verification result;
    if (!signatureFile) {
        result.verdict = Verdict::Unsigned;
        result.reason = "there is no signature";
        return result;
    }
    std::string reason;
    const std::optional<Signature> signature = parseSignature(*signatureFile, &reason);
    if (!signature) {
        result.verdict = Verdict::Malformed;
        result.reason = "the signature file is malformed: " + reason;
        return result;
    }
    result.keyName = signature->keyName;
    const auto listed = trusted.keys.find(signature->keyName);
    if (listed == trusted.keys.end()) {
        result.verdict = Verdict::UnknownKey;
        result.reason = "the key '" + signature->keyName + "' is not trusted";
        return result;
    }
    const Ed25519& ed = ed25519();
    const Key key(
        ed.newPublic(EVP_PKEY_ED25519, nullptr, listed->second.data(), listed->second.size()));
    const Context context(ed.contextNew());
    const std::string bytes = signedBytes(signature->keyName, message);
    // A listed key libcrypto cannot use verifies nothing.
    const bool valid =
        key && context && ed.verifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
        ed.digestVerify(context.get(), signature->bytes.data(), signature->bytes.size(),
                        reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()) == 1;
    result.verdict = valid ? Verdict::Valid : Verdict::BadSignature;
    if (!valid)
        result.reason = "the key '" + signature->keyName + "' did not sign this";
    return result;
}

std::optional<std::string> readSignatureFile(const fs::path& file) {
    return readBounded(file, signatureFileLimit, "Unable to read the signature file", true);
}

std::string_view verdictName(Verdict verdict) {
    switch (verdict) {
    case Verdict::Valid:
        return "valid";
    case Verdict::Unsigned:
        return "unsigned";
    case Verdict::Malformed:
        return "malformed";
    case Verdict::UnknownKey:
        return "unknown-key";
    case Verdict::BadSignature:
        break;
    }
    return "bad-signature";
}

} // namespace quor::compiler::signature
