// Ed25519 signatures over library packs, and every file format they need: the
// secret and public key files, the list of trusted keys, and the signature
// file that travels beside a pack. A fleet of machines fetches one ready
// library as a pack over plain HTTP; a client must never use a pack that
// nobody it trusts vouched for. So a pack is used only when its signature file
// names a key that the client's trusted list holds, and the signature, made
// with that key, covers the pack's identity and manifest (the caller's
// message) together with the key's name, under a prefix that names this
// purpose: a signature over a pack can be neither replayed for another
// identity, nor passed off under another listed name, nor taken for a
// signature over anything else.
//
// The formats, each read and written here and nowhere else:
//
//   NAME.secret (mode 0600)      # quor signing key 1: keep this file secret
//                                NAME:<base64 of the 32-byte private seed>
//   NAME.public                  NAME:<base64 of the 32-byte public key>
//   trusted keys                 NAME:<base64 public key>, one per line; blank
//                                lines and lines starting with '#' are skipped
//   <pack>.sig                   quor-pack-signature 1
//                                key=NAME
//                                signature=<base64 of the 64-byte signature>
//
// Every line ends with a line feed. Base64 is the standard alphabet with
// padding, read strictly: one encoding per byte string, so that a file says
// one thing only. A key name is 1 to 64 of letters, digits, '.', '_' and '-',
// not starting with '.' or '-', so that it is a file name and a list entry.
//
// libcrypto is loaded on the first key operation (Libcrypto.h), never by a
// program that only checks a ready cache.
//
// Thread safety: the functions keep no state of their own; they may run on
// any thread at once.

#ifndef QUOR_COMPILER_PACKSIGNATURE_H
#define QUOR_COMPILER_PACKSIGNATURE_H

#include "compiler/ServiceError.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quor::compiler::signature {

using Seed = std::array<std::uint8_t, 32>;
using PublicKey = std::array<std::uint8_t, 32>;
using SignatureBytes = std::array<std::uint8_t, 64>;

// The longest key name.
inline constexpr std::size_t keyNameLimit = 64;

// The most a trusted-key list, a key file or a signature file may hold; a
// longer file is refused unread.
inline constexpr std::size_t trustedKeysLimit = std::size_t(1) << 20;
inline constexpr std::size_t keyFileLimit = 4096;
inline constexpr std::size_t signatureFileLimit = 4096;

// A key file, a trusted-key list or a signature file that cannot be read, is
// not what it must be, or a key pair that cannot be written.
class KeyFileError : public ServiceError {
public:
    explicit KeyFileError(const std::string& message)
        : ServiceError(Category::FileSystem, message) {}
};

// A key file that would have replaced one already there. Nothing was written.
class KeyExistsError : public KeyFileError {
public:
    explicit KeyExistsError(const std::string& message) : KeyFileError(message) {}
};

// ---- Base64 ----

// `bytes` in the standard alphabet, padded with '=' to a multiple of four.
std::string base64Encode(std::string_view bytes);

// The bytes `text` encodes, or nullopt when it is not the one canonical
// encoding of them: a character outside the alphabet (white space included), a
// length that is not a multiple of four, padding anywhere but at the end, or
// bits set in the padding's place.
std::optional<std::string> base64Decode(std::string_view text);

// ---- Keys ----

// Whether `name` may name a key (see above).
bool isValidKeyName(std::string_view name);

// Why `name` may not name a key, in words; "" when it may.
std::string keyNameProblem(std::string_view name);

struct KeyPair {
    std::string name;
    Seed seed{};
    PublicKey publicKey{};
};

// A new key pair named `name`, its seed drawn from the kernel's random source.
// Throws std::invalid_argument for a name isValidKeyName() refuses, and
// ServiceInternalError when libcrypto or the random source cannot be used.
KeyPair generateKeyPair(const std::string& name);

// The key pair whose private seed is `seed`. Throws like generateKeyPair().
KeyPair keyPairFromSeed(const std::string& name, const Seed& seed);

// "NAME:<base64>\n", the whole public key file and one line of a trusted list.
std::string publicKeyLine(const std::string& name, const PublicKey& key);

// The whole secret key file.
std::string secretKeyText(const KeyPair& pair);

