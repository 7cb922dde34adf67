#!/usr/bin/env python3
"""Writes a synthetic Quor standard library for the benchmarks.

The tree looks like a real library grown large: packages nested up to three
folders deep, a few units in the library root, each unit a few KiB of Quor in
the syntax of docs/language.md (package and use lines, one main type with
fields, members and nested helpers, top-level functions, comments, literals of
every kind). About a fifth of the units declare a generic main type, which the
bootstrap leaves out of the precompiled library; a few units have no header at
all, and a few open with a header for another name, which the bootstrap still
compiles.

The output depends only on --units and --seed: the same arguments give a
byte-identical tree on every machine, so figures taken on different days
describe the same work. The fingerprint file of an installed library
(.quor-stdlib-fingerprint, the recipe of docs/stdlib-fingerprint.md) is
written into the root, so that the ready path reads exactly what it reads in an
installed compiler.

    generate_library.py --units 20000 --seed 1 --out lib20k

A summary (units, generic units, bytes, folders, fingerprint) is printed as
one JSON line on standard output.
"""

import argparse
import hashlib
import json
import os
import random
import shutil
import sys

KEYWORDS = {
    "package", "use", "public", "internal", "private", "abstract", "sealed",
    "extern", "struct", "enum", "class", "interface", "trait", "where", "fn",
    "let", "var", "const", "static", "override", "return", "if", "else",
    "while", "for", "in", "match", "break", "continue", "true", "false", "null",
    "self", "as", "is",
}

PACKAGE_WORDS = [
    "alpha", "archive", "audio", "buffer", "cache", "codec", "compress",
    "config", "crypto", "data", "debug", "diff", "encoding", "event", "format",
    "geometry", "graph", "hash", "image", "index", "json", "lexer", "logging",
    "markup", "memory", "net", "numeric", "parse", "pipeline", "process",
    "random", "reflect", "regex", "render", "schema", "search", "serial",
    "signal", "sql", "stream", "sync", "table", "task", "term", "test",
    "unicode", "units", "uri", "vector", "xml",
]

ADJECTIVES = [
    "Atomic", "Balanced", "Bounded", "Buffered", "Cached", "Chunked",
    "Compact", "Concurrent", "Dense", "Durable", "Dynamic", "Fixed", "Frozen",
    "Growable", "Hashed", "Indexed", "Lazy", "Linked", "Local", "Mapped",
    "Nested", "Ordered", "Packed", "Paged", "Persistent", "Pooled", "Ranked",
    "Ring", "Scoped", "Shared", "Sorted", "Sparse", "Streaming", "Striped",
    "Tagged", "Tiered", "Typed", "Versioned", "Weighted", "Windowed",
]

NOUNS = [
    "Allocator", "Arena", "Batch", "Bitmap", "Block", "Buffer", "Builder",
    "Channel", "Cursor", "Decoder", "Digest", "Encoder", "Frame", "Graph",
    "Handle", "Heap", "Index", "Journal", "Ledger", "Lexer", "Matrix",
    "Monitor", "Parser", "Pipe", "Pool", "Queue", "Reader", "Record",
    "Registry", "Scanner", "Schedule", "Segment", "Signal", "Slab", "Table",
    "Ticket", "Token", "Tracker", "Tree", "Writer",
]

VERBS = [
    "append", "apply", "balance", "check", "clear", "close", "collect",
    "combine", "compact", "compute", "convert", "copy", "count", "decode",
    "drain", "encode", "expand", "fill", "filter", "find", "flush", "fold",
    "grow", "hash", "insert", "load", "merge", "measure", "open", "pack",
    "parse", "push", "read", "reduce", "refresh", "render", "reset", "resize",
    "scan", "seal", "shift", "shrink", "sort", "split", "store", "trim",
    "update", "validate", "visit", "write",
]

FIELD_WORDS = [
    "capacity", "count", "cursor", "depth", "offset", "length", "limit",
    "total", "weight", "width", "height", "start", "stop", "stride", "seed",
    "version", "epoch", "budget", "margin", "window",
]

SIMPLE_TYPES = ["Int", "Bool", "String", "Float", "Char", "Byte"]

SENTENCES = [
    "Keeps its elements in one contiguous block so that scans stay cheap.",
    "Every operation runs in amortised constant time unless noted otherwise.",
    "The caller owns the returned value; nothing here keeps a reference.",
    "Growth doubles the capacity, so appends copy each element at most twice.",
    "Lookups never allocate; only insertions may grow the backing storage.",
    "An empty instance costs no allocation until the first element arrives.",
    "Iteration order is the insertion order and stays stable across growth.",
    "Values are compared with their own equality, never by identity.",
    "Errors are returned as values; nothing in this unit panics on bad input.",
    "The layout mirrors the on-disk format, field for field.",
]

