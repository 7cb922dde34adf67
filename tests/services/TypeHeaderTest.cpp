// parseTypeHeader over lines that are headers, lines that look almost like
// headers, and ordinary source lines.

#include "compiler/source/TypeHeader.h"

#include <gtest/gtest.h>

namespace {

using quor::compiler::source::parseTypeHeader;
using quor::compiler::source::TypeHeader;
using quor::compiler::source::TypeKind;

struct Expected {
    std::string line;
    TypeKind kind;
    bool isAbstract, isSealed, isExtern;
    std::string visibility, name, parameters, bases, constraints, rest;
};

// Names the case in test listings by the declared type.
void PrintTo(const Expected& expected, std::ostream* out) {
    *out << expected.name;
}

class GoodHeaders : public testing::TestWithParam<Expected> {};

TEST_P(GoodHeaders, SplitIntoFields) {
    const Expected& e = GetParam();
    TypeHeader header;
    ASSERT_TRUE(parseTypeHeader(e.line, header)) << e.line;
    EXPECT_EQ(header.kind, e.kind);
    EXPECT_EQ(header.flag1, e.isAbstract);
    EXPECT_EQ(header.flag2, e.isSealed);
    EXPECT_EQ(header.flag3, e.isExtern);
    EXPECT_EQ(header.text1, e.visibility);
    EXPECT_EQ(header.typeName, e.name);
    EXPECT_EQ(header.text3, e.parameters);
    EXPECT_EQ(header.text4, e.bases);
    EXPECT_EQ(header.text5, e.constraints);
    EXPECT_EQ(header.text6, e.rest);
}

INSTANTIATE_TEST_SUITE_P(
    TypeHeaderTest, GoodHeaders,
    testing::Values(
        Expected{"struct Point {", TypeKind::Struct, false, false, false, "", "Point", "", "", "",
                 ""},
        Expected{"public sealed class List<T> : Sequence<T>, Sized where T: Equatable { // x",
                 TypeKind::Class, false, true, false, "public", "List", "T", "Sequence<T>, Sized",
                 "T: Equatable", "// x"},
        Expected{"    private enum Color { Red, Green }", TypeKind::Enum, false, false, false,
                 "private", "Color", "", "", "", "Red, Green }"},
        Expected{"public abstract class Stream : Closeable {", TypeKind::Class, true, false, false,
                 "public", "Stream", "", "Closeable", "", ""},
        Expected{"extern struct Handle {}", TypeKind::Struct, false, false, true, "", "Handle", "",
                 "", "", "}"},
        Expected{"public interface Map<K, V> : Sized where K: Hashable {", TypeKind::Interface,
                 false, false, false, "public", "Map", "K, V", "Sized", "K: Hashable", ""},
        Expected{"trait Ordered<T: Comparable<T>> {", TypeKind::Trait, false, false, false, "",
                 "Ordered", "T: Comparable<T>", "", "", ""},
        Expected{"\tinternal extern sealed class _Raw2 : Base<Pair<K, V>>{\r", TypeKind::Class,
                 false, true, true, "internal", "_Raw2", "", "Base<Pair<K, V>>", "", ""},
        Expected{"class Box < T > :Wrapper<T>where T: Copy{ let x: T }  \r", TypeKind::Class, false,
                 false, false, "", "Box", "T", "Wrapper<T>", "T: Copy", "let x: T }"},
        Expected{"class Somewhere : Elsewhere {", TypeKind::Class, false, false, false, "",
                 "Somewhere", "", "Elsewhere", "", ""},
        Expected{"sealed extern trait Marker{", TypeKind::Trait, false, true, true, "", "Marker",
                 "", "", "", ""}));

class BadLines : public testing::TestWithParam<std::string> {};

TEST_P(BadLines, AreNotHeaders) {
    TypeHeader header;
    EXPECT_FALSE(parseTypeHeader(GetParam(), header)) << GetParam();
    // The caller's record stays as it was handed in.
    EXPECT_EQ(header.kind, TypeKind::Class);
    EXPECT_TRUE(header.typeName.empty());
    EXPECT_TRUE(header.text6.empty());
}

INSTANTIATE_TEST_SUITE_P(
    TypeHeaderTest, BadLines,
    testing::Values("", "   ", "\r", "}", "// class A {", "/* */ class A {", "fn main() {",
                    "let x = 1", "class", "class {", "class A", "class A<T> : B", "class class {",
                    "class where {", "class A<> {", "class A<T {", "class A<T>> {", "class A : {",
                    "class A : B<C {", "class A : B where {", "class A where {", "class A where{",
                    "class A B {", "class A.B {", "class A(x) {", "classA {",
                    "public public class A {", "sealed public class A {",
                    "abstract sealed class A {", "sealed abstract class A {",
                    "extern extern class A {", "static class A {", "Public class A {", "public",
                    "public abstract", "class 9A {", "class A : B } {", "class A<T{> {",
                    "struct\u00e9 A {", "class A\t: B<T>\rC {", "record A {", "enumeration A {",
                    "x class A {"));

TEST(TypeHeaderTest, WhereInsideAWordIsNotAConstraint) {
    TypeHeader header;
    ASSERT_TRUE(parseTypeHeader("class A : Nowhere {", header));
    EXPECT_EQ(header.text4, "Nowhere");
    EXPECT_TRUE(header.text5.empty());
}

TEST(TypeHeaderTest, IsGenericExactlyWhenTheHeaderHasTypeParameters) {
    for (const char* line : {"public class List<T> {", "struct Pair<K, V> {",
                             "interface Map<K, V> : Sized where K : Hashable {"}) {
        TypeHeader header;
        ASSERT_TRUE(parseTypeHeader(line, header)) << line;
        EXPECT_TRUE(isGeneric(header)) << line;
    }
    for (const char* line :
         {"public class Text : Object {", "enum Ordering {", "class Box : Container<Int> {"}) {
        TypeHeader header;
        ASSERT_TRUE(parseTypeHeader(line, header)) << line;
        EXPECT_FALSE(isGeneric(header)) << line;
    }
}

} // namespace
