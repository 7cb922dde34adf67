// The signatures a client relies on before it uses a library pack fetched from
// elsewhere: only a signature made by a key the client lists, under the name
// the signature gives, over exactly these bytes, is valid; every other input
// gets its own verdict and never an exception. The key files, the trusted-key
// list and the signature file are each read strictly and in bounded memory.

#include "compiler/PackSignature.h"
#include "tests/support/Files.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace quor::compiler::signature {
namespace {

namespace fs = std::filesystem;
using testsupport::readFile;
using testsupport::TemporaryDirectory;
using testsupport::writeFile;

const std::string message = "identity: 1.4.0 abi 7 fingerprint 3f2a\nmanifest: core/Object.qr\n";

std::string flipBit(std::string text, std::size_t byte, int bit = 0) {
    text[byte] = static_cast<char>(text[byte] ^ (1 << bit));
    return text;
}

// A signature file whose signature bytes have one bit flipped.
std::string withFlippedSignature(const Signature& signature, std::size_t byte) {
    Signature changed = signature;
    changed.bytes[byte] ^= 1;
    return signatureText(changed);
}

TrustedKeys trusting(const std::vector<KeyPair>& pairs) {
    std::string list;
    for (const KeyPair& pair : pairs)
        list += publicKeyLine(pair.name, pair.publicKey);
    return parseTrustedKeys(list);
}

mode_t modeOf(const fs::path& file) {
    struct stat status {};
    EXPECT_EQ(::lstat(file.c_str(), &status), 0) << file;
    return status.st_mode & 07777;
}

class Umask {
public:
    explicit Umask(mode_t mask) : previous_(::umask(mask)) {}
    ~Umask() { ::umask(previous_); }
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

private:
    mode_t previous_;
};

TEST(Base64, EncodesAndDecodesEveryLength) {
    EXPECT_EQ(base64Encode(""), "");
    EXPECT_EQ(base64Encode("f"), "Zg==");
    EXPECT_EQ(base64Encode("fo"), "Zm8=");
    EXPECT_EQ(base64Encode("foo"), "Zm9v");
    EXPECT_EQ(base64Encode("foob"), "Zm9vYg==");
    EXPECT_EQ(base64Encode(std::string("\xff\xfe\x00", 3)), "//4A");
    std::string bytes;
    for (int length = 0; length < 70; ++length) {
        EXPECT_EQ(base64Decode(base64Encode(bytes)), bytes) << length;
        bytes += static_cast<char>(length * 37 + 11);
    }
}

TEST(Base64, RefusesAnythingButTheOneCanonicalText) {
    EXPECT_FALSE(base64Decode("Zh=="));     // bits in the padding's place: "f" is Zg==
    EXPECT_FALSE(base64Decode("Zm9="));     // "fo" is Zm8=
    EXPECT_FALSE(base64Decode("Zg"));       // padding left out
    EXPECT_FALSE(base64Decode("Zg="));      // wrong length
    EXPECT_FALSE(base64Decode("Zg==Zg==")); // padding inside
    EXPECT_FALSE(base64Decode("Z==="));
    EXPECT_FALSE(base64Decode("Zm9v\n"));
    EXPECT_FALSE(base64Decode(" Zm9v"));
    EXPECT_FALSE(base64Decode("Zm 9v"));
    EXPECT_FALSE(base64Decode("Zm9v-_==")); // the URL alphabet is another encoding
    EXPECT_EQ(base64Decode("Zm9v"), "foo");
}

TEST(KeyName, OnlyTheSafeAlphabetNamesAKey) {
    for (const char* good : {"ci", "fleet-2026.a_1", "A", "0x"})
        EXPECT_TRUE(isValidKeyName(good)) << good;
    for (const char* bad : {"", ".hidden", "-flag", "a/b", "..", "a:b", "a b", "a\nb", "é"})
        EXPECT_FALSE(isValidKeyName(bad)) << bad;
    EXPECT_TRUE(isValidKeyName(std::string(keyNameLimit, 'k')));
    EXPECT_FALSE(isValidKeyName(std::string(keyNameLimit + 1, 'k')));
    EXPECT_THROW(generateKeyPair("../x"), std::invalid_argument);
}

TEST(PackSignature, ASignatureVerifiesWithTheKeyThatMadeIt) {
    const KeyPair ci = generateKeyPair("ci");
    const Signature signature = sign(message, ci);
    EXPECT_EQ(signature.keyName, "ci");
    const Verification result = verify(message, signatureText(signature), trusting({ci}));
    EXPECT_EQ(result.verdict, Verdict::Valid) << result.reason;
    EXPECT_EQ(result.keyName, "ci");
    EXPECT_EQ(result.reason, "");
}

TEST(PackSignature, AFlippedBitAnywhereIsABadSignature) {
    const KeyPair ci = generateKeyPair("ci");
    const Signature signature = sign(message, ci);
    const std::string text = signatureText(signature);
    for (const std::size_t byte : {std::size_t(0), message.size() / 2, message.size() - 1})
        EXPECT_EQ(verify(flipBit(message, byte), text, trusting({ci})).verdict,
                  Verdict::BadSignature)
            << "message byte " << byte;
    for (const std::size_t byte : {std::size_t(0), std::size_t(31), std::size_t(63)})
        EXPECT_EQ(verify(message, withFlippedSignature(signature, byte), trusting({ci})).verdict,
                  Verdict::BadSignature)
            << "signature byte " << byte;
    KeyPair changedKey = ci;
    changedKey.publicKey[5] ^= 0x10;
    EXPECT_EQ(verify(message, text, trusting({changedKey})).verdict, Verdict::BadSignature);
    // An empty message and a longer one are other messages too.
    EXPECT_EQ(verify("", text, trusting({ci})).verdict, Verdict::BadSignature);
    EXPECT_EQ(verify(message + "x", text, trusting({ci})).verdict, Verdict::BadSignature);
}

TEST(PackSignature, ASignatureCoversThePurposeAndTheKeyName) {
    const std::string bytes = signedBytes("ci", message);
    EXPECT_TRUE(bytes.ends_with(message));
    EXPECT_NE(bytes.find("pack signature"), std::string::npos);
    EXPECT_NE(bytes.find(std::string("\0ci\0", 4)), std::string::npos);
    EXPECT_NE(signedBytes("ci", message), signedBytes("cj", message));
}

TEST(PackSignature, AnUnlistedKeyIsUnknown) {
    const KeyPair ci = generateKeyPair("ci");
    const KeyPair other = generateKeyPair("other");
    const Verification result =
        verify(message, signatureText(sign(message, ci)), trusting({other}));
    EXPECT_EQ(result.verdict, Verdict::UnknownKey);
    EXPECT_EQ(result.keyName, "ci");
    EXPECT_NE(result.reason.find("'ci'"), std::string::npos);
    EXPECT_EQ(verify(message, signatureText(sign(message, ci)), TrustedKeys{}).verdict,
              Verdict::UnknownKey);
}

TEST(PackSignature, TheNameInTheSignatureChoosesTheOnlyKeyTried) {
    const KeyPair a = generateKeyPair("a");
    const KeyPair b = generateKeyPair("b");
    Signature byA = sign(message, a);
    // The list maps B's name to A's public key, and the file is relabelled
    // "b": A's signature must still not pass as B's.
    KeyPair aUnderB = a;
    aUnderB.name = "b";
    Signature relabelled = byA;
    relabelled.keyName = "b";
    EXPECT_EQ(verify(message, signatureText(relabelled), trusting({aUnderB})).verdict,
              Verdict::BadSignature);
    // With both listed, a signature naming "b" is tried with B's key only.
    EXPECT_EQ(verify(message, signatureText(relabelled), trusting({a, b})).verdict,
              Verdict::BadSignature);
    EXPECT_EQ(verify(message, signatureText(byA), trusting({a, b})).verdict, Verdict::Valid);
}

TEST(PackSignature, ATrustedListOfTwoKeysAcceptsEither) {
    const KeyPair old = generateKeyPair("fleet-2025");
    const KeyPair current = generateKeyPair("fleet-2026");
    const TrustedKeys both = trusting({old, current});
    EXPECT_EQ(both.keys.size(), 2u);
    EXPECT_EQ(verify(message, signatureText(sign(message, old)), both).verdict, Verdict::Valid);
    EXPECT_EQ(verify(message, signatureText(sign(message, current)), both).verdict, Verdict::Valid);
    // Retired: the old key's signatures stop verifying once it leaves the list.
    EXPECT_EQ(verify(message, signatureText(sign(message, old)), trusting({current})).verdict,
              Verdict::UnknownKey);
}

TEST(PackSignature, NoSignatureOrAMalformedOneGetsItsOwnVerdict) {
    const KeyPair ci = generateKeyPair("ci");
    const TrustedKeys trusted = trusting({ci});
    EXPECT_EQ(verify(message, std::nullopt, trusted).verdict, Verdict::Unsigned);
    const std::string good = signatureText(sign(message, ci));
    ASSERT_EQ(verify(message, good, trusted).verdict, Verdict::Valid);
    const std::string encoded = good.substr(good.find("signature=") + 10, 88);
    for (const std::string& bad : {
             std::string(),
             good.substr(0, good.size() - 1),                              // no final line feed
             "quor-pack-signature 2\n" + good.substr(22),                  // another format
             good + "extra=1\n",                                           // a line too many
             "quor-pack-signature 1\nsignature=" + encoded + "\nkey=ci\n", // order
             "quor-pack-signature 1\nkey=../ci\nsignature=" + encoded + "\n",
             "quor-pack-signature 1\nkey=ci\nsignature=" + encoded.substr(4) + "\n",
             "quor-pack-signature 1\nkey=ci\nsignature= " + encoded + "\n",
             "quor-pack-signature 1\r\nkey=ci\r\nsignature=" + encoded + "\r\n",
             std::string("\0\0\0", 3),
         }) {
        const Verification result = verify(message, bad, trusted);
        EXPECT_EQ(result.verdict, Verdict::Malformed) << bad;
        EXPECT_FALSE(result.reason.empty());
    }
}

TEST(TrustedKeys, AMalformedLineIsReportedAndTheOthersStayUsable) {
    const KeyPair a = generateKeyPair("a");
    const KeyPair b = generateKeyPair("b");
    const std::string aLine = publicKeyLine(a.name, a.publicKey);
    const std::string bLine = publicKeyLine(b.name, b.publicKey);
    const std::string list = "# fleet keys\n\n" + aLine + "nonsense\n" + "c:Zm9v\n" +
                             "-bad:" + aLine.substr(2) + " " + aLine + bLine;
    const TrustedKeys trusted = parseTrustedKeys(list);
    EXPECT_EQ(trusted.keys.size(), 2u);
    EXPECT_TRUE(trusted.keys.contains("a"));
    EXPECT_TRUE(trusted.keys.contains("b"));
    ASSERT_EQ(trusted.problems.size(), 4u);
    EXPECT_EQ(trusted.problems[0].line, 4u);
    EXPECT_EQ(trusted.problems[1].line, 5u);
    EXPECT_EQ(trusted.problems[2].line, 6u);
    EXPECT_EQ(trusted.problems[3].line, 7u);
    EXPECT_EQ(verify(message, signatureText(sign(message, b)), trusted).verdict, Verdict::Valid);
}

TEST(TrustedKeys, ANameListedWithDifferentKeysTrustsNone) {
    const KeyPair first = generateKeyPair("ci");
    const KeyPair second = generateKeyPair("ci");
    const KeyPair other = generateKeyPair("other");
    const TrustedKeys trusted = trusting({first, other, second, first});
    EXPECT_FALSE(trusted.keys.contains("ci"));
    EXPECT_TRUE(trusted.keys.contains("other"));
    ASSERT_EQ(trusted.problems.size(), 2u);
    EXPECT_EQ(trusted.problems[0].line, 3u);
    EXPECT_EQ(trusted.problems[1].line, 4u);
    EXPECT_EQ(verify(message, signatureText(sign(message, first)), trusted).verdict,
              Verdict::UnknownKey);
    EXPECT_EQ(verify(message, signatureText(sign(message, second)), trusted).verdict,
              Verdict::UnknownKey);
    // The same key twice under one name is one key.
    const TrustedKeys repeated = trusting({first, first});
    EXPECT_TRUE(repeated.keys.contains("ci"));
    EXPECT_TRUE(repeated.problems.empty());
}

TEST(TrustedKeys, AFifoOrAHugeFileIsRefusedUnread) {
    const TemporaryDirectory directory("pack-signature");
    const fs::path fifo = directory.path() / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // Nobody ever writes to the FIFO: a reader that waited would hang here.
    EXPECT_THROW(readTrustedKeys(fifo), KeyFileError);
    EXPECT_THROW(readSignatureFile(fifo), KeyFileError);
    EXPECT_THROW(readSecretKey(fifo), KeyFileError);

    const fs::path huge = directory.path() / "huge";
    writeFile(huge, "");
    fs::resize_file(huge, std::uintmax_t(64) << 30); // sparse: costs no disk
    EXPECT_THROW(readTrustedKeys(huge), KeyFileError);
    EXPECT_THROW(readSignatureFile(huge), KeyFileError);

    const fs::path justOver = directory.path() / "just-over";
    writeFile(justOver, std::string(trustedKeysLimit + 1, '#'));
    EXPECT_THROW(readTrustedKeys(justOver), KeyFileError);
    writeFile(justOver, std::string(trustedKeysLimit, '#'));
    EXPECT_TRUE(readTrustedKeys(justOver).keys.empty());

    EXPECT_THROW(readTrustedKeys(directory.path() / "missing"), KeyFileError);
    EXPECT_EQ(readSignatureFile(directory.path() / "missing"), std::nullopt);
}

TEST(KeyFiles, AGeneratedPairReadsBackAndSigns) {
    const TemporaryDirectory directory("pack-signature");
    const KeyPair pair = generateKeyPair("ci");
    const KeyFiles files = writeKeyPair(pair, directory.path());
    EXPECT_EQ(files.secretFile, directory.path() / "ci.secret");
    EXPECT_EQ(files.publicFile, directory.path() / "ci.public");
    EXPECT_EQ(readFile(files.publicFile), publicKeyLine("ci", pair.publicKey));
    const std::string secret = readFile(files.secretFile);
    EXPECT_TRUE(secret.starts_with("# quor signing key 1"));
    const KeyPair read = readSecretKey(files.secretFile);
    EXPECT_EQ(read.name, "ci");
    EXPECT_EQ(read.seed, pair.seed);
    EXPECT_EQ(read.publicKey, pair.publicKey);
    const TrustedKeys trusted = readTrustedKeys(files.publicFile);
    EXPECT_EQ(verify(message, signatureText(sign(message, read)), trusted).verdict, Verdict::Valid);
    // Two pairs never share a seed.
    EXPECT_NE(generateKeyPair("ci").seed, pair.seed);
}

TEST(KeyFiles, TheSecretIsMode0600AndThePublicKeyWritableOnlyByItsOwnerWhateverTheUmask) {
    for (const mode_t mask : {mode_t(0), mode_t(022), mode_t(0277), mode_t(077)}) {
        SCOPED_TRACE(mask);
        const TemporaryDirectory directory("pack-signature");
        const Umask umask(mask);
        const KeyFiles files = writeKeyPair(generateKeyPair("ci"), directory.path());
        EXPECT_EQ(modeOf(files.secretFile), mode_t(0600));
        EXPECT_EQ(modeOf(files.publicFile), mode_t(0644));
    }
}

TEST(KeyFiles, AnExistingKeyFileIsNeverReplaced) {
    const TemporaryDirectory directory("pack-signature");
    const KeyPair first = generateKeyPair("ci");
    writeKeyPair(first, directory.path());
    const std::string secret = readFile(directory.path() / "ci.secret");
    EXPECT_THROW(writeKeyPair(generateKeyPair("ci"), directory.path()), KeyExistsError);
    EXPECT_EQ(readFile(directory.path() / "ci.secret"), secret);

    // Only the public file, or only a link where the secret goes: refused,
    // nothing written, nothing followed.
    writeFile(directory.path() / "lone.public", "kept\n");
    EXPECT_THROW(writeKeyPair(generateKeyPair("lone"), directory.path()), KeyExistsError);
    EXPECT_FALSE(fs::exists(directory.path() / "lone.secret"));
    EXPECT_EQ(readFile(directory.path() / "lone.public"), "kept\n");
    fs::create_symlink(directory.path() / "elsewhere", directory.path() / "link.secret");
    EXPECT_THROW(writeKeyPair(generateKeyPair("link"), directory.path()), KeyExistsError);
    EXPECT_FALSE(fs::exists(directory.path() / "elsewhere"));
    EXPECT_FALSE(fs::exists(directory.path() / "link.public"));
}

TEST(KeyFiles, ConcurrentWritersOfOneNameLeaveOneWholePair) {
    const TemporaryDirectory directory("pack-signature");
    std::atomic<int> written{0};
    std::atomic<int> refused{0};
    std::vector<std::thread> writers;
    for (int i = 0; i < 8; ++i)
        writers.emplace_back([&] {
            try {
                writeKeyPair(generateKeyPair("race"), directory.path());
                ++written;
            } catch (const KeyFileError&) {
                ++refused;
            }
        });
    for (std::thread& writer : writers)
        writer.join();
    EXPECT_LE(written.load(), 1);
    EXPECT_EQ(written + refused, 8);
    if (written == 1) {
        const KeyPair pair = readSecretKey(directory.path() / "race.secret");
        EXPECT_EQ(readFile(directory.path() / "race.public"),
                  publicKeyLine("race", pair.publicKey));
    }
}

TEST(KeyFiles, AMalformedSecretKeyFileIsRefused) {
    const TemporaryDirectory directory("pack-signature");
    const KeyPair pair = generateKeyPair("ci");
    const std::string good = secretKeyText(pair);
    ASSERT_TRUE(parseSecretKey(good).has_value());
    const fs::path file = directory.path() / "ci.secret";
    for (const std::string& bad : {
             std::string(),
             good.substr(good.find('\n') + 1),        // no header
             good.substr(0, good.size() - 1),         // no final line feed
             good + "ci:" + base64Encode("x") + "\n", // a line too many
             flipBit(good, good.size() - 3, 6),       // not canonical base64
             publicKeyLine("ci", pair.publicKey),     // a public key file
         }) {
        std::string reason;
        EXPECT_FALSE(parseSecretKey(bad, &reason).has_value()) << bad;
        EXPECT_FALSE(reason.empty());
        writeFile(file, bad);
        EXPECT_THROW(readSecretKey(file), KeyFileError);
    }
}

TEST(KeyFiles, ABadNameWritesNothing) {
    const TemporaryDirectory directory("pack-signature");
    KeyPair pair = generateKeyPair("ci");
    for (const char* bad : {"../escape", ".hidden", "a/b", ""}) {
        pair.name = bad;
        EXPECT_THROW(writeKeyPair(pair, directory.path()), std::invalid_argument) << bad;
    }
    EXPECT_TRUE(fs::is_empty(directory.path()));
}

} // namespace
} // namespace quor::compiler::signature
