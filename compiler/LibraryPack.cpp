// The pack's writer and reader (LibraryPack.h); what the library cache puts in
// a pack and takes from one is LibraryPackCache.cpp, so that this file needs
// nothing but SHA-256 and can be fuzzed on its own. The reader is written for bytes
// from anywhere: it walks the input with a cursor that never passes its end,
// compares every claimed length with what is left before it uses it, and
// allocates only for bytes that are really there.

#include "compiler/LibraryPack.h"

#include "compiler/CacheLayout.h"
#include "compiler/Sha256.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <system_error>

namespace quor::compiler::pack {

namespace {

constexpr std::string_view formatKey = "format=";
constexpr std::string_view versionKey = "version=";
constexpr std::string_view abiKey = "abi=";
constexpr std::string_view fingerprintKey = "fingerprint=";
constexpr std::string_view unitsKey = "units=";
constexpr std::string_view unitTag = "unit";
constexpr std::string_view objectsLine = "objects";
constexpr char fieldSeparator = '\t';
constexpr char lineEnd = '\n';
constexpr std::size_t digestLength = 64;
constexpr int maxAbi = 999999;
// No line the writer makes is longer: a unit line is its tag, a path, two
// digests, two numbers and five separators.
constexpr std::size_t maxLineBytes = maxPathBytes * 2 + 2 * digestLength + 64;

bool isDigest(std::string_view text) {
    return text.size() == digestLength && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

// A path as the manifest records it: tab, carriage return and line feed
// escaped, which a unit path may hold; a backslash it may not hold.
std::string escapedPath(std::string_view path) {
    std::string text;
    text.reserve(path.size());
    for (const char c : path) {
        switch (c) {
        case '\t':
            text += "\\t";
            break;
        case '\r':
            text += "\\r";
            break;
        case '\n':
            text += "\\n";
            break;
        default:
            text += c;
        }
    }
    return text;
}

// The path `field` records, or "" with `problem` set when it is not one
// escapedPath() writes.
std::string unescapedPath(std::string_view field, std::string& problem) {
    std::string path;
    path.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] != '\\') {
            path += field[i];
            continue;
        }
        const char next = i + 1 < field.size() ? field[i + 1] : '\0';
        if (next == 't') {
            path += '\t';
        } else if (next == 'r') {
            path += '\r';
        } else if (next == 'n') {
            path += '\n';
        } else {
            problem = "a unit path holds a backslash";
            return {};
        }
        ++i;
    }
    return path;
}

// A decimal number as the writer writes it: digits, no sign, no leading zero
// unless it is 0, within 64 bits.
bool parseNumber(std::string_view text, std::uint64_t& value) {
    if (text.empty() || text.size() > 20 || (text.size() > 1 && text.front() == '0')) {
        return false;
    }
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

std::string identityValueProblem(std::string_view name, std::string_view value) {
    if (value.empty() || value.size() > maxIdentityValueBytes) {
        return "the " + std::string(name) + " is empty or longer than " +
               std::to_string(maxIdentityValueBytes) + " bytes";
    }
    if (!std::all_of(value.begin(), value.end(), [](char c) { return c > ' ' && c < 0x7f; })) {
        return "the " + std::string(name) + " holds a character other than printable ASCII";
    }
    return {};
}

// The input as lines, one at a time, never past its end.
class Cursor {
public:
    explicit Cursor(std::string_view bytes) : bytes_(bytes) {}

    // The next line without its line feed, or false when there is no whole
    // line of at most maxLineBytes left.
    bool line(std::string_view& text) {
        const std::size_t limit = std::min(bytes_.size(), position_ + maxLineBytes + 1);
        for (std::size_t i = position_; i < limit; ++i) {
            if (bytes_[i] == lineEnd) {
                text = bytes_.substr(position_, i - position_);
                position_ = i + 1;
                return true;
            }
        }
        return false;
    }

    std::size_t position() const { return position_; }
    std::size_t left() const { return bytes_.size() - position_; }

private:
    std::string_view bytes_;
    std::size_t position_ = 0;
};

// Reads "<key><value>" from `cursor` into `value`; false with `problem` set when
// the next line is not that.
bool keyedLine(Cursor& cursor, std::string_view key, std::string_view& value,
               std::string& problem) {
    std::string_view text;
    if (!cursor.line(text) || !text.starts_with(key)) {
        problem = "no '" + std::string(key) + "' line where the format puts it";
        return false;
    }
    value = text.substr(key.size());
    return true;
}

std::vector<std::string_view> fieldsOf(std::string_view line) {
    std::vector<std::string_view> fields;
    std::size_t start = 0;
    while (true) {
        const std::size_t end = line.find(fieldSeparator, start);
        fields.push_back(line.substr(start, end == line.npos ? line.npos : end - start));
        if (end == line.npos || fields.size() > 6) {
            return fields;
        }
        start = end + 1;
    }
}

} // namespace

