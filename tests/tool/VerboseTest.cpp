// `ensure --verbose`: a line per unit with its time and the slowest units at
// the end, on standard error whether it is a terminal or not; each unit's
// seconds in the JSON progress events; and "building the standard library",
// said only once a build has units to compile.

#include "ToolTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>

namespace quor::tooltest {
namespace {

const std::set<std::string> sandboxUnits = {"Prelude.qr", "collections/Stack.qr", "core/Object.qr",
                                            "core/Text.qr"};

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

TEST(VerboseEnsure, ShowsEveryUnitWithItsTimeThenTheSlowest) {
    Sandbox sandbox;
    const ToolRun run = runTool(sandbox.arguments({"ensure", "--verbose"}), sandbox.path());
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(run.out.starts_with("built 4 units in ")) << run.out;
    const std::vector<std::string> lines = linesOf(run.err);
    ASSERT_EQ(lines.size(), 1 + 4 + 1 + 4) << run.err;
    EXPECT_EQ(lines[0], "quor-stdlib: building the standard library");
    const std::string time = R"( +([0-9]+\.[0-9] ms|[0-9]+\.[0-9]{2} s))";
    const std::regex unitLine("quor-stdlib: ([1-4])/4" + time + "  (.+)");
    std::set<std::string> shown;
    std::vector<std::pair<std::string, std::string>> times;
    for (std::size_t i = 1; i <= 4; ++i) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(lines[i], match, unitLine)) << lines[i];
        EXPECT_EQ(match[1].str(), std::to_string(i)) << lines[i];
        shown.insert(match[3].str());
        times.emplace_back(match[2].str(), match[3].str());
    }
    EXPECT_EQ(shown, sandboxUnits) << run.err;
    EXPECT_EQ(lines[5], "quor-stdlib: slowest 4 units:");
    const std::regex slowLine("quor-stdlib:" + time + "  (.+)");
    const auto seconds = [](const std::string& text) {
        return std::stod(text) / (text.ends_with(" ms") ? 1000.0 : 1.0);
    };
    // The same units with the same times as their own lines, slowest first.
    std::vector<std::pair<std::string, std::string>> slowest;
    for (std::size_t i = 0; i < 4; ++i) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(lines[6 + i], match, slowLine)) << lines[6 + i];
        slowest.emplace_back(match[1].str(), match[2].str());
        if (i > 0) {
            EXPECT_LE(seconds(slowest[i].first), seconds(slowest[i - 1].first)) << run.err;
        }
    }
    std::sort(times.begin(), times.end());
    std::sort(slowest.begin(), slowest.end());
    EXPECT_EQ(slowest, times) << run.err;
}

TEST(VerboseEnsure, OnATerminalTheUnitLinesStayAboveTheProgressLine) {
    Sandbox sandbox;
    const ToolRun run =
        runToolOnTerminal(sandbox.arguments({"ensure", "-v", "--jobs", "1"}), sandbox.path(), 100);
    ASSERT_EQ(run.status, 0) << run.out;
    for (const std::string& unit : sandboxUnits)
        EXPECT_NE(run.out.find("  " + unit + "\r\n"), std::string::npos) << unit << run.out;
    EXPECT_NE(run.out.find("quor-stdlib: slowest 4 units:\r\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("built 4 units in "), std::string::npos) << run.out;
}

TEST(VerboseEnsure, AReadyCacheHasNoUnitsToShow) {
    Sandbox sandbox;
    ASSERT_EQ(runTool(sandbox.arguments({"ensure", "--quiet"}), sandbox.path()).status, 0);
    const ToolRun run = runTool(sandbox.arguments({"ensure", "--verbose"}), sandbox.path());
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "already up to date\n");
    EXPECT_EQ(run.err, "");
}

TEST(VerboseEnsure, JsonProgressEventsCarryEachUnitsTime) {
    Sandbox sandbox;
    const ToolRun run = runTool(sandbox.arguments({"ensure", "--json"}), sandbox.path());
    ASSERT_EQ(run.status, 0) << run.err;
    std::size_t units = 0;
    std::size_t others = 0;
    for (const std::string& line : linesOf(run.out)) {
        const nlohmann::json event = nlohmann::json::parse(line);
        if (event["event"] != "progress")
            continue;
        ASSERT_TRUE(event.contains("seconds")) << line;
        if (event["stage"] == "Compiling") {
            ++units;
            ASSERT_TRUE(event["seconds"].is_number()) << line;
            EXPECT_GE(event["seconds"].get<double>(), 0.0) << line;
        } else {
            ++others;
            EXPECT_TRUE(event["seconds"].is_null()) << line;
        }
    }
    EXPECT_EQ(units, 4u) << run.out;
    EXPECT_EQ(others, 2u) << run.out;
}

TEST(BuildAnnouncement, IsNotMadeForALibraryThatIsMissing) {
    Sandbox sandbox;
    fs::remove_all(sandbox.library());
    const ToolRun run = runTool(sandbox.arguments({"ensure"}), sandbox.path());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "quor-stdlib: error: Unable to enumerate Quor standard library '" +
                           sandbox.library().string() + "': No such file or directory\n");
}

TEST(BuildAnnouncement, IsMadeOnceWhenUnitsAreCompiled) {
    Sandbox sandbox;
    const ToolRun run = runTool(sandbox.arguments({"ensure"}), sandbox.path());
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(run.err.starts_with("quor-stdlib: building the standard library\n")) << run.err;
    EXPECT_EQ(run.err.find("building", 20), std::string::npos) << run.err;
}

} // namespace
} // namespace quor::tooltest
