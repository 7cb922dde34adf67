// The object format's writer and reader against each other and against the
// units they describe: every unit of the sample library, and units made to
// reach the corners of the format (every escape, a unit with nothing in it,
// every kind of declaration), is compiled, rendered and read back field for
// field; then every field of such objects is damaged in turn, and the reader
// must refuse each damaged object.
//
// The reader is held to the units themselves, not only to the writer: the
// identity it reads back is the unit's own size and digest, and each
// declaration's line is a line of the unit that names it.

#include "compiler/ObjectFormat.h"
#include "compiler/Sha256.h"
#include "compiler/Tokenizer.h"
#include "compiler/UnitCompiler.h"
#include "tests/services/ServicesTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace quor::test {
namespace {

namespace objectformat = compiler::objectformat;
using compiler::Sha256;

struct Unit {
    std::string path; // below the library root
    std::string text;
};

// Every unit of the library that ships with the compiler, in path order.
std::vector<Unit> libraryUnits() {
    const fs::path root = fs::path(QUOR_TEST_SOURCE_DIR) / "stdlib";
    std::vector<Unit> units;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file() && entry.path().extension() == ".qr")
            units.push_back(
                {entry.path().lexically_relative(root).generic_string(), readFile(entry.path())});
    }
    std::sort(units.begin(), units.end(),
              [](const Unit& a, const Unit& b) { return a.path < b.path; });
    return units;
}

// Units that reach what the library does not: each character the format
// escapes in the unit's path and a backslash in a signature, a unit without
// any declaration, an empty one, and every kind of record and type field.
std::vector<Unit> craftedUnits() {
    return {
        {"Tab\there, back\\slash, line\nfeed and carriage\rreturn.qr",
         "public fn escaped(separator: String = \"\\t\", end: Char = '\\\\') -> String {\n"
         "    return separator\n"
         "}\n"},
        {"Empty.qr", ""},
        {"deep/er/Nothing.qr", "package deep.er\n\n// only a comment\n"},
        {"shapes/Everything.qr",
         "package shapes\n"
         "\n"
         "use core.Sized\n"
         "use collections.immutable.Vector as Frozen\n"
         "\n"
         "public extern abstract class Shape<T, U> : Sized, Comparable<Shape<T, U>> where T : "
         "Sized {\n"
         "    internal struct Corner {\n"
         "    }\n"
         "    private enum Side {\n"
         "    }\n"
         "}\n"
         "\n"
         "extern interface Surface {\n"
         "}\n"
         "\n"
         "trait Drawable {\n"
         "}\n"
         "\n"
         "public extern fn area(shape: Shape<Int, Int>) -> Int;\n"
         "fn perimeter<T>(sides: List<T>,\n"
         "              scale: Int) -> Int {\n"
         "    return 0\n"
         "}\n"},
    };
}

// The object the writer makes of `unit`, and what it was told to say.
struct Written {
    objectformat::Contents contents;
    std::string bytes;
};

Written write(const Unit& unit) {
    Written written;
    written.contents = compiler::unitContents(unit.text, unit.path, objectformat::abiVersion);
    written.bytes = objectformat::render(written.contents);
    return written;
}

// The 1-based line `line` of `text`, without its line feed.
std::string lineOf(const std::string& text, std::size_t line) {
    std::size_t start = 0;
    for (std::size_t i = 1; i < line && start != std::string::npos; ++i) {
        start = text.find('\n', start);
        if (start != std::string::npos)
            ++start;
    }
    if (start == std::string::npos || start > text.size())
        return "<no line " + std::to_string(line) + ">";
    return text.substr(start, text.find('\n', start) - start);
}

// Reads `written` back and compares every field with what the writer was told
// and with the unit itself.
void expectReadBack(const Unit& unit, const Written& written) {
    SCOPED_TRACE(unit.path);
    EXPECT_EQ(written.bytes, compiler::compileUnit(unit.text, unit.path, objectformat::abiVersion));

    objectformat::Contents read;
    ASSERT_EQ(objectformat::read(written.bytes, read), "");
    EXPECT_EQ(read.abi, objectformat::abiVersion);
    EXPECT_EQ(read.unitPath, unit.path);
    EXPECT_EQ(read.sourceSize, unit.text.size());
    EXPECT_EQ(read.sourceSha256, Sha256::hex(unit.text));
    EXPECT_EQ(read.package, written.contents.package);
    ASSERT_EQ(read.declarations.size(), written.contents.declarations.size());
    for (std::size_t i = 0; i < read.declarations.size(); ++i) {
        const objectformat::Record& got = read.declarations[i];
        const objectformat::Record& wanted = written.contents.declarations[i];
        SCOPED_TRACE("declaration " + std::to_string(i));
        EXPECT_EQ(got.tag, wanted.tag);
        ASSERT_EQ(got.fields.size(), wanted.fields.size());
        for (std::size_t field = 0; field < got.fields.size(); ++field)
            EXPECT_EQ(got.fields[field], wanted.fields[field]) << "field " << field;
        // The line it records is the unit's line that declares it: the name of
        // a type or function, the path of a use line.
        ASSERT_FALSE(got.fields.empty());
        const std::string line = lineOf(unit.text, std::stoul(got.fields[0]));
        const std::string& named = got.tag == objectformat::useTag    ? got.fields[1]
                                   : got.tag == objectformat::typeTag ? got.fields.at(4)
                                                                      : got.fields.at(1);
        EXPECT_NE(line.find(named), std::string::npos) << line << " does not name " << named;
    }
    EXPECT_EQ(read, written.contents);

    // The head the cache judges by agrees with the whole.
    objectformat::Head head;
    ASSERT_EQ(objectformat::readHead(written.bytes, head), "");
    EXPECT_EQ(head.abi, std::to_string(objectformat::abiVersion));
    EXPECT_EQ(head.unitField, objectformat::escapedField(unit.path));
    EXPECT_EQ(head.sourceSize, std::to_string(unit.text.size()));
    EXPECT_EQ(head.sourceSha256, Sha256::hex(unit.text));
}

