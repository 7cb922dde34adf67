// The object format's writer and reader. Both are built on the names of
// ObjectFormat.h and on the tables below, and on nothing else: the escapes are
// one table for both ways, each record's field count is the one its writer
// function makes and its reader checks, and the reader finds the header's
// fields after the header tag and its separator, not at a counted offset.

#include "compiler/ObjectFormat.h"

#include "compiler/Sha256.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <utility>

namespace quor::compiler::objectformat {

namespace {

constexpr std::string_view notAnObject = "not a Quor object";
constexpr std::string_view checksumMismatch = "truncated or edited (its checksum does not match)";

// How many fields each record carries after its tag.
constexpr std::size_t identityFields = 1; // header, unit, source-size, source-sha256, package
constexpr std::size_t useFields = 3;
constexpr std::size_t typeFields = 8;
constexpr std::size_t functionFields = 3;
constexpr std::size_t endFields = 2;

// The words a type record's kind, visibility and modifiers are made of: the
// kinds in the order of source::TypeKind's values, the modifiers, when several,
// in this order.
constexpr std::array<std::string_view, 5> typeKinds = {"struct", "enum", "class", "interface",
                                                       "trait"};
constexpr std::array<std::string_view, 3> visibilities = {"public", "internal", "private"};
constexpr std::array<std::string_view, 3> modifierWords = {"abstract", "sealed", "extern"};
constexpr char modifierSeparator = ',';

// The escapes of a field: each character of escapedCharacters is written as a
// backslash and the letter at the same place in escapeLetters.
constexpr char escapeCharacter = '\\';
constexpr std::string_view escapedCharacters = "\\\t\n\r";
constexpr std::string_view escapeLetters = "\\tnr";
static_assert(escapedCharacters.size() == escapeLetters.size());

// Appends the separator and `field`, escaped.
void appendField(std::string& out, std::string_view field) {
    out += fieldSeparator;
    for (std::size_t start = 0;;) {
        const std::size_t special = field.find_first_of(escapedCharacters, start);
        out.append(
            field.substr(start, special == std::string_view::npos ? special : special - start));
        if (special == std::string_view::npos) {
            return;
        }
        out += escapeCharacter;
        out += escapeLetters[escapedCharacters.find(field[special])];
        start = special + 1;
    }
}

// `field` without its escapes; false when it holds a backslash that starts
// none of them, or a character the writer would have escaped (a carriage
// return; a tab or a line feed would have ended the field).
bool unescape(std::string_view field, std::string& out) {
    out.clear();
    out.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        const char c = field[i];
        if (c != escapeCharacter) {
            if (escapedCharacters.find(c) != std::string_view::npos) {
                return false;
            }
            out += c;
            continue;
        }
        const std::size_t escape =
            ++i < field.size() ? escapeLetters.find(field[i]) : std::string_view::npos;
        if (escape == std::string_view::npos) {
            return false;
        }
        out += escapedCharacters[escape];
    }
    return true;
}

// The tag and the fields of one record line, still escaped.
std::vector<std::string_view> recordFields(std::string_view line) {
    std::vector<std::string_view> fields;
    std::size_t start = 0;
    while (true) {
        const std::size_t tab = line.find(fieldSeparator, start);
        fields.push_back(line.substr(start, tab == std::string_view::npos ? tab : tab - start));
        if (tab == std::string_view::npos) {
            return fields;
        }
        start = tab + 1;
    }
}

bool isHexDigest(std::string_view text) {
    return text.size() == digestLength && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

// A number as std::to_string writes it: decimal digits, no sign, no leading
// zero, within 64 bits.
bool parseDecimal(std::string_view text, std::uint64_t& value) {
    if (text.empty() || (text.size() > 1 && text[0] == '0') ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return false;
    }
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

bool isLineNumber(std::string_view text) {
    std::uint64_t line = 0;
    return parseDecimal(text, line) && line > 0;
}

template <std::size_t N>
bool isOneOf(std::string_view word, const std::array<std::string_view, N>& words) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

// Empty, or some of the modifier words, each at most once and in their order.
bool isModifierList(std::string_view text) {
    if (text.empty()) {
        return true;
    }
    std::size_t next = 0; // the first word still allowed
    for (std::size_t start = 0;;) {
        const std::size_t comma = text.find(modifierSeparator, start);
        const std::string_view word =
            text.substr(start, comma == std::string_view::npos ? comma : comma - start);
        const auto* found = std::find(modifierWords.begin() + next, modifierWords.end(), word);
        if (found == modifierWords.end()) {
            return false;
        }
        next = std::size_t(found - modifierWords.begin()) + 1;
        if (comma == std::string_view::npos) {
            return true;
        }
        start = comma + 1;
    }
}

// One record of an intact object, taken apart: its tag, and its fields
// unescaped. False when a field holds a malformed escape.
struct ParsedRecord {
    std::string_view tag;
    std::vector<std::string> fields;
};

bool parseRecord(std::string_view line, ParsedRecord& record) {
    const std::vector<std::string_view> raw = recordFields(line);
    record.tag = raw[0];
    record.fields.assign(raw.size() - 1, std::string());
    for (std::size_t i = 1; i < raw.size(); ++i) {
        if (!unescape(raw[i], record.fields[i - 1])) {
            return false;
        }
    }
    return true;
}

std::string malformed(std::string_view tag) {
    return "a malformed '" + std::string(tag) + "' record";
}

// Why the declaration `record` is not one the writer makes, or "".
std::string declarationProblem(const ParsedRecord& record) {
    const std::vector<std::string>& fields = record.fields;
    if (record.tag == useTag) {
        return fields.size() == useFields && isLineNumber(fields[0]) && !fields[1].empty()
                   ? std::string()
                   : malformed(record.tag);
    }
    if (record.tag == typeTag) {
        return fields.size() == typeFields && isLineNumber(fields[0]) &&
                       isOneOf(fields[1], typeKinds) &&
                       (fields[2].empty() || isOneOf(fields[2], visibilities)) &&
                       isModifierList(fields[3]) && !fields[4].empty()
                   ? std::string()
                   : malformed(record.tag);
    }
    if (record.tag == functionTag) {
        return fields.size() == functionFields && isLineNumber(fields[0]) && !fields[1].empty() &&
                       !fields[2].empty()
                   ? std::string()
                   : malformed(record.tag);
    }
    return "an unknown record '" + std::string(record.tag) + "'";
}

// A record of `tag` with `fields`; N is the record's field count, the one
// declarationProblem() holds a record read back to.
template <std::size_t N>
Record makeRecord(std::string_view tag, std::array<std::string, N> fields) {
    return Record{std::string(tag),
                  std::vector<std::string>(std::make_move_iterator(fields.begin()),
                                           std::make_move_iterator(fields.end()))};
}

} // namespace

Record useRecord(std::size_t line, std::string path, std::string alias) {
    return makeRecord<useFields>(useTag, {std::to_string(line), std::move(path), std::move(alias)});
}

Record typeRecord(std::size_t line, const source::TypeHeader& header) {
    const auto kind = static_cast<std::size_t>(header.kind);
    const std::array<bool, modifierWords.size()> present = {header.flag1, header.flag2,
                                                            header.flag3};
    std::string modifiers;
    for (std::size_t i = 0; i < modifierWords.size(); ++i) {
        if (present[i]) {
            if (!modifiers.empty()) {
                modifiers += modifierSeparator;
            }
            modifiers += modifierWords[i];
        }
    }
    return makeRecord<typeFields>(
        typeTag, {std::to_string(line),
                  std::string(kind < typeKinds.size() ? typeKinds[kind] : "class"), header.text1,
                  std::move(modifiers), header.typeName, header.text3, header.text4, header.text5});
}

Record functionRecord(std::size_t line, std::string name, std::string signature) {
    return makeRecord<functionFields>(
        functionTag, {std::to_string(line), std::move(name), std::move(signature)});
}

std::string escapedField(std::string_view field) {
    std::string out;
    appendField(out, field);
    return out.substr(1);
}

std::string render(const Contents& contents) {
    std::string out(headerTag);
    appendField(out, std::to_string(contents.abi));
    const auto identity = [&out](std::string_view tag, std::string_view field) {
        out += recordTerminator;
        out += tag;
        appendField(out, field);
    };
    identity(unitTag, contents.unitPath);
    identity(sourceSizeTag, std::to_string(contents.sourceSize));
    identity(sourceSha256Tag, contents.sourceSha256);
    identity(packageTag, contents.package);
    out += recordTerminator;
    for (const Record& record : contents.declarations) {
        out += record.tag;
        for (const std::string& field : record.fields) {
            appendField(out, field);
        }
        out += recordTerminator;
    }
    // The last record vouches for every byte before it, so that a reader
    // tells a truncated or edited object from a sound one without compiling
    // the unit again.
    const std::string bodyDigest = Sha256::hex(out);
    out += endTag;
    appendField(out, std::to_string(contents.declarations.size()));
    appendField(out, bodyDigest);
    out += recordTerminator;
    return out;
}

std::string readHead(std::string_view bytes, Head& head) {
    const std::size_t firstEnd = bytes.find(recordTerminator);
    const std::size_t abiStart = headerTag.size() + 1;
    // A line feed follows the tag somewhere, so the byte after the tag exists.
    if (firstEnd == std::string_view::npos || !bytes.starts_with(headerTag) ||
        bytes[headerTag.size()] != fieldSeparator) {
        return std::string(notAnObject);
    }
    head.abi = std::string(bytes.substr(abiStart, firstEnd - abiStart));
    if (head.abi != std::to_string(abiVersion)) {
        return "written for object ABI " + head.abi + ", not " + std::to_string(abiVersion);
    }
    if (bytes.back() != recordTerminator || bytes.size() < 2) {
        return std::string(checksumMismatch);
    }
    const std::size_t lastStart = bytes.rfind(recordTerminator, bytes.size() - 2) + 1;
    const std::vector<std::string_view> end =
        recordFields(bytes.substr(lastStart, bytes.size() - 1 - lastStart));
    if (end.size() != endFields + 1 || end[0] != endTag || !isHexDigest(end[2]) ||
        Sha256::hex(bytes.substr(0, lastStart)) != end[2]) {
        return std::string(checksumMismatch);
    }
    // Intact: the records before the checksum are the compiler's own.
    std::size_t position = firstEnd + 1;
    for (const auto& [tag, target] :
         {std::pair{unitTag, &head.unitField}, std::pair{sourceSizeTag, &head.sourceSize},
          std::pair{sourceSha256Tag, &head.sourceSha256}}) {
        const std::size_t lineEnd = bytes.find(recordTerminator, position);
        const std::vector<std::string_view> fields =
            recordFields(bytes.substr(position, lineEnd - position));
        if (fields.size() != identityFields + 1 || fields[0] != tag) {
            return std::string(notAnObject);
        }
        *target = std::string(fields[1]);
        position = lineEnd + 1;
    }
    return {};
}

std::string read(std::string_view bytes, Contents& contents) {
    Head head;
    if (std::string problem = readHead(bytes, head); !problem.empty()) {
        return problem;
    }
    // Intact, so it ends in a line feed: every record is a whole line.
    std::vector<ParsedRecord> records;
    for (std::size_t position = 0; position < bytes.size();) {
        const std::size_t lineEnd = bytes.find(recordTerminator, position);
        ParsedRecord record;
        if (!parseRecord(bytes.substr(position, lineEnd - position), record)) {
            return "a field with a malformed escape in a '" + std::string(record.tag) + "' record";
        }
        records.push_back(std::move(record));
        position = lineEnd + 1;
    }

    // The header and the identity, in the writer's order, one field each.
    constexpr std::array<std::string_view, 5> leading = {headerTag, unitTag, sourceSizeTag,
                                                         sourceSha256Tag, packageTag};
    if (records.size() < leading.size() + 1) {
        return std::string(notAnObject);
    }
    for (std::size_t i = 0; i < leading.size(); ++i) {
        if (records[i].tag != leading[i]) {
            return "a '" + std::string(records[i].tag) + "' record where '" +
                   std::string(leading[i]) + "' belongs";
        }
        if (records[i].fields.size() != identityFields) {
            return malformed(leading[i]);
        }
    }
    Contents read;
    read.abi = abiVersion;
    read.unitPath = std::move(records[1].fields[0]);
    if (read.unitPath.empty()) {
        return malformed(unitTag);
    }
    if (!parseDecimal(records[2].fields[0], read.sourceSize)) {
        return malformed(sourceSizeTag);
    }
    read.sourceSha256 = std::move(records[3].fields[0]);
    if (!isHexDigest(read.sourceSha256)) {
        return malformed(sourceSha256Tag);
    }
    read.package = std::move(records[4].fields[0]);

    const std::size_t last = records.size() - 1;
    for (std::size_t i = leading.size(); i < last; ++i) {
        if (std::string problem = declarationProblem(records[i]); !problem.empty()) {
            return problem;
        }
        read.declarations.push_back(
            Record{std::string(records[i].tag), std::move(records[i].fields)});
    }
    // readHead() has checked the end record's tag, its number of fields and
    // its checksum; what it counts is left.
    std::uint64_t counted = 0;
    if (!parseDecimal(records[last].fields[0], counted) || counted != read.declarations.size()) {
        return "an end record that counts " + records[last].fields[0] + " declarations, not " +
               std::to_string(read.declarations.size());
    }
    contents = std::move(read);
    return {};
}

} // namespace quor::compiler::objectformat
