// The readiness marker's bytes and reading rules, checked through
// StandardLibraryCacheState::isReady() on markers written by hand and through
// markReady().

#include "compiler/StandardLibraryCacheState.h"
#include "tests/bootstrap/TestSupport.h"

#include <gtest/gtest.h>

#include <string>

namespace quor::testing {
namespace {

using compiler::StandardLibraryCacheState;

const std::string kHeader = "QUOR_STANDARD_LIBRARY_CACHE\n";

class CacheMarker : public ::testing::Test {
protected:
    // Writes `bytes` as the marker and asks a state with this identity.
    bool readyWith(const std::string& bytes, const std::string& version = "0.1.6", int abi = 3,
                   const std::string& fingerprint = "abc") {
        writeFile(dir() / ".quor-stdlib-ready", bytes);
        return StandardLibraryCacheState(dir(), version, abi, fingerprint).isReady();
    }

    static std::string marker(const std::string& formatLine, const std::string& versionLine,
                              const std::string& abiLine, const std::string& fingerprintLine) {
        return kHeader + formatLine + "\n" + versionLine + "\n" + abiLine + "\n" + fingerprintLine +
               "\n";
    }

    fs::path dir() const { return temp.path() / "cache"; }

    TemporaryDirectory temp;
};

const std::string kValid = "QUOR_STANDARD_LIBRARY_CACHE\nformat=1\nversion=0.1.6\nabi=3\n"
                           "fingerprint=abc\n";

TEST_F(CacheMarker, HandWrittenMarkerValidatesForItsIdentity) {
    EXPECT_TRUE(readyWith(kValid));
}

TEST_F(CacheMarker, WrittenMarkerValidatesForSameIdentity) {
    const StandardLibraryCacheState state(dir(), "0.1.6", 7, "f00d");
    state.markReady();
    EXPECT_TRUE(state.isReady());
}

TEST_F(CacheMarker, VersionWithSurroundingWhitespaceNeverValidates) {
    for (const std::string version : {" 0.1.6", "0.1.6 ", "\t0.1.6", "0.1.6\r", "\n0.1.6"}) {
        TemporaryDirectory scratch;
        const StandardLibraryCacheState state(scratch.path() / "c", version, 3, "abc");
        state.markReady();
        EXPECT_FALSE(state.isReady()) << "version [" << version << "]";
    }
}

TEST_F(CacheMarker, FingerprintWithSurroundingWhitespaceNeverValidates) {
    for (const std::string fingerprint : {" abc", "abc ", "abc\t", "\rabc", "abc\r"}) {
        TemporaryDirectory scratch;
        const StandardLibraryCacheState state(scratch.path() / "c", "0.1.6", 3, fingerprint);
        state.markReady();
        EXPECT_FALSE(state.isReady()) << "fingerprint [" << fingerprint << "]";
    }
}

TEST_F(CacheMarker, FingerprintHoldingLineFeedNeverValidates) {
    const StandardLibraryCacheState state(dir(), "0.1.6", 3, "ab\ncd");
    state.markReady();
    EXPECT_FALSE(state.isReady());
}

TEST_F(CacheMarker, FormatWithLeadingSpaceIsValid) {
    EXPECT_TRUE(readyWith(marker("format= 1", "version=0.1.6", "abi=3", "fingerprint=abc")));
}

TEST_F(CacheMarker, FormatWithTrailingSpaceIsValid) {
    EXPECT_TRUE(readyWith(marker("format=1 ", "version=0.1.6", "abi=3", "fingerprint=abc")));
}

TEST_F(CacheMarker, FormatWithTrailingCarriageReturnIsValid) {
    EXPECT_TRUE(readyWith(marker("format=1\r", "version=0.1.6", "abi=3", "fingerprint=abc")));
}

TEST_F(CacheMarker, FormatWithLeadingZeroIsInvalid) {
    EXPECT_FALSE(readyWith(marker("format=01", "version=0.1.6", "abi=3", "fingerprint=abc")));
}

TEST_F(CacheMarker, FormatWithPlusSignIsInvalid) {
    EXPECT_FALSE(readyWith(marker("format=+1", "version=0.1.6", "abi=3", "fingerprint=abc")));
}

TEST_F(CacheMarker, CapitalisedFormatKeyIsInvalid) {
    EXPECT_FALSE(readyWith(marker("Format=1", "version=0.1.6", "abi=3", "fingerprint=abc")));
}

TEST_F(CacheMarker, OtherFormatNumberIsInvalid) {
    EXPECT_FALSE(readyWith(marker("format=2", "version=0.1.6", "abi=3", "fingerprint=abc")));
}

TEST_F(CacheMarker, NegativeAbiIsValidForNegativeNumber) {
    EXPECT_TRUE(
        readyWith(marker("format=1", "version=0.1.6", "abi=-3", "fingerprint=abc"), "0.1.6", -3));
}

TEST_F(CacheMarker, AbiWithPlusSignIsInvalid) {
    EXPECT_FALSE(readyWith(marker("format=1", "version=0.1.6", "abi=+3", "fingerprint=abc")));
}

TEST_F(CacheMarker, AbiWithLeadingZeroIsInvalid) {
    EXPECT_FALSE(readyWith(marker("format=1", "version=0.1.6", "abi=03", "fingerprint=abc")));
}

TEST_F(CacheMarker, ValuesReadFromFileAreTrimmed) {
    EXPECT_TRUE(
        readyWith(marker("format=\t1 ", "version= 0.1.6\t", "abi=3 \r", "fingerprint=\tabc \r")));
}

TEST_F(CacheMarker, ExtremeAbiNumbersValidate) {
    EXPECT_TRUE(readyWith(marker("format=1", "version=0.1.6", "abi=2147483647", "fingerprint=abc"),
                          "0.1.6", 2147483647));
    EXPECT_TRUE(readyWith(marker("format=1", "version=0.1.6", "abi=-2147483648", "fingerprint=abc"),
                          "0.1.6", -2147483647 - 1));
}

TEST_F(CacheMarker, SpaceBeforeVersionKeyIsInvalid) {
    EXPECT_FALSE(readyWith(marker("format=1", " version=0.1.6", "abi=3", "fingerprint=abc")));
}

TEST_F(CacheMarker, SpaceBeforeEqualsSignIsInvalid) {
    EXPECT_FALSE(readyWith(marker("format=1", "version =0.1.6", "abi=3", "fingerprint=abc")));
}

TEST_F(CacheMarker, CarriageReturnLineFeedEndingsAreInvalid) {
    EXPECT_FALSE(readyWith("QUOR_STANDARD_LIBRARY_CACHE\r\nformat=1\r\nversion=0.1.6\r\n"
                           "abi=3\r\nfingerprint=abc\r\n"));
}

TEST_F(CacheMarker, CarriageReturnsOnValueLinesAloneAreAccepted) {
    EXPECT_TRUE(readyWith("QUOR_STANDARD_LIBRARY_CACHE\nformat=1\r\nversion=0.1.6\r\n"
                          "abi=3\r\nfingerprint=abc\r\n"));
}

TEST_F(CacheMarker, HeaderIsNotTrimmed) {
    EXPECT_FALSE(readyWith("QUOR_STANDARD_LIBRARY_CACHE \nformat=1\nversion=0.1.6\nabi=3\n"
                           "fingerprint=abc\n"));
    EXPECT_FALSE(readyWith(" QUOR_STANDARD_LIBRARY_CACHE\nformat=1\nversion=0.1.6\nabi=3\n"
                           "fingerprint=abc\n"));
}

TEST_F(CacheMarker, LowerCaseHeaderIsInvalid) {
    EXPECT_FALSE(readyWith("quor_standard_library_cache\nformat=1\nversion=0.1.6\nabi=3\n"
                           "fingerprint=abc\n"));
}

TEST_F(CacheMarker, KeysInAnotherOrderAreInvalid) {
    EXPECT_FALSE(readyWith(marker("format=1", "abi=3", "version=0.1.6", "fingerprint=abc")));
    EXPECT_FALSE(readyWith(marker("version=0.1.6", "format=1", "abi=3", "fingerprint=abc")));
}

TEST_F(CacheMarker, EmptyExpectedVersionAcceptsLineWithoutVersionKey) {
    EXPECT_TRUE(readyWith(marker("format=1", "something else", "abi=3", "fingerprint=abc"), ""));
}

TEST_F(CacheMarker, EmptyExpectedVersionAcceptsEmptyVersionValue) {
    EXPECT_TRUE(readyWith(marker("format=1", "version=", "abi=3", "fingerprint=abc"), ""));
}

TEST_F(CacheMarker, EmptyExpectedFingerprintAcceptsLineWithoutFingerprintKey) {
    EXPECT_TRUE(readyWith(marker("format=1", "version=0.1.6", "abi=3", "fp=abc"), "0.1.6", 3, ""));
    EXPECT_TRUE(
        readyWith(marker("format=1", "version=0.1.6", "abi=3", "fingerprint="), "0.1.6", 3, ""));
}

TEST_F(CacheMarker, EmptyFifthLineIsReadForEmptyFingerprint) {
    EXPECT_TRUE(readyWith(kHeader + "format=1\nversion=0.1.6\nabi=3\n\n", "0.1.6", 3, ""));
}

TEST_F(CacheMarker, EmptyExpectedVersionRejectsOtherVersion) {
    EXPECT_FALSE(readyWith(kValid, ""));
}

TEST_F(CacheMarker, FourLinesAreInvalid) {
    EXPECT_FALSE(readyWith(kHeader + "format=1\nversion=0.1.6\nabi=3\n", "0.1.6", 3, ""));
}

TEST_F(CacheMarker, FifthLineWithoutLineFeedIsValid) {
    EXPECT_TRUE(readyWith(kHeader + "format=1\nversion=0.1.6\nabi=3\nfingerprint=abc"));
}

TEST_F(CacheMarker, ExtraLinesAfterFifthAreIgnored) {
    EXPECT_TRUE(readyWith(kValid + "fingerprint=other\nanything\n"));
}

TEST_F(CacheMarker, EmptyFileIsInvalid) {
    EXPECT_FALSE(readyWith("", "", 0, ""));
}

TEST_F(CacheMarker, HeaderOnlyIsInvalid) {
    EXPECT_FALSE(readyWith(kHeader, "", 0, ""));
    EXPECT_FALSE(readyWith("QUOR_STANDARD_LIBRARY_CACHE", "", 0, ""));
}

TEST_F(CacheMarker, VerticalTabIsNotTrimmedFromValues) {
    EXPECT_FALSE(readyWith(marker("format=1", "version=0.1.6\v", "abi=3", "fingerprint=abc")));
    EXPECT_FALSE(readyWith(marker("format=1\f", "version=0.1.6", "abi=3", "fingerprint=abc")));
}

TEST_F(CacheMarker, InteriorWhitespaceIsKept) {
    EXPECT_TRUE(readyWith(marker("format=1", "version=0.1 .6", "abi=3", "fingerprint= a b "),
                          "0.1 .6", 3, "a b"));
    EXPECT_FALSE(
        readyWith(marker("format=1", "version=0.1 .6", "abi=3", "fingerprint=abc"), "0.1.6"));
}

TEST_F(CacheMarker, WrongValueInAnyLineIsInvalid) {
    EXPECT_FALSE(readyWith(marker("format=1", "version=0.1.7", "abi=3", "fingerprint=abc")));
    EXPECT_FALSE(readyWith(marker("format=1", "version=0.1.6", "abi=4", "fingerprint=abc")));
    EXPECT_FALSE(readyWith(marker("format=1", "version=0.1.6", "abi=3", "fingerprint=abd")));
    EXPECT_FALSE(readyWith(marker("format=1", "version=0.1.6", "abi=3", "fingerprint=ab")));
}

} // namespace
} // namespace quor::testing