STRING_LITERALS = [
    '"ok"', '"index out of range"', '"line\\n"', '"tab\\tseparated"',
    '"quote \\" inside"', '"back\\\\slash"', '"smile \\u{1F600}"', '"caf\\u{E9}"',
    '"nul\\0end"', '""',
]

CHAR_LITERALS = ["'a'", "'\\n'", "'\\t'", "'\\u{E9}'", "'\\''", "'z'", "'\\\\'"]

NUMBER_LITERALS = [
    "0", "1", "42", "1_000", "1_000_000", "0xFF", "0xFF_FF", "0b1010",
    "3.25", "6.02e23", "1e-9", "255", "65_536",
]


def identifier(word):
    """Words never collide with reserved ones; guard anyway, cheaply."""
    return word + "_" if word in KEYWORDS else word


class UnitWriter:
    """Builds the text of one unit. Every line it emits is lexically valid,
    keeps brackets balanced, and never uses a kind keyword, 'package' or 'use'
    outside the lines those words must begin."""

    def __init__(self, rng, package, type_name, known_types, target_bytes, shape):
        self.rng = rng
        self.package = package
        self.type_name = type_name
        self.known_types = known_types
        self.target_bytes = target_bytes
        self.shape = shape  # "plain", "generic", "headerless", "foreign"
        self.lines = []
        self.size = 0

    def emit(self, line=""):
        self.lines.append(line)
        self.size += len(line) + 1

    def literal(self):
        pick = self.rng.random()
        if pick < 0.45:
            return self.rng.choice(NUMBER_LITERALS)
        if pick < 0.8:
            return self.rng.choice(STRING_LITERALS)
        return self.rng.choice(CHAR_LITERALS)

    def comment_block(self, indent):
        count = self.rng.randint(1, 3)
        if self.rng.random() < 0.3:
            self.emit(indent + "/*")
            for _ in range(count):
                self.emit(indent + " * " + self.rng.choice(SENTENCES))
            self.emit(indent + " */")
        else:
            for _ in range(count):
                self.emit(indent + "// " + self.rng.choice(SENTENCES))

    def statement_block(self, indent, depth, type_param):
        rng = self.rng
        for _ in range(rng.randint(2, 5)):
            pick = rng.random()
            field = rng.choice(FIELD_WORDS)
            if pick < 0.25:
                self.emit(f"{indent}let {field}Next = {field} + {rng.choice(NUMBER_LITERALS)}")
            elif pick < 0.4 and depth < 2:
                self.emit(f"{indent}if {field} > {rng.choice(NUMBER_LITERALS)} {{")
                self.statement_block(indent + "    ", depth + 1, type_param)
                if rng.random() < 0.5:
                    self.emit(indent + "} else {")
                    self.statement_block(indent + "    ", depth + 1, type_param)
                self.emit(indent + "}")
            elif pick < 0.5 and depth < 2:
                self.emit(f"{indent}while {field} < limit && !done() {{")
                self.emit(f"{indent}    {field} = {field} + 1")
                self.emit(indent + "}")
            elif pick < 0.6 and depth < 2:
                self.emit(f"{indent}for item in items[0..{field}] {{")
                self.emit(f"{indent}    total = total + item.{rng.choice(VERBS)}({self.literal()})")
                self.emit(indent + "}")
            elif pick < 0.7:
                self.emit(f"{indent}log.write({rng.choice(STRING_LITERALS)}, {rng.choice(CHAR_LITERALS)})")
            elif pick < 0.8 and type_param:
                self.emit(f"{indent}let probe: Option<{type_param}> = Option.none()")
            elif pick < 0.9:
                self.emit(f"{indent}{field} = ({field} * 31 + {rng.choice(NUMBER_LITERALS)}) % 0x7FFF_FFFF; check({field})")
            else:
                self.emit(f"{indent}// {rng.choice(SENTENCES)}")

    def member_function(self, indent, type_param, abstract_only):
        rng = self.rng
        verb = rng.choice(VERBS)
        noun = rng.choice(NOUNS)
        name = f"{verb}{noun}{rng.randint(0, 99)}"
        params = ", ".join(
            f"{rng.choice(FIELD_WORDS)}{k}: {type_param if type_param and rng.random() < 0.3 else rng.choice(SIMPLE_TYPES)}"
            for k in range(rng.randint(0, 3)))
        result = rng.choice(SIMPLE_TYPES + ([type_param] if type_param else []))
        prefix = "static " if rng.random() < 0.15 else ("override " if rng.random() < 0.1 else "")
        if abstract_only:
            self.emit(f"{indent}fn {name}({params}) -> {result}")
            return
        if rng.random() < 0.2:
            self.emit(f"{indent}{prefix}fn {name}({params}) -> {result} {{ return {self.literal()} }}")
            return
        self.emit(f"{indent}{prefix}fn {name}({params}) -> {result} {{")
        self.statement_block(indent + "    ", 0, type_param)
        self.emit(f"{indent}    return {self.literal()}")
        self.emit(indent + "}")

    def nested_helper(self, indent):
        rng = self.rng
        name = f"{self.type_name}{rng.choice(NOUNS)}Part"
        kind = rng.choice(["struct", "class", "enum"])
        if kind == "enum":
            self.emit(f"{indent}private enum {name} {{ First, Second, Third }}")
            return
        self.emit(f"{indent}private {kind} {name} {{")
        for _ in range(rng.randint(1, 3)):
            self.emit(f"{indent}    var {rng.choice(FIELD_WORDS)}: {rng.choice(SIMPLE_TYPES)}")
        self.emit(indent + "}")

    def type_header(self, kind, generic):
        rng = self.rng
        words = []
        if rng.random() < 0.85:
            words.append("public")
        elif rng.random() < 0.5:
            words.append("internal")
        if kind == "class":
            pick = rng.random()
            if pick < 0.2:
                words.append("sealed")
            elif pick < 0.3:
                words.append("abstract")
        if kind == "struct" and rng.random() < 0.1:
            words.append("extern")
        words.append(kind)
        head = " ".join(words) + " " + self.type_name
        type_param = None
        if generic:
            choice = rng.random()
            if choice < 0.5:
                head += "<T>"
                type_param = "T"
            elif choice < 0.8:
                head += "<K, V>"
                type_param = "V"
            else:
                head += "<T: Comparable<T>>"
                type_param = "T"
        if kind != "enum" and self.known_types and rng.random() < 0.6:
            bases = rng.sample(self.known_types, min(len(self.known_types), rng.randint(1, 2)))
            base_names = [b.rsplit(".", 1)[1] for b in bases]
            if type_param and rng.random() < 0.5:
                base_names.append(f"Sequence<{type_param}>")
            head += " : " + ", ".join(base_names)
        if generic and kind != "enum" and rng.random() < 0.3:
            head += f" where {type_param}: Equatable"
        head += " {"
        return head, type_param

    def body(self, kind, type_param):
        rng = self.rng
        indent = "    "
        if kind == "enum":
            cases = rng.sample(NOUNS, rng.randint(2, 6))
            self.emit(indent + ", ".join(cases))
            self.emit()
        abstract_only = kind in ("interface", "trait")
        if not abstract_only:
            for _ in range(rng.randint(1, 4)):
                field = rng.choice(FIELD_WORDS)
                ftype = type_param if type_param and rng.random() < 0.3 else rng.choice(SIMPLE_TYPES)
                if rng.random() < 0.5:
                    self.emit(f"{indent}var {field}: {ftype} = {rng.choice(NUMBER_LITERALS)}")
                else:
                    self.emit(f"{indent}let {field}: {ftype}")
            self.emit()
        # Members until the unit reaches its size; a unit is never all header.
        while True:
            if rng.random() < 0.3:
                self.comment_block(indent)
            self.member_function(indent, type_param, abstract_only)
            if rng.random() < 0.08:
                self.nested_helper(indent)
            if self.size >= self.target_bytes * 0.8:
                break
            self.emit()

    def top_level_functions(self, count):
        rng = self.rng
        for _ in range(count):
            self.emit()
            if rng.random() < 0.3:
                self.comment_block("")
            name = f"{rng.choice(VERBS)}{self.type_name}{rng.randint(0, 999)}"
            if rng.random() < 0.1:
                self.emit(f"extern fn {name}(handle: Int) -> Int")
                continue
            visibility = "public " if rng.random() < 0.7 else ""
            generic = "<T>" if rng.random() < 0.15 else ""
            arg = "T" if generic else rng.choice(SIMPLE_TYPES)
            self.emit(f"{visibility}fn {name}{generic}(value: {arg}, limit: Int) -> Int {{")
            self.statement_block("    ", 0, "T" if generic else None)
            self.emit(f"    return {rng.choice(NUMBER_LITERALS)}")
            self.emit("}")

    def render(self):
        rng = self.rng
        self.emit(f"// {self.type_name}: {rng.choice(SENTENCES)}")
        self.emit("//")
        self.emit(f"// {rng.choice(SENTENCES)}")
        if self.package:
            self.emit(f"package {self.package}")
        self.emit()
        if self.known_types:
            for used in sorted(set(rng.sample(self.known_types, min(len(self.known_types), rng.randint(0, 4))))):
                if rng.random() < 0.15:
                    self.emit(f"use {used} as {used.rsplit('.', 1)[1]}Alias")
                else:
                    self.emit(f"use {used}")
            self.emit()

        if self.shape == "headerless":
            while self.size < self.target_bytes * 0.8:
                self.top_level_functions(1)
            return "\n".join(self.lines) + "\n"

        if self.shape == "foreign":
            # A helper declared first: its header names another type, which
            # the bootstrap's header test passes over to find the unit's own.
            self.emit(f"internal struct {self.type_name}Helper {{")
            self.emit("    var count: Int = 0")
            self.emit("}")
            self.emit()

        kind_pick = rng.random()
        kind = ("class" if kind_pick < 0.5 else "struct" if kind_pick < 0.7 else
                "enum" if kind_pick < 0.82 else "interface" if kind_pick < 0.94 else "trait")
        generic = self.shape == "generic"
        self.comment_block("")
        header, type_param = self.type_header(kind, generic)
        self.emit(header)
        self.body(kind, type_param)
        self.emit("}")
        self.top_level_functions(rng.randint(0, 2))
        return "\n".join(self.lines) + "\n"


