// SHA-256 as the precompiler uses it, through the libcrypto wrapper: the
// published digests of the standard test messages, and the same digests
// however the input is cut into update() calls. The expected values are the
// published ones (FIPS 180-2 appendix B and the NIST example messages), never
// anything this code computed.

#include "compiler/Sha256.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <utility>

namespace {

using quor::compiler::Sha256;

constexpr std::string_view kEmptyDigest =
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

constexpr std::string_view kAbc = "abc";
constexpr std::string_view kAbcDigest =
    "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

// 448 bits: too long for its padding to fit the first block, so the digest
// takes two compressions.
constexpr std::string_view kTwoBlocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
constexpr std::string_view kTwoBlocksDigest =
    "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1";

// 896 bits: the message itself crosses the first block boundary.
constexpr std::string_view kLong = "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmn"
                                   "hijklmnoijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu";
constexpr std::string_view kLongDigest =
    "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1";

constexpr std::string_view kMillionADigest =
    "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";

std::string digestOfPieces(std::initializer_list<std::string_view> pieces) {
    Sha256 hash;
    for (std::string_view piece : pieces) {
        hash.update(piece);
    }
    return Sha256::toHex(hash.finish());
}

TEST(Sha256Test, MatchesThePublishedDigests) {
    EXPECT_EQ(Sha256::hex(""), kEmptyDigest);
    EXPECT_EQ(Sha256::hex(kAbc), kAbcDigest);
    EXPECT_EQ(Sha256::hex(kTwoBlocks), kTwoBlocksDigest);
    EXPECT_EQ(Sha256::hex(kLong), kLongDigest);
    EXPECT_EQ(Sha256::hex(std::string(1000000, 'a')), kMillionADigest);
}

TEST(Sha256Test, TheStandardMessagesAreTheLengthsTheirDigestsBelongTo) {
    // A typo in a message would make its digest check fail for the wrong
    // reason; the published lengths pin the messages themselves.
    EXPECT_EQ(kTwoBlocks.size() * 8, 448u);
    EXPECT_EQ(kLong.size() * 8, 896u);
}

TEST(Sha256Test, NoUpdateAndEmptyUpdatesGiveTheEmptyDigest) {
    EXPECT_EQ(digestOfPieces({}), kEmptyDigest);
    EXPECT_EQ(digestOfPieces({"", "", ""}), kEmptyDigest);
}

TEST(Sha256Test, EverySplitOfTheStandardMessagesGivesTheirDigest) {
    const std::pair<std::string_view, std::string_view> vectors[] = {
        {kAbc, kAbcDigest}, {kTwoBlocks, kTwoBlocksDigest}, {kLong, kLongDigest}};
    for (const auto& [message, digest] : vectors) {
        for (std::size_t at = 0; at <= message.size(); ++at) {
            EXPECT_EQ(digestOfPieces({message.substr(0, at), message.substr(at)}), digest)
                << "split of the " << message.size() << "-byte message at " << at;
        }
    }
}

TEST(Sha256Test, EveryThreeWaySplitOfTheLongMessageGivesItsDigest) {
    // Two cuts anywhere: one piece may end inside a block, on its boundary or
    // reach across it, and empty pieces come in between.
    for (std::size_t first = 0; first <= kLong.size(); ++first) {
        for (std::size_t second = first; second <= kLong.size(); ++second) {
            EXPECT_EQ(digestOfPieces({kLong.substr(0, first), kLong.substr(first, second - first),
                                      kLong.substr(second)}),
                      kLongDigest)
                << "cuts at " << first << " and " << second;
        }
    }
}

TEST(Sha256Test, ByteByByteUpdatesGiveTheDigestOfTheWhole) {
    for (const auto& [message, digest] :
         {std::pair{kTwoBlocks, kTwoBlocksDigest}, std::pair{kLong, kLongDigest}}) {
        Sha256 hash;
        for (char byte : message) {
            hash.update(std::string_view(&byte, 1));
        }
        EXPECT_EQ(Sha256::toHex(hash.finish()), digest) << message.size() << " bytes";
    }
}

TEST(Sha256Test, GivesTheSameDigestHoweverTheInputIsSplit) {
    std::string message;
    for (int i = 0; i < 1000; ++i) {
        message += static_cast<char>(i * 7 + 3);
    }
    const std::string whole = Sha256::hex(message);
    for (std::size_t piece : {1u, 3u, 63u, 64u, 65u, 127u, 999u}) {
        Sha256 hash;
        for (std::size_t at = 0; at < message.size(); at += piece) {
            hash.update(std::string_view(message).substr(at, piece));
        }
        EXPECT_EQ(Sha256::toHex(hash.finish()), whole) << piece;
    }
}

TEST(Sha256Test, MatchesTheMillionAVectorFedInPieces) {
    // FIPS 180-2, appendix B.3: one million repetitions of 'a'.
    Sha256 hash;
    const std::string block(1000, 'a');
    for (int i = 0; i < 1000; ++i) {
        hash.update(block);
    }
    EXPECT_EQ(Sha256::toHex(hash.finish()), kMillionADigest);
}

TEST(Sha256Test, AMovedHashCarriesOnWithWhatItWasGiven) {
    // The digest context lives behind a pointer; a move must hand over the
    // state, not restart it.
    Sha256 first;
    first.update(kLong.substr(0, 70));
    Sha256 second(std::move(first));
    second.update(kLong.substr(70, 20));
    Sha256 third;
    third = std::move(second);
    third.update(kLong.substr(90));
    EXPECT_EQ(Sha256::toHex(third.finish()), kLongDigest);
}

TEST(Sha256Test, HashesThatRunSideBySideDoNotShareState) {
    Sha256 abc;
    Sha256 longer;
    abc.update("a");
    longer.update(kLong.substr(0, 64));
    abc.update("bc");
    longer.update(kLong.substr(64));
    EXPECT_EQ(Sha256::toHex(longer.finish()), kLongDigest);
    EXPECT_EQ(Sha256::toHex(abc.finish()), kAbcDigest);
}

} // namespace