TEST(ObjectFormat, EveryUnitOfTheLibraryIsReadBackFieldForField) {
    const std::vector<Unit> units = libraryUnits();
    ASSERT_GE(units.size(), 10u);
    std::size_t declarations = 0;
    for (const Unit& unit : units) {
        const Written written = write(unit);
        expectReadBack(unit, written);
        declarations += written.contents.declarations.size();
    }
    EXPECT_GE(declarations, units.size()); // the library declares things
}

TEST(ObjectFormat, CraftedUnitsAreReadBackFieldForField) {
    for (const Unit& unit : craftedUnits())
        expectReadBack(unit, write(unit));

    // The corners the crafted units are there for were reached.
    const Written escaped = write(craftedUnits()[0]);
    EXPECT_NE(escaped.bytes.find("unit\tTab\\there, back\\\\slash, line\\nfeed and carriage\\r"),
              std::string::npos)
        << escaped.bytes;
    EXPECT_NE(escaped.bytes.find("= \"\\\\t\""), std::string::npos) << escaped.bytes;
    EXPECT_TRUE(write(craftedUnits()[1]).contents.declarations.empty());
    const Written everything = write(craftedUnits()[3]);
    std::vector<std::string> tags;
    for (const objectformat::Record& record : everything.contents.declarations)
        tags.push_back(record.tag);
    EXPECT_EQ(tags, (std::vector<std::string>{"use", "use", "type", "type", "type", "type", "type",
                                              "fn", "fn"}));
    EXPECT_EQ(everything.contents.declarations[2].fields,
              (std::vector<std::string>{"6", "class", "public", "abstract,extern", "Shape", "T, U",
                                        "Sized, Comparable<Shape<T, U>>", "T : Sized"}));
}

// ---- Damage ----

// An object as lines of raw (escaped) fields, the tag first; the end record is
// the last line.
using Lines = std::vector<std::vector<std::string>>;

Lines split(const std::string& object) {
    Lines lines;
    std::size_t start = 0;
    while (start < object.size()) {
        const std::size_t end = object.find('\n', start);
        std::vector<std::string> fields;
        std::size_t field = start;
        while (true) {
            const std::size_t tab = object.find('\t', field);
            if (tab == std::string::npos || tab > end) {
                fields.push_back(object.substr(field, end - field));
                break;
            }
            fields.push_back(object.substr(field, tab - field));
            field = tab + 1;
        }
        lines.push_back(std::move(fields));
        start = end + 1;
    }
    return lines;
}

std::string join(const Lines& lines) {
    std::string object;
    for (const auto& fields : lines) {
        for (std::size_t i = 0; i < fields.size(); ++i)
            object += (i == 0 ? "" : "\t") + fields[i];
        object += '\n';
    }
    return object;
}

// `lines` with the end record's checksum made to match the records before it
// again, so that only the damage itself can be refused. The count of
// declarations stays what the writer wrote.
std::string sealed(Lines lines) {
    const std::string count = lines.back().at(1);
    lines.pop_back();
    const std::string body = join(lines);
    return body + "end\t" + count + "\t" + Sha256::hex(body) + "\n";
}

// What the reader says of `object`; "" when it accepts it.
std::string verdict(const std::string& object) {
    objectformat::Contents contents;
    return objectformat::read(object, contents);
}