std::string unitPathProblem(std::string_view path) {
    if (path.empty()) {
        return "a unit path is empty";
    }
    if (path.size() > maxPathBytes) {
        return "a unit path is longer than " + std::to_string(maxPathBytes) + " bytes";
    }
    if (path.front() == '/') {
        return "a unit path is absolute";
    }
    if (path.find('\\') != path.npos) {
        return "a unit path holds a backslash";
    }
    if (path.find('\0') != path.npos) {
        return "a unit path holds a NUL byte";
    }
    if (!path.ends_with(layout::sourceExtension)) {
        return "a unit path does not end in " + std::string(layout::sourceExtension);
    }
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string_view component = path.substr(start, end - start);
        if (component.empty() || component == "." || component == "..") {
            return "a unit path has an empty, '.' or '..' component";
        }
        start = end + 1;
    }
    return {};
}

std::string identityProblem(const Identity& identity) {
    if (std::string problem = identityValueProblem("version", identity.version); !problem.empty()) {
        return problem;
    }
    if (identity.abi < 1 || identity.abi > maxAbi) {
        return "the object ABI is not a number from 1 to " + std::to_string(maxAbi);
    }
    return identityValueProblem("fingerprint", identity.fingerprint);
}

std::string packProblem(const Pack& pack) {
    if (std::string problem = identityProblem(pack.identity); !problem.empty()) {
        return problem;
    }
    if (pack.units.size() > maxUnits) {
        return "more than " + std::to_string(maxUnits) + " units";
    }
    if (pack.objects.size() != pack.units.size()) {
        return "not one object per unit";
    }
    std::uint64_t total = 0;
    for (std::size_t i = 0; i < pack.units.size(); ++i) {
        const Unit& unit = pack.units[i];
        if (std::string problem = unitPathProblem(unit.path); !problem.empty()) {
            return problem;
        }
        if (i > 0 && pack.units[i - 1].path >= unit.path) {
            return pack.units[i - 1].path == unit.path ? "a unit is listed twice"
                                                       : "the units are not sorted by path";
        }
        if (!isDigest(unit.sourceSha256) || !isDigest(unit.objectSha256)) {
            return "a digest is not " + std::to_string(digestLength) +
                   " lower-case hexadecimal digits";
        }
        if (unit.objectSize > maxObjectBytes) {
            return "an object is larger than " + std::to_string(maxObjectBytes) + " bytes";
        }
        if (unit.objectSize != pack.objects[i].size()) {
            return "the object of '" + unit.path + "' is not of the size the manifest gives";
        }
        if (Sha256::hex(pack.objects[i]) != unit.objectSha256) {
            return "the object of '" + unit.path + "' does not hash to the manifest's SHA-256";
        }
        total += unit.objectSize;
    }
    if (total > maxPackBytes) {
        return "the objects add up to more than " + std::to_string(maxPackBytes) + " bytes";
    }
    return {};
}

void addUnit(Pack& pack, std::string path, std::uint64_t sourceSize, std::string sourceSha256,
             std::string object) {
    Unit unit{std::move(path), sourceSize, std::move(sourceSha256), object.size(),
              Sha256::hex(object)};
    const auto at = std::upper_bound(pack.units.begin(), pack.units.end(), unit,
                                     [](const Unit& a, const Unit& b) { return a.path < b.path; });
    const auto index = at - pack.units.begin();
    pack.units.insert(at, std::move(unit));
    pack.objects.insert(pack.objects.begin() + index, std::move(object));
}

std::string signedText(const Pack& pack) {
    std::string text;
    text.reserve(128 + pack.units.size() * (2 * digestLength + 96));
    text += header;
    text += lineEnd;
    text += formatKey;
    text += std::to_string(formatNumber);
    text += lineEnd;
    text += versionKey;
    text += pack.identity.version;
    text += lineEnd;
    text += abiKey;
    text += std::to_string(pack.identity.abi);
    text += lineEnd;
    text += fingerprintKey;
    text += pack.identity.fingerprint;
    text += lineEnd;
    text += unitsKey;
    text += std::to_string(pack.units.size());
    text += lineEnd;
    for (const Unit& unit : pack.units) {
        text += unitTag;
        text += fieldSeparator;
        text += escapedPath(unit.path);
        text += fieldSeparator;
        text += std::to_string(unit.sourceSize);
        text += fieldSeparator;
        text += unit.sourceSha256;
        text += fieldSeparator;
        text += std::to_string(unit.objectSize);
        text += fieldSeparator;
        text += unit.objectSha256;
        text += lineEnd;
    }
    text += objectsLine;
    text += lineEnd;
    return text;
}

std::string encode(const Pack& pack) {
    if (std::string problem = packProblem(pack); !problem.empty()) {
        throw std::invalid_argument("cannot write a pack: " + problem);
    }
    std::string bytes = signedText(pack);
    std::size_t total = bytes.size();
    for (const std::string& object : pack.objects) {
        total += object.size();
    }
    bytes.reserve(total);
    for (const std::string& object : pack.objects) {
        bytes += object;
    }
    return bytes;
}

