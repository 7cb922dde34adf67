// The pack of a library cache (compiler/LibraryPack.h): what the writer makes
// the reader takes back byte for byte, the signed text is the pack's prefix and
// covers every object, and the reader refuses each kind of hostile input for
// its own reason. Each refusal starts from a pack the reader accepts and
// changes one thing about it, so that only the check the case is named for can
// refuse it.

#include "compiler/LibraryPack.h"
#include "compiler/Compiler.h"
#include "compiler/Sha256.h"
#include "compiler/UnitCompiler.h"
#include "tests/services/ServicesTestSupport.h"

#include <gtest/gtest.h>

#include <string>

namespace quor::test {
namespace {

namespace pack = compiler::pack;
using compiler::Compiler;
using compiler::Sha256;

const std::string textA = "package core\n\npublic fn four() -> Int {\n    return 4\n}\n";
const std::string textB = "package io\n\npublic fn five() -> Int {\n    return 5\n}\n";
const std::string textC = "public fn six() -> Int {\n    return 6\n}\n";

pack::Pack samplePack() {
    pack::Pack sample;
    sample.identity = {"0.1.6", Compiler::objectAbiVersion(), std::string(64, 'a')};
    // Added out of order: addUnit() keeps them sorted.
    for (const auto& [path, text] :
         {std::pair{std::string("io/B.qr"), textB}, std::pair{std::string("Prelude.qr"), textC},
          std::pair{std::string("core/A.qr"), textA}})
        pack::addUnit(sample, path, text.size(), Sha256::hex(text),
                      compiler::compileUnit(text, path, Compiler::objectAbiVersion()));
    return sample;
}

// `bytes` with the first `from` replaced by `to`; the test fails when there is
// none, since the case would then change nothing.
std::string replaced(std::string bytes, const std::string& from, const std::string& to) {
    const std::size_t at = bytes.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos)
        bytes.replace(at, from.size(), to);
    return bytes;
}

// The reader's reason for refusing `bytes`; "" when it accepts them.
std::string refusalOf(const std::string& bytes) {
    pack::Pack decoded;
    return pack::decode(bytes, decoded);
}

class LibraryPackTest : public ::testing::Test {
protected:
    const pack::Pack sample_ = samplePack();
    const std::string bytes_ = pack::encode(sample_);