def plan_folders(rng, units):
    """Folder paths (tuples of names) with the number of units in each."""
    folders = [((), min(units, rng.randint(3, 8)))]
    assigned = folders[0][1]
    used_names = set()
    while assigned < units:
        # Broad near the root and thinning out with depth, as libraries are:
        # the parent is the root, a package or a subpackage, in falling shares.
        depth = 0 if len(folders) < 4 else rng.choices([0, 1, 2], weights=[3, 5, 2])[0]
        parent_choices = [f for f, _ in folders if len(f) == depth] or [()]
        parent = rng.choice(parent_choices)
        while True:
            name = identifier(f"{rng.choice(PACKAGE_WORDS)}{rng.randint(0, 999)}")
            if (parent, name) not in used_names:
                used_names.add((parent, name))
                break
        count = min(units - assigned, rng.randint(8, 48))
        folders.append((parent + (name,), count))
        assigned += count
    return folders


def generate(units, seed, out):
    rng = random.Random(seed)
    folders = plan_folders(rng, units)
    known_types = []  # dotted names of earlier non-generic types, for use lines
    files = []
    index = 0
    generic_units = 0
    for folder, count in folders:
        package = ".".join(folder)
        for _ in range(count):
            type_name = f"{rng.choice(ADJECTIVES)}{rng.choice(NOUNS)}{index}"
            pick = rng.random()
            shape = ("headerless" if pick < 0.03 else "foreign" if pick < 0.05 else
                     "generic" if pick < 0.25 else "plain")
            if shape == "generic":
                generic_units += 1
            target = rng.randint(1536, 5120)
            writer = UnitWriter(rng, package, type_name, known_types[-200:], target, shape)
            text = writer.render()
            relative = "/".join(folder + (type_name + ".qr",))
            files.append((relative, text.encode("ascii")))
            if shape == "plain" and package:
                known_types.append(f"{package}.{type_name}")
            index += 1

    os.makedirs(out)
    manifest = []
    total_bytes = 0
    for relative, data in sorted(files):
        path = os.path.join(out, relative)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as stream:
            stream.write(data)
        manifest.append(f"{hashlib.sha256(data).hexdigest()}  {relative}\n")
        total_bytes += len(data)
    fingerprint = hashlib.sha256("".join(manifest).encode("utf-8")).hexdigest()
    with open(os.path.join(out, ".quor-stdlib-fingerprint"), "w") as stream:
        stream.write(fingerprint + "\n")
    return {
        "units": units,
        "seed": seed,
        "generic_units": generic_units,
        "compiled_units": units - generic_units,
        "bytes": total_bytes,
        "folders": len(folders),
        "fingerprint": fingerprint,
    }


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--units", type=int, required=True, help="number of .qr units")
    parser.add_argument("--seed", type=int, default=1, help="seed of the generator")
    parser.add_argument("--out", required=True, help="library root to create")
    parser.add_argument("--force", action="store_true", help="replace an existing --out")
    args = parser.parse_args()
    if args.units < 1:
        parser.error("--units must be at least 1")
    if os.path.exists(args.out):
        if not args.force:
            parser.error(f"{args.out} exists (use --force to replace it)")
        shutil.rmtree(args.out)
    summary = generate(args.units, args.seed, args.out)
    json.dump(summary, sys.stdout)
    sys.stdout.write("\n")


if __name__ == "__main__":
    main()
