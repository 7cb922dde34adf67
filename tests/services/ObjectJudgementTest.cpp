// judgeObject() and readAbiRecord() on real files, one check at a time.
//
// A build reuses an object only when judgeObject() calls it sound, so each of
// its checks is the only thing between a user and a wrong object. Each case
// below starts from a sound object and changes exactly one thing about it; where
// the change is not about the checksum, the object is sealed again with a
// checksum that matches, so that no earlier or later check can refuse it in the
// place of the one the case is about.

#include "compiler/Compiler.h"
#include "compiler/ObjectCache.h"
#include "compiler/Sha256.h"
#include "compiler/UnitCompiler.h"
#include "tests/services/ServicesTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace quor::test {
namespace {

using compiler::Compiler;
using compiler::compileUnit;
using compiler::judgeObject;
using compiler::ObjectJudgement;
using compiler::ObjectVerdict;
using compiler::readAbiRecord;
using compiler::Sha256;

// Two units of one package whose texts are the same bytes: only the unit an
// object records tells their objects apart.
const std::string sharedText = "package core\n\npublic fn four() -> Int {\n    return 4\n}\n";

// The object without its last record, and that object sealed again: the "end"
// record keeps its count and gets the checksum of the bytes before it.
std::string withoutEnd(const std::string& object) {
    const std::size_t last = object.rfind('\n', object.size() - 2) + 1;
    return object.substr(0, last);
}

std::string sealed(const std::string& body, const std::string& original) {
    const std::string end = original.substr(withoutEnd(original).size());
    const std::size_t count = end.find('\t') + 1;
    const std::string declarations = end.substr(count, end.find('\t', count) - count);
    return body + "end\t" + declarations + "\t" + Sha256::hex(body) + "\n";
}

// `text` with the first `from` replaced by `to`; the test fails when there is
// none, since the case would then change nothing.
std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos)
        text.replace(at, from.size(), to);
    return text;
}

class ObjectJudgementTest : public ::testing::Test {
protected:
    ObjectJudgementTest()
        : sound_(compileUnit(sharedText, "core/A.qr", Compiler::objectAbiVersion())) {}

    fs::path object() const { return directory_.path() / "A.qo"; }

    // The object of core/A.qr at `object()` holding `bytes`, judged against the
    // unit's text of today.
    ObjectJudgement judge(const std::string& bytes, const std::string& unit = "core/A.qr",
                          const std::string& text = sharedText) {
        writeFile(object(), bytes);
        return judgeObject(object(), unit, text.size(), Sha256::hex(text));
    }

    TemporaryDirectory directory_;
    const std::string sound_;
};

TEST_F(ObjectJudgementTest, ASoundObjectOfTheUnitAndItsBytesIsSound) {
    const ObjectJudgement judgement = judge(sound_);
    EXPECT_EQ(judgement.verdict, ObjectVerdict::Sound) << judgement.problem;
    EXPECT_EQ(judgement.bytes, sound_.size());
    EXPECT_EQ(judgement.compiledFrom, Sha256::hex(sharedText));
    EXPECT_EQ(sealed(withoutEnd(sound_), sound_), sound_); // the sealing the cases rely on
}

TEST_F(ObjectJudgementTest, NothingThereIsMissing) {
    const ObjectJudgement judgement =
        judgeObject(object(), "core/A.qr", sharedText.size(), Sha256::hex(sharedText));
    EXPECT_EQ(judgement.verdict, ObjectVerdict::Missing);
}

TEST_F(ObjectJudgementTest, AnObjectOfAnotherAbiWithAMatchingChecksumIsDamaged) {
    const std::string abi = std::to_string(Compiler::objectAbiVersion());
    const std::string older = std::to_string(Compiler::objectAbiVersion() - 1);
    const std::string other = sealed(
        replaced(withoutEnd(sound_), "QUOR-OBJECT\t" + abi + "\n", "QUOR-OBJECT\t" + older + "\n"),
        sound_);
    const ObjectJudgement judgement = judge(other);
    EXPECT_EQ(judgement.verdict, ObjectVerdict::Damaged);
    EXPECT_EQ(judgement.problem, "written for object ABI " + older + ", not " + abi);
}