    // The pack with one unit path in its manifest written as `path`.
    std::string withPath(const std::string& path) const {
        return replaced(bytes_, "\tcore/A.qr\t", "\t" + path + "\t");
    }
};

TEST_F(LibraryPackTest, WhatTheWriterWritesTheReaderReadsBackByteForByte) {
    pack::Pack decoded;
    ASSERT_EQ(pack::decode(bytes_, decoded), "");
    EXPECT_EQ(decoded, sample_);
    EXPECT_EQ(pack::encode(decoded), bytes_);
    ASSERT_EQ(decoded.units.size(), 3u);
    EXPECT_EQ(decoded.units[0].path, "Prelude.qr");
    EXPECT_EQ(decoded.units[1].path, "core/A.qr");
    EXPECT_EQ(decoded.units[2].path, "io/B.qr");
}

TEST_F(LibraryPackTest, AUnitPathWithATabRoundTripsEscaped) {
    pack::Pack sample;
    sample.identity = sample_.identity;
    pack::addUnit(sample, "odd\tname.qr", textC.size(), Sha256::hex(textC),
                  compiler::compileUnit(textC, "odd\tname.qr", Compiler::objectAbiVersion()));
    const std::string bytes = pack::encode(sample);
    EXPECT_NE(bytes.find("\todd\\tname.qr\t"), std::string::npos);
    pack::Pack decoded;
    ASSERT_EQ(pack::decode(bytes, decoded), "");
    EXPECT_EQ(decoded, sample);
}

TEST_F(LibraryPackTest, TheSignedTextIsEverythingBeforeTheObjects) {
    const std::string signedText = pack::signedText(sample_);
    EXPECT_TRUE(bytes_.starts_with(signedText));
    EXPECT_EQ(pack::signedLength(bytes_), signedText.size());
    std::string objects;
    for (const std::string& object : sample_.objects)
        objects += object;
    EXPECT_EQ(bytes_.substr(signedText.size()), objects);
}

TEST_F(LibraryPackTest, TheSignedTextChangesWithEveryObjectAndTheIdentity) {
    const std::string original = pack::signedText(sample_);
    for (std::size_t i = 0; i < sample_.objects.size(); ++i) {
        pack::Pack changed = sample_;
        changed.objects[i] += "x";
        changed.units[i].objectSize = changed.objects[i].size();
        changed.units[i].objectSha256 = Sha256::hex(changed.objects[i]);
        EXPECT_NE(pack::signedText(changed), original) << i;
    }
    pack::Pack otherAbi = sample_;
    otherAbi.identity.abi += 1;
    EXPECT_NE(pack::signedText(otherAbi), original);
    pack::Pack otherLibrary = sample_;
    otherLibrary.identity.fingerprint = std::string(64, 'b');
    EXPECT_NE(pack::signedText(otherLibrary), original);
}

TEST_F(LibraryPackTest, TheWriterRefusesAPackTheReaderWouldRefuse) {
    pack::Pack changed = sample_;
    changed.objects[0] += "x";
    EXPECT_THROW(pack::encode(changed), std::invalid_argument);
    EXPECT_NE(pack::packProblem(changed), "");
    pack::Pack badPath = sample_;
    badPath.units[0].path = "../Prelude.qr";
    EXPECT_THROW(pack::encode(badPath), std::invalid_argument);
}

TEST_F(LibraryPackTest, RefusesBytesThatAreNotAPack) {
    EXPECT_EQ(refusalOf("QUOR-OBJECT\t2\n"), "not a Quor library pack");
    EXPECT_EQ(refusalOf(""), "not a Quor library pack");
}

TEST_F(LibraryPackTest, RefusesAnotherFormatNumber) {
    EXPECT_NE(refusalOf(replaced(bytes_, "format=1\n", "format=2\n")).find("pack format"),
              std::string::npos);
}

TEST_F(LibraryPackTest, RefusesAnAbsoluteUnitPath) {
    EXPECT_EQ(refusalOf(withPath("/core/A.qr")), "a unit path is absolute");
}

TEST_F(LibraryPackTest, RefusesADotDotComponent) {
    EXPECT_EQ(refusalOf(withPath("core/../A.qr")),
              "a unit path has an empty, '.' or '..' component");
}

TEST_F(LibraryPackTest, RefusesADotComponent) {
    EXPECT_EQ(refusalOf(withPath("core/./A.qr")),
              "a unit path has an empty, '.' or '..' component");
}

TEST_F(LibraryPackTest, RefusesAnEmptyComponent) {
    EXPECT_EQ(refusalOf(withPath("core//A.qr")), "a unit path has an empty, '.' or '..' component");
}

TEST_F(LibraryPackTest, RefusesABackslash) {
    EXPECT_EQ(refusalOf(withPath("core\\A.qr")), "a unit path holds a backslash");
    EXPECT_EQ(pack::unitPathProblem("core\\A.qr"), "a unit path holds a backslash");
}

TEST_F(LibraryPackTest, RefusesANulByte) {
    EXPECT_EQ(refusalOf(withPath(std::string("core/A\0.qr", 10))), "a unit path holds a NUL byte");
}

TEST_F(LibraryPackTest, RefusesAPathThatDoesNotEndInQr) {
    EXPECT_EQ(refusalOf(withPath("core/A.qs")), "a unit path does not end in .qr");
}

TEST_F(LibraryPackTest, RefusesAUnitListedTwice) {
    // The unit after core/A.qr renamed to it, its object unchanged.
    EXPECT_EQ(refusalOf(replaced(bytes_, "\tio/B.qr\t", "\tcore/A.qr\t")),
              "a unit is listed twice");
}

TEST_F(LibraryPackTest, RefusesUnitsOutOfOrder) {
    EXPECT_EQ(refusalOf(replaced(bytes_, "\tio/B.qr\t", "\tcore/0.qr\t")),
              "the units are not sorted by path");
}

TEST_F(LibraryPackTest, RefusesObjectSizesThatAddUpToMoreThanThePackHolds) {
    const std::string size = "\t" + std::to_string(sample_.units[2].objectSize) + "\t";
    const std::size_t line = bytes_.find("\tio/B.qr\t");
    std::string bytes = bytes_;
    const std::size_t at = bytes.find(size, line + 1);
    bytes.replace(at, size.size(), "\t" + std::to_string(sample_.units[2].objectSize + 1) + "\t");
    EXPECT_EQ(refusalOf(bytes), "the objects' sizes add up to more than the pack holds");
}

TEST_F(LibraryPackTest, RefusesBytesAfterTheLastObject) {
    EXPECT_EQ(refusalOf(bytes_ + "x"), "bytes follow the last object");
}

TEST_F(LibraryPackTest, RefusesAnObjectThatDoesNotHashToItsManifestEntry) {
    std::string bytes = bytes_;
    bytes.back() = bytes.back() == 'x' ? 'y' : 'x';
    EXPECT_NE(refusalOf(bytes).find("does not hash to the manifest's SHA-256"), std::string::npos);
}

TEST_F(LibraryPackTest, RefusesAUnitCountThePackHasNoRoomFor) {
    // A count within the limit, far beyond the bytes: refused before anything
    // is set aside for it.
    EXPECT_EQ(refusalOf(replaced(bytes_, "units=3\n", "units=1000000\n")),
              "the unit count is more than the pack has room for");
}

TEST_F(LibraryPackTest, RefusesAUnitCountOverTheLimit) {
    EXPECT_NE(refusalOf(replaced(bytes_, "units=3\n",
                                 "units=" + std::to_string(pack::maxUnits + 1) + "\n"))
                  .find("more than"),
              std::string::npos);
}

TEST_F(LibraryPackTest, RefusesAnObjectOverTheLimit) {
    const std::string size = "\t" + std::to_string(sample_.units[0].objectSize) + "\t";
    EXPECT_EQ(
        refusalOf(replaced(bytes_, size, "\t" + std::to_string(pack::maxObjectBytes + 1) + "\t")),
        "an object is larger than " + std::to_string(pack::maxObjectBytes) + " bytes");
}

TEST_F(LibraryPackTest, RefusesANumberWithALeadingZero) {
    const std::string size = "\t" + std::to_string(sample_.units[0].objectSize) + "\t";
    EXPECT_EQ(refusalOf(replaced(bytes_, size, "\t0" + size.substr(1))),
              "a size is not a decimal number");
}

TEST_F(LibraryPackTest, RefusesAManifestCutShort) {
    // Room enough for the count, but no whole line where the last unit belongs.
    EXPECT_EQ(refusalOf(bytes_.substr(0, bytes_.find("unit\tio/B.qr\t")) + std::string(400, 'x')),
              "the manifest ends before its last unit");
}

TEST_F(LibraryPackTest, RefusesAnIdentityValueThatIsNotPrintable) {
    EXPECT_NE(refusalOf(replaced(bytes_, "version=0.1.6\n", "version=0.1.6 x\n")).find("version"),
              std::string::npos);
}

TEST_F(LibraryPackTest, ItsObjectsInstallOnlyOverTheUnitsTheyWereBuiltFrom) {
    TemporaryDirectory directory;
    const fs::path library = directory.path() / "lib";
    writeFile(library / "core/A.qr", textA);
    writeFile(library / "io/B.qr", textB + "// changed\n");
    // Prelude.qr is not in this library.
    ScopedRuntime runtime({library.native(), (directory.path() / "cache").native(), 1});
    const std::vector<pack::InstallCheck> checks = pack::checkInstall(sample_);
    ASSERT_EQ(checks.size(), 3u);
    EXPECT_FALSE(checks[0].installable);
    EXPECT_TRUE(checks[1].installable) << checks[1].problem;
    EXPECT_EQ(checks[1].object,
              fs::path(compiler::Runtime::getInstance().getLibCachePath()) / "core/A.qo");
    EXPECT_FALSE(checks[2].installable);
    EXPECT_EQ(checks[2].problem,
              "the library's unit holds other bytes than the pack was built from");
}

} // namespace
} // namespace quor::test
