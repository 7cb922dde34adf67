// The command lines quor-stdlib answers without its command table: which it
// takes, the invocation it makes of them, and every form it must leave to the
// full parser.

#include "QuickCommandLine.h"
#include "Commands.h"
#include "tests/support/Environment.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

namespace quor::tooltest {
namespace {

using namespace quor::stdlibtool;

std::optional<QuickCommand> parse(const std::vector<const char*>& words) {
    return parseQuickCommandLine(words);
}

// Unsets QUOR_JOBS for one test and restores it afterwards, whatever the test
// set it to meanwhile.
class QuickCommandLine : public ::testing::Test {
private:
    testsupport::ScopedEnvironment jobs_{"QUOR_JOBS", nullptr};
};

TEST_F(QuickCommandLine, TakesEnsureWithTheGlobalOptionsOnEitherSide) {
    const auto quick = parse(
        {"--stdlib", "/lib", "ensure", "--cache-root=/cache", "--json", "-q", "--color", "never"});
    ASSERT_TRUE(quick);
    EXPECT_EQ(quick->command, findCommand("ensure"));
    const Invocation& invocation = quick->invocation;
    EXPECT_EQ(invocation.global.standardLibraryPath, "/lib");
    EXPECT_EQ(invocation.global.cacheRoot, "/cache");
    EXPECT_TRUE(invocation.global.json);
    EXPECT_TRUE(invocation.global.quiet);
    EXPECT_EQ(invocation.global.color, ColorMode::Never);
    EXPECT_FALSE(invocation.ensure.force);
    EXPECT_EQ(invocation.ensure.jobs, 0u);
    EXPECT_FALSE(invocation.ensure.timeoutSeconds);
}

TEST_F(QuickCommandLine, LeavesTheDefaultsOfAPlainEnsure) {
    const auto quick = parse({"ensure"});
    ASSERT_TRUE(quick);
    const Invocation& invocation = quick->invocation;
    EXPECT_TRUE(invocation.global.standardLibraryPath.empty());
    EXPECT_TRUE(invocation.global.cacheRoot.empty());
    EXPECT_FALSE(invocation.global.json);
    EXPECT_FALSE(invocation.global.quiet);
    EXPECT_EQ(invocation.global.color, ColorMode::Auto);
}

TEST_F(QuickCommandLine, TakesStatusOnlyWithCheck) {
    const auto quick = parse({"status", "--check", "--color=always", "--quiet"});
    ASSERT_TRUE(quick);
    EXPECT_EQ(quick->command, findCommand("status"));
    EXPECT_TRUE(quick->invocation.status.check);
    EXPECT_TRUE(quick->invocation.global.quiet);
    EXPECT_EQ(quick->invocation.global.color, ColorMode::Always);
    EXPECT_FALSE(parse({"status"}));
    EXPECT_FALSE(parse({"--check", "status"})) << "--check belongs to the subcommand";
    EXPECT_FALSE(parse({"ensure", "--check"}));
}

TEST_F(QuickCommandLine, LeavesEverythingElseToTheFullParser) {
    const std::vector<std::vector<const char*>> declined = {
        {},
        {"help"},
        {"help", "ensure"},
        {"--help"},
        {"-h"},
        {"--version"},
        {"prune"},
        {"verify"},
        {"clean"},
        {"ensure", "ensure"},
        {"ensure", "status"},
        {"ensure", "extra"},
        {"ensure", "--force"},
        {"ensure", "-f"},
        {"ensure", "--jobs", "2"},
        {"ensure", "-j2"},
        {"ensure", "--timeout", "1"},
        {"ensure", "--verbose"},
        {"ensure", "--"},
        {"ensure", "-qq"},
        {"--json", "--json", "ensure"},
        {"-q", "--quiet", "ensure"},
        {"--stdlib", "a", "--stdlib", "b", "ensure"},
        {"--stdlib", "ensure"},
        {"--stdlib", "-x", "ensure"},
        {"--stdlib=", "ensure"},
        {"--stdlibx", "a", "ensure"},
        {"ensure", "--stdlib"},
        {"--cache-root", "--json", "ensure"},
        {"--color", "red", "ensure"},
        {"--color=", "ensure"},
        {"--json=true", "ensure"},
        {"status", "--check", "--check"},
    };
    for (const auto& words : declined) {
        std::string line;
        for (const char* word : words)
            line += std::string(word) + " ";
        EXPECT_FALSE(parse(words)) << "taken: " << line;
    }
}

TEST_F(QuickCommandLine, LeavesEnsureToTheFullParserWhenQuorJobsIsSet) {
    ::setenv("QUOR_JOBS", "2", 1);
    EXPECT_FALSE(parse({"ensure"}));
    EXPECT_TRUE(parse({"status", "--check"})) << "status does not read QUOR_JOBS";
    ::setenv("QUOR_JOBS", "", 1);
    EXPECT_TRUE(parse({"ensure"})) << "an empty QUOR_JOBS is unset";
}

} // namespace
} // namespace quor::tooltest