TEST_F(ObjectJudgementTest, ASoundObjectOfAnotherUnitWithIdenticalBytesIsDamaged) {
    // core/A.qr's object where core/B.qr's belongs, B holding the same bytes.
    const ObjectJudgement judgement = judge(sound_, "core/B.qr");
    EXPECT_EQ(judgement.verdict, ObjectVerdict::Damaged);
    EXPECT_EQ(judgement.problem, "the object of another unit ('core/A.qr')");
    // The object B's own build makes is sound in that place.
    const std::string ofB = compileUnit(sharedText, "core/B.qr", Compiler::objectAbiVersion());
    EXPECT_EQ(judge(ofB, "core/B.qr").verdict, ObjectVerdict::Sound);
}

TEST_F(ObjectJudgementTest, AnEditThatKeepsTheByteCountMakesTheObjectStale) {
    const std::string edited = replaced(sharedText, "return 4", "return 5");
    ASSERT_EQ(edited.size(), sharedText.size());
    const ObjectJudgement judgement = judge(sound_, "core/A.qr", edited);
    EXPECT_EQ(judgement.verdict, ObjectVerdict::Stale);
    EXPECT_EQ(judgement.problem, "compiled from other bytes than the unit holds now");
    EXPECT_EQ(judgement.compiledFrom, Sha256::hex(sharedText));
}

TEST_F(ObjectJudgementTest, AnObjectThatRecordsAnotherSizeForTheSameDigestIsStale) {
    const std::string size = std::to_string(sharedText.size());
    const std::string other = sealed(
        replaced(withoutEnd(sound_), "source-size\t" + size + "\n", "source-size\t" + size + "0\n"),
        sound_);
    const ObjectJudgement judgement = judge(other);
    EXPECT_EQ(judgement.verdict, ObjectVerdict::Stale);
    EXPECT_EQ(judgement.problem, "compiled from other bytes than the unit holds now");
}

TEST_F(ObjectJudgementTest, AnEditedByteBreaksTheChecksum) {
    std::string edited = sound_;
    edited[edited.find("four")] = 'F';
    const ObjectJudgement judgement = judge(edited);
    EXPECT_EQ(judgement.verdict, ObjectVerdict::Damaged);
    EXPECT_EQ(judgement.problem, "truncated or edited (its checksum does not match)");
}

TEST_F(ObjectJudgementTest, ATruncatedObjectBreaksTheChecksum) {
    for (const std::size_t cut : {std::size_t(1), std::size_t(5), sound_.size() / 2}) {
        const ObjectJudgement judgement = judge(sound_.substr(0, sound_.size() - cut));
        EXPECT_EQ(judgement.verdict, ObjectVerdict::Damaged) << cut;
        EXPECT_EQ(judgement.problem, "truncated or edited (its checksum does not match)") << cut;
    }
}

TEST_F(ObjectJudgementTest, AnObjectWithoutItsOwnRecordsIsNotAnObject) {
    // Sealed correctly, but the unit record is not there under its tag.
    const std::string untagged =
        sealed(replaced(withoutEnd(sound_), "\nunit\t", "\nunits\t"), sound_);
    EXPECT_EQ(judge(untagged).problem, "not a Quor object");
    EXPECT_EQ(judge("a plain text file\n").problem, "not a Quor object");
    EXPECT_EQ(judge("").verdict, ObjectVerdict::Damaged);
}

TEST_F(ObjectJudgementTest, ALinkToASoundObjectIsDamagedAndNeverFollowed) {
    const fs::path target = directory_.path() / "target.qo";
    writeFile(target, sound_);
    fs::create_symlink(target, object());
    const ObjectJudgement judgement =
        judgeObject(object(), "core/A.qr", sharedText.size(), Sha256::hex(sharedText));
    EXPECT_EQ(judgement.verdict, ObjectVerdict::Damaged);
    EXPECT_EQ(judgement.problem, "a symbolic link, never followed");
}

