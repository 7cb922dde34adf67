// The command lines quor-stdlib answers without its full parser: which it
// takes, the invocation it makes of them, and every form it must leave to the
// full parser. OptionDeclarationTest holds it to every declared option.

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

TEST_F(QuickCommandLine, TakesStatusWithItsOwnOptionAfterIt) {
    const auto quick = parse({"status", "--check", "--color=always", "--quiet"});
    ASSERT_TRUE(quick);
    EXPECT_EQ(quick->command, findCommand("status"));
    EXPECT_TRUE(quick->invocation.status.check);
    EXPECT_TRUE(quick->invocation.global.quiet);
    EXPECT_EQ(quick->invocation.global.color, ColorMode::Always);
    const auto plain = parse({"status"});
    ASSERT_TRUE(plain);
    EXPECT_FALSE(plain->invocation.status.check);
    EXPECT_FALSE(parse({"--check", "status"})) << "--check belongs to the subcommand";
    EXPECT_FALSE(parse({"ensure", "--check"}));
}

TEST_F(QuickCommandLine, TakesEnsuresOwnOptions) {
    const auto quick = parse({"ensure", "--force", "-j", "3", "--timeout=2.5", "-v"});
    ASSERT_TRUE(quick);
    const EnsureOptions& ensure = quick->invocation.ensure;
    EXPECT_TRUE(ensure.force);
    EXPECT_EQ(ensure.jobs, 3u);
    ASSERT_TRUE(ensure.timeoutSeconds);
    EXPECT_EQ(*ensure.timeoutSeconds, 2.5);
    EXPECT_TRUE(ensure.verbose);
    const auto longForms = parse({"ensure", "-f", "--jobs=4", "--timeout", "0", "--verbose"});
    ASSERT_TRUE(longForms);
    EXPECT_TRUE(longForms->invocation.ensure.force);
    EXPECT_EQ(longForms->invocation.ensure.jobs, 4u);
    EXPECT_EQ(longForms->invocation.ensure.timeoutSeconds, 0.0);
    EXPECT_TRUE(longForms->invocation.ensure.verbose);
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
        {"fingerprint"},
        {"ensure", "ensure"},
        {"ensure", "status"},
        {"ensure", "extra"},
        {"status", "extra"},
        {"--force", "ensure"},
        {"ensure", "--force", "--force"},
        {"ensure", "-f", "--force"},
        {"ensure", "--force=true"},
        {"ensure", "-fv"},
        {"ensure", "-j2"},
        {"ensure", "-j=2"},
        {"ensure", "--jobs"},
        {"ensure", "--jobs", "0"},
        {"ensure", "--jobs", "-2"},
        {"ensure", "--jobs", "2", "--jobs", "3"},
        {"ensure", "--timeout", "soon"},
        {"ensure", "--timeout=-1"},
        {"ensure", "--verbose", "--quiet"},
        {"-q", "ensure", "-v"},
        {"ensure", "--dry-run"},
        {"ensure", "--write"},
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

// The full parser refuses a QUOR_JOBS that `ensure` would use but is not a
// worker count, and knows how to say so.
TEST_F(QuickCommandLine, LeavesEnsureToTheFullParserWhenQuorJobsIsNoWorkerCount) {
    ::setenv("QUOR_JOBS", "many", 1);
    EXPECT_FALSE(parse({"ensure"}));
    EXPECT_TRUE(parse({"ensure", "--jobs", "2"})) << "--jobs takes precedence";
    EXPECT_TRUE(parse({"status", "--check"})) << "status does not read QUOR_JOBS";
    ::setenv("QUOR_JOBS", "2", 1);
    EXPECT_TRUE(parse({"ensure"}));
    ::setenv("QUOR_JOBS", "", 1);
    EXPECT_TRUE(parse({"ensure"})) << "an empty QUOR_JOBS is unset";
}

} // namespace
} // namespace quor::tooltest