// A value of the field at `record`, `field` that keeps the escapes well formed
// but breaks the field's own rule, or "" for a field whose every value is
// allowed.
std::string invalidValue(const std::vector<std::string>& fields, std::size_t field) {
    const std::string& tag = fields[0];
    if (field == 1 && (tag == "use" || tag == "type" || tag == "fn"))
        return "0"; // lines start at 1
    if (tag == "QUOR-OBJECT")
        return std::to_string(objectformat::abiVersion + 1);
    if (tag == "source-size")
        return "0" + fields[1];
    if (tag == "source-sha256")
        return fields[1].substr(0, 63) + "G";
    if (tag == "unit" || (tag == "use" && field == 2) || (tag == "type" && field == 5) ||
        (tag == "fn" && field >= 2))
        return ""; // must not be empty
    if (tag == "type" && field == 2)
        return "record";
    if (tag == "type" && field == 3)
        return "protected";
    if (tag == "type" && field == 4)
        return fields[4].empty() ? "sealed,abstract" : fields[4] + ",abstract";
    return "<free text>";
}

void expectEveryFieldDamagedRefused(const Unit& unit) {
    SCOPED_TRACE(unit.path);
    const std::string object = write(unit).bytes;
    const Lines lines = split(object);
    ASSERT_EQ(join(lines), object);
    ASSERT_EQ(sealed(lines), object); // the sealing the cases rely on
    ASSERT_EQ(verdict(object), "");

    const std::size_t last = lines.size() - 1;
    for (std::size_t record = 0; record < last; ++record) {
        for (std::size_t field = 0; field < lines[record].size(); ++field) {
            SCOPED_TRACE("record " + std::to_string(record) + " '" + lines[record][0] +
                         "', field " + std::to_string(field));
            // A byte changed, the checksum left alone.
            Lines edited = lines;
            std::string& text = edited[record][field];
            if (text.empty())
                text = "x";
            else
                text[0] = text[0] == 'x' ? 'y' : 'x';
            if (record == 0) // the header is read before the checksum
                EXPECT_NE(verdict(join(edited)), "");
            else
                EXPECT_EQ(verdict(join(edited)),
                          "truncated or edited (its checksum does not match)");

            // Sealed again, so that the checksum passes: a backslash that
            // starts no escape.
            edited = lines;
            edited[record][field] += "\\x";
            EXPECT_NE(verdict(sealed(edited)), "") << sealed(edited);

            // Sealed again: the field missing, and one field too many.
            edited = lines;
            edited[record].erase(edited[record].begin() + std::ptrdiff_t(field));
            if (!edited[record].empty()) { // a record's tag is its first field
                EXPECT_NE(verdict(sealed(edited)), "") << sealed(edited);
            }
            edited = lines;
            edited[record].insert(edited[record].begin() + std::ptrdiff_t(field) + 1, "extra");
            EXPECT_NE(verdict(sealed(edited)), "") << sealed(edited);

            // Sealed again: a value the field may not hold, or another tag.
            edited = lines;
            const std::string invalid =
                field == 0 ? lines[record][0] + "s" : invalidValue(lines[record], field);
            if (invalid != "<free text>") {
                edited[record][field] = invalid;
                if (edited[record] != lines[record]) {
                    EXPECT_NE(verdict(sealed(edited)), "") << sealed(edited);
                }
            }
        }
    }

    // The end record: its tag, its count and its checksum.
    const auto endDamaged = [&](const std::function<void(std::vector<std::string>&)>& damage) {
        Lines edited = lines;
        damage(edited[last]);
        return verdict(join(edited));
    };
    const std::string count = lines[last][1];
    EXPECT_NE(endDamaged([](auto& end) { end[0] = "ends"; }), "");
    EXPECT_NE(endDamaged([&](auto& end) { end[1] = std::to_string(std::stoul(count) + 1); }), "");
    EXPECT_NE(endDamaged([&](auto& end) { end[1] = "0" + count; }), "");
    EXPECT_NE(endDamaged([](auto& end) { end[1] = ""; }), "");
    EXPECT_NE(endDamaged([](auto& end) { end[2][0] = end[2][0] == 'a' ? 'b' : 'a'; }), "");
    EXPECT_NE(endDamaged([](auto& end) { end.push_back("extra"); }), "");
    EXPECT_NE(endDamaged([](auto& end) { end.erase(end.begin() + 1); }), "");

    // And a record lost, or one of the header, the identity and the package
    // swapped with the next, with the checksum sealed again.
    constexpr std::size_t leading = 5;
    for (std::size_t record = 0; record < last; ++record) {
        Lines edited = lines;
        edited.erase(edited.begin() + std::ptrdiff_t(record));
        EXPECT_NE(verdict(sealed(edited)), "") << "without record " << record;
        if (record < leading && record + 1 < last) {
            edited = lines;
            std::swap(edited[record], edited[record + 1]);
            EXPECT_NE(verdict(sealed(edited)), "") << "records " << record << " swapped";
        }
    }
}

TEST(ObjectFormat, EveryFieldDamagedIsRefused) {
    for (const Unit& unit : craftedUnits())
        expectEveryFieldDamagedRefused(unit);
    const std::vector<Unit> library = libraryUnits();
    ASSERT_FALSE(library.empty());
    expectEveryFieldDamagedRefused(library.front());
    expectEveryFieldDamagedRefused(library.back());
}

} // namespace
} // namespace quor::test