// The key pair of a secret key file's text; nullopt when the text is not
// exactly a secret key file, with `reason` (when given) saying why.
std::optional<KeyPair> parseSecretKey(std::string_view text, std::string* reason = nullptr);

struct KeyFiles {
    std::filesystem::path secretFile; // <directory>/<name>.secret
    std::filesystem::path publicFile; // <directory>/<name>.public
};

// Writes `pair` as <directory>/<name>.secret, mode 0600 whatever the umask, and
// <directory>/<name>.public, mode 0644 less the umask, each created with
// O_EXCL and synced: an existing file of either name is never replaced, and
// neither file is then written. A public file that cannot be written takes the
// secret one it follows away again. Throws KeyExistsError when either exists,
// KeyFileError when they cannot be written.
KeyFiles writeKeyPair(const KeyPair& pair, const std::filesystem::path& directory);

// The key pair of the secret key file `file`. Only a regular file of at most
// keyFileLimit bytes is read; a FIFO is not waited for. Throws KeyFileError
// when it cannot be read or is not a secret key file.
KeyPair readSecretKey(const std::filesystem::path& file);

// ---- Trusted keys ----

// A line of a trusted list that gives no key, and why.
struct TrustedKeyProblem {
    std::size_t line = 0; // from 1
    std::string reason;
};

struct TrustedKeys {
    std::map<std::string, PublicKey, std::less<>> keys; // by name
    std::vector<TrustedKeyProblem> problems;            // in the order of their lines
};

// The keys that `text` lists. A line that is not "NAME:<base64 of 32 bytes>"
// (after a blank or '#' line check) is a problem and trusts nothing; a name
// listed twice with the same key is one key; a name listed with different keys
// is a problem on each later line and trusts no key under that name, since
// nobody can tell which was meant. Every other line stays usable.
TrustedKeys parseTrustedKeys(std::string_view text);

// parseTrustedKeys() of the file `file`. Only a regular file of at most
// trustedKeysLimit bytes is read; a FIFO is not waited for. Throws KeyFileError
// when it cannot be read.
TrustedKeys readTrustedKeys(const std::filesystem::path& file);

// ---- Signatures ----

// The bytes a signature covers: a fixed prefix naming this purpose and the
// signature format, the key's name, then `message`, separated by NUL bytes.
std::string signedBytes(std::string_view keyName, std::string_view message);

struct Signature {
    std::string keyName;
    SignatureBytes bytes{};
};

// The signature of `message` by `pair`. Throws ServiceInternalError when
// libcrypto cannot be used.
Signature sign(std::string_view message, const KeyPair& pair);

// The whole signature file of `signature`.
std::string signatureText(const Signature& signature);

// The signature a signature file's text holds; nullopt when the text is not
// exactly a signature file, with `reason` (when given) saying why.
std::optional<Signature> parseSignature(std::string_view text, std::string* reason = nullptr);

enum class Verdict {
    Valid,        // the named key is trusted and made this signature over this message
    Unsigned,     // there is no signature
    Malformed,    // the signature file is not one
    UnknownKey,   // the key it names is not in the trusted list
    BadSignature, // the named key did not sign this message
};

struct Verification {
    Verdict verdict = Verdict::Unsigned;
    std::string keyName; // the key the signature names; "" when it names none
    std::string reason;  // why it is not Valid, in words; "" when it is
};

// Whether `signatureFile` (a signature file's text; nullopt when there is
// none) is a signature of `message` by the key of the name it gives, as
// `trusted` lists that name. Never throws for what the inputs hold;
// ServiceInternalError only when libcrypto cannot be used.
Verification verify(std::string_view message, const std::optional<std::string>& signatureFile,
                    const TrustedKeys& trusted);

// The text of the signature file `file`, or nullopt when there is no file at
// that path. Only a regular file of at most signatureFileLimit bytes is read; a
// FIFO is not waited for. Throws KeyFileError when it cannot be read.
std::optional<std::string> readSignatureFile(const std::filesystem::path& file);

// "valid", "unsigned", "malformed", "unknown-key" or "bad-signature".
std::string_view verdictName(Verdict verdict);

} // namespace quor::compiler::signature

#endif