TEST_F(ObjectJudgementTest, AFifoIsNotARegularFileAndIsJudgedWithoutBlocking) {
    ASSERT_EQ(::mkfifo(object().c_str(), 0644), 0);
    // Nobody writes to the FIFO: a judgement that read it would never return,
    // and the test would hang instead of failing.
    const ObjectJudgement judgement =
        judgeObject(object(), "core/A.qr", sharedText.size(), Sha256::hex(sharedText));
    EXPECT_EQ(judgement.verdict, ObjectVerdict::Damaged);
    EXPECT_EQ(judgement.problem, "not a regular file");
}

TEST_F(ObjectJudgementTest, ADirectoryIsNotARegularFile) {
    fs::create_directory(object());
    EXPECT_EQ(
        judgeObject(object(), "core/A.qr", sharedText.size(), Sha256::hex(sharedText)).problem,
        "not a regular file");
}

TEST_F(ObjectJudgementTest, AFileLargerThanAnyObjectIsNotRead) {
    // Sparse: no disk is used, and a judgement that read it whole would take
    // hundreds of megabytes of memory.
    writeFile(object(), sound_);
    fs::resize_file(object(), std::uintmax_t(257) << 20);
    const ObjectJudgement judgement =
        judgeObject(object(), "core/A.qr", sharedText.size(), Sha256::hex(sharedText));
    EXPECT_EQ(judgement.verdict, ObjectVerdict::Damaged);
    EXPECT_EQ(judgement.problem, "larger than any object this compiler writes");
}

TEST_F(ObjectJudgementTest, AnObjectThatCannotBeOpenedIsUnreadable) {
    const fs::path tooLong = directory_.path() / (std::string(300, 'x') + ".qo");
    const ObjectJudgement judgement =
        judgeObject(tooLong, "core/A.qr", sharedText.size(), Sha256::hex(sharedText));
    EXPECT_EQ(judgement.verdict, ObjectVerdict::Damaged);
    EXPECT_EQ(judgement.problem, "unreadable: File name too long");
}

class AbiRecordTest : public ::testing::Test {
protected:
    fs::path record() const { return directory_.path() / ".quor-object-abi"; }
    TemporaryDirectory directory_;
};

TEST_F(AbiRecordTest, TheFirstWordIsTheRecord) {
    writeFile(record(), "2\n");
    EXPECT_EQ(readAbiRecord(record()), "2");
    writeFile(record(), " \t7\r\nignored\n");
    EXPECT_EQ(readAbiRecord(record()), "7");
    // The word ends within the bytes read; what follows them is never looked at.
    writeFile(record(), "3 " + std::string(10000, 'y'));
    EXPECT_EQ(readAbiRecord(record()), "3");
}

TEST_F(AbiRecordTest, AFirstWordThatRunsPastTheBytesReadIsNoRecord) {
    writeFile(record(), std::string(5000, '2') + "\n");
    EXPECT_EQ(readAbiRecord(record()), "");
    // Spaces first, so that the word starts inside the bytes read and runs on.
    writeFile(record(), std::string(4000, ' ') + std::string(200, '2') + "\n");
    EXPECT_EQ(readAbiRecord(record()), "");
    // The same word, ending inside the bytes read, is a record.
    writeFile(record(), std::string(3000, ' ') + std::string(200, '2') + "\n");
    EXPECT_EQ(readAbiRecord(record()), std::string(200, '2'));
}

TEST_F(AbiRecordTest, NothingButARegularFileIsARecord) {
    EXPECT_EQ(readAbiRecord(record()), ""); // missing
    const fs::path target = directory_.path() / "target";
    writeFile(target, "2\n");
    fs::create_symlink(target, record());
    EXPECT_EQ(readAbiRecord(record()), "");
    fs::remove(record());
    ASSERT_EQ(::mkfifo(record().c_str(), 0644), 0);
    EXPECT_EQ(readAbiRecord(record()), ""); // and it returns: nobody writes the FIFO

    // A FIFO that does hold a current record's bytes is still no record.
    const int pipe = ::open(record().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(pipe, 0);
    ASSERT_EQ(::write(pipe, "2\n", 2), 2);
    EXPECT_EQ(readAbiRecord(record()), "");
    ::close(pipe);
}

} // namespace
} // namespace quor::test
