// The object format in one place: its version (the object ABI), the records
// an object is made of, the writer that renders a unit's declarations as an
// object and the reader that takes an object apart again. docs/object-format.md
// describes the format; this module is the one that knows it. The front end
// (UnitCompiler.h) decides what an object says and the library cache
// (ObjectCache.h) where objects lie and which may be reused; both leave the
// bytes to this module, so that what is written and what is read are built on
// the same names and cannot drift apart.
//
// An object is text: one record per line, each a tag and its fields, every
// field preceded by a tab, the last record a checksum of every byte before it.
//
// Internal: included by this project's sources, never installed. Pure: the
// functions keep no state and may run on any thread.

#ifndef QUOR_COMPILER_OBJECTFORMAT_H
#define QUOR_COMPILER_OBJECTFORMAT_H

#include "compiler/source/TypeHeader.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quor::compiler::objectformat {

// The version of the format, which every object records and the library cache's
// ABI record names. Raise it whenever docs/object-format.md changes in a way a
// reader of objects would notice: a library cache written for another value
// is cleared by Compiler::ensureObjectAbiCacheCurrent(), so every cache
// rebuilds once. Compiler::objectAbiVersion() returns it.
inline constexpr int abiVersion = 2;

// The tags of the records, in the order an object holds them: the header, the
// unit's identity, its package, the declarations, the checksum.
inline constexpr std::string_view headerTag = "QUOR-OBJECT";
inline constexpr std::string_view unitTag = "unit";
inline constexpr std::string_view sourceSizeTag = "source-size";
inline constexpr std::string_view sourceSha256Tag = "source-sha256";
inline constexpr std::string_view packageTag = "package";
inline constexpr std::string_view useTag = "use";
inline constexpr std::string_view typeTag = "type";
inline constexpr std::string_view functionTag = "fn";
inline constexpr std::string_view endTag = "end";

// What precedes every field, and what ends every record.
inline constexpr char fieldSeparator = '\t';
inline constexpr char recordTerminator = '\n';

// Lower-case hexadecimal digits of a SHA-256, as the source-sha256 and end
// records give it.
inline constexpr std::size_t digestLength = 64;

// One declaration record: `use`, `type` or `fn`, with its fields as the unit
// gave them, unescaped.
struct Record {
    std::string tag;
    std::vector<std::string> fields;
    bool operator==(const Record&) const = default;
};

// `use` <line> <dotted path> <alias after "as", or empty>.
Record useRecord(std::size_t line, std::string path, std::string alias);

// `type` <line> <kind> <visibility> <modifiers> <name> <generic parameters>
// <bases> <constraints>, of the type header `header` on line `line`: the kind
// one of struct, enum, class, interface, trait; the visibility as written
// (public, internal, private or empty); the modifiers among abstract, sealed,
// extern, comma-separated in that order, or empty; then the header's name,
// generic parameters, bases and constraints as written (docs/language.md).
Record typeRecord(std::size_t line, const source::TypeHeader& header);

// `fn` <line> <name> <signature>.
Record functionRecord(std::size_t line, std::string name, std::string signature);

// Everything an object says about its unit, every field unescaped.
struct Contents {
    int abi = abiVersion;
    std::string unitPath; // below the library root, '/' separators
    std::uint64_t sourceSize = 0;
    std::string sourceSha256;         // digestLength lower-case hexadecimal digits
    std::string package;              // dotted ("collections.immutable"), or empty
    std::vector<Record> declarations; // in source order
    bool operator==(const Contents&) const = default;
};

// `field` as an object records it between tabs: backslash, tab, carriage
// return and line feed escaped ("\\", "\t", "\r", "\n"), nothing else. The
// unit path in this form is what an object found on its own identifies its
// unit by (Head::unitField).
std::string escapedField(std::string_view field);

// The object that says `contents`: the header with contents.abi, the unit's
// identity and package, the declarations in order, and the end record with
// their count and the SHA-256 of every byte before it. Never fails.
std::string render(const Contents& contents);

// What judging an object needs to know of it: its identity, fields as
// recorded (escaped).
struct Head {
    std::string abi;
    std::string unitField;
    std::string sourceSize;
    std::string sourceSha256;
};

// Reads the head of `bytes` as an object of the current ABI. Returns "" and
// fills `head` when the object is intact: its header names abiVersion, its end
// record's checksum matches every byte before it, and its next three records
// are the unit's identity. Otherwise returns what is wrong, as a phrase: "not a
// Quor object", "written for object ABI <n>, not <abiVersion>", "truncated or
// edited (its checksum does not match)". Parses nothing past the identity, so
// that judging an object costs one pass of SHA-256 over it.
std::string readHead(std::string_view bytes, Head& head);

// Reads all of `bytes` as an object of the current ABI, field for field.
// Returns "" and fills `contents` when the object is intact (readHead()) and
// every record is one the writer makes: in the order render() puts them, with
// its number of fields, each escape one of the four, lines and sizes in
// decimal without leading zeros, digests of digestLength lower-case digits,
// kinds, visibilities and modifiers from their lists, and an end record that
// counts the declarations. Otherwise returns what is wrong, as a phrase.
std::string read(std::string_view bytes, Contents& contents);

} // namespace quor::compiler::objectformat

#endif