std::string decode(std::string_view bytes, Pack& pack) {
    pack = Pack{};
    if (bytes.size() > maxPackBytes) {
        return "larger than " + std::to_string(maxPackBytes) + " bytes";
    }
    Cursor cursor(bytes);
    std::string_view text;
    if (!cursor.line(text) || text != header) {
        return "not a Quor library pack";
    }
    std::string problem;
    if (!keyedLine(cursor, formatKey, text, problem)) {
        return problem;
    }
    if (text != std::to_string(formatNumber)) {
        return "written in pack format '" + std::string(text.substr(0, 16)) + "', not " +
               std::to_string(formatNumber);
    }
    if (!keyedLine(cursor, versionKey, text, problem)) {
        return problem;
    }
    pack.identity.version = std::string(text.substr(0, maxIdentityValueBytes + 1));
    std::uint64_t number = 0;
    if (!keyedLine(cursor, abiKey, text, problem)) {
        return problem;
    }
    if (!parseNumber(text, number) || number > std::uint64_t(maxAbi)) {
        return "the object ABI is not a number from 1 to " + std::to_string(maxAbi);
    }
    pack.identity.abi = static_cast<int>(number);
    if (!keyedLine(cursor, fingerprintKey, text, problem)) {
        return problem;
    }
    pack.identity.fingerprint = std::string(text.substr(0, maxIdentityValueBytes + 1));
    if (problem = identityProblem(pack.identity); !problem.empty()) {
        return problem;
    }
    if (!keyedLine(cursor, unitsKey, text, problem)) {
        return problem;
    }
    std::uint64_t count = 0;
    if (!parseNumber(text, count)) {
        return "the unit count is not a number";
    }
    if (count > maxUnits) {
        return "more than " + std::to_string(maxUnits) + " units";
    }
    // Every unit line takes more than this, so a count the input cannot hold
    // is refused before anything is set aside for it.
    constexpr std::size_t shortestUnitLine = 2 * digestLength + 12;
    if (count > cursor.left() / shortestUnitLine) {
        return "the unit count is more than the pack has room for";
    }
    pack.units.reserve(count);
    std::uint64_t objectBytes = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        if (!cursor.line(text)) {
            return "the manifest ends before its last unit";
        }
        const std::vector<std::string_view> fields = fieldsOf(text);
        if (fields.size() != 6 || fields[0] != unitTag) {
            return "a manifest line is not a unit with six fields";
        }
        Unit unit;
        unit.path = unescapedPath(fields[1], problem);
        if (!problem.empty()) {
            return problem;
        }
        if (problem = unitPathProblem(unit.path); !problem.empty()) {
            return problem;
        }
        if (escapedPath(unit.path) != fields[1]) {
            return "a unit path is not escaped as the writer escapes it";
        }
        if (!parseNumber(fields[2], unit.sourceSize) || !parseNumber(fields[4], unit.objectSize)) {
            return "a size is not a decimal number";
        }
        if (!isDigest(fields[3]) || !isDigest(fields[5])) {
            return "a digest is not " + std::to_string(digestLength) +
                   " lower-case hexadecimal digits";
        }
        unit.sourceSha256 = fields[3];
        unit.objectSha256 = fields[5];
        if (unit.objectSize > maxObjectBytes) {
            return "an object is larger than " + std::to_string(maxObjectBytes) + " bytes";
        }
        if (!pack.units.empty() && pack.units.back().path >= unit.path) {
            return pack.units.back().path == unit.path ? "a unit is listed twice"
                                                       : "the units are not sorted by path";
        }
        objectBytes += unit.objectSize;
        if (objectBytes > bytes.size()) {
            return "the objects' sizes add up to more than the pack holds";
        }
        pack.units.push_back(std::move(unit));
    }
    if (!cursor.line(text) || text != objectsLine) {
        return "no 'objects' line after the manifest";
    }
    if (objectBytes > cursor.left()) {
        return "the objects' sizes add up to more than the pack holds";
    }
    if (objectBytes < cursor.left()) {
        return "bytes follow the last object";
    }
    pack.objects.reserve(pack.units.size());
    std::size_t at = cursor.position();
    for (const Unit& unit : pack.units) {
        const std::string_view object = bytes.substr(at, unit.objectSize);
        at += object.size();
        if (Sha256::hex(object) != unit.objectSha256) {
            return "the object of '" + escapedPath(unit.path) +
                   "' does not hash to the manifest's SHA-256";
        }
        pack.objects.emplace_back(object);
    }
    return {};
}

std::size_t signedLength(std::string_view bytes) {
    Cursor cursor(bytes);
    std::string_view text;
    while (cursor.line(text)) {
        if (text == objectsLine) {
            return cursor.position();
        }
    }
    return bytes.size();
}

} // namespace quor::compiler::pack
