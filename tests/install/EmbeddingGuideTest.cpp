// docs/embedding.md shows code that a compiler engineer will copy, so none of
// it may be code that was never compiled. Every block in the guide must be a
// verbatim excerpt of a file under examples/, and those files are built and
// run against the installed package by InstallTest (ExampleDriverMakesAFresh-
// CacheReady, PkgConfigConsumersBuildAndRun) and by tests/package.

#include "InstallTestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace quor::tests {
namespace {

namespace fs = std::filesystem;

const fs::path sourceDir = QUOR_TEST_SOURCE_DIR;

struct Block {
    std::string language;
    std::string text;
    int line = 0; // of the opening fence
};

// The fenced blocks of `markdown`. An indented block (four spaces after a
// blank line) would escape the check, so it fails the test instead.
std::vector<Block> fencedBlocks(const std::string& markdown) {
    std::vector<Block> blocks;
    std::istringstream lines(markdown);
    std::string line;
    std::string previous;
    int number = 0;
    bool inside = false;
    Block current;
    while (std::getline(lines, line)) {
        ++number;
        const bool indentedBlock = !inside && previous.empty() && line.rfind("    ", 0) == 0;
        EXPECT_FALSE(indentedBlock) << "line " << number << ": use a fenced block";
        previous = line;
        if (line.rfind("```", 0) == 0) {
            if (inside) {
                blocks.push_back(current);
            } else {
                current = Block{line.substr(3), "", number};
            }
            inside = !inside;
        } else if (inside) {
            current.text += line + "\n";
        }
    }
    EXPECT_FALSE(inside) << "a block opened at line " << current.line << " is never closed";
    return blocks;
}

std::vector<std::string> exampleFiles() {
    std::vector<std::string> texts;
    for (const auto& entry : fs::recursive_directory_iterator(sourceDir / "examples")) {
        if (entry.is_regular_file()) {
            texts.push_back(readFile(entry.path()));
        }
    }
    return texts;
}

TEST(EmbeddingGuide, EveryBlockIsAnExcerptOfTheBuiltExamples) {
    const std::string guide = readFile(sourceDir / "docs" / "embedding.md");
    ASSERT_FALSE(guide.empty());
    const std::vector<Block> blocks = fencedBlocks(guide);
    const std::vector<std::string> examples = exampleFiles();
    std::set<std::string> languages;
    for (const Block& block : blocks) {
        languages.insert(block.language);
        EXPECT_TRUE(block.language == "cpp" || block.language == "cmake" || block.language == "sh")
            << "line " << block.line << ": a block says what it holds (cpp, cmake, sh), not '"
            << block.language << "'";
        bool found = false;
        for (const std::string& example : examples) {
            found = found || example.find(block.text) != std::string::npos;
        }
        EXPECT_TRUE(found) << "line " << block.line << ": not found verbatim under examples/:\n"
                           << block.text;
    }
    // The walk from find_package to a first launch needs all three.
    EXPECT_EQ(languages, (std::set<std::string>{"cmake", "cpp", "sh"}));
}

// The guide sends the reader to files of examples/; they have to exist.
TEST(EmbeddingGuide, NamesOnlyFilesThatExist) {
    const std::string guide = readFile(sourceDir / "docs" / "embedding.md");
    std::size_t position = 0;
    int named = 0;
    while ((position = guide.find("examples/", position)) != std::string::npos) {
        const std::size_t end = guide.find_first_of("` )\n", position);
        const std::string path = guide.substr(position, end - position);
        // What the example's build script makes is not in the sources.
        if (path.find("/build/") == std::string::npos) {
            EXPECT_TRUE(fs::exists(sourceDir / path)) << path;
        }
        ++named;
        position = end;
    }
    EXPECT_GT(named, 0);
}

} // namespace
} // namespace quor::tests
