#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "agent/ConfigCheck.h"

namespace {

using Agent::ConfigCheck;

std::vector<ConfigCheck::Finding> Check(const std::string& text) {
    std::vector<ConfigCheck::Finding> findings;
    ConfigCheck::CheckEntries(ConfigCheck::Parse(text, findings), findings);
    return findings;
}

TEST(ConfigCheckParse, EntriesKeepTheirLinesThroughCommentsAndContinuations) {
    std::vector<ConfigCheck::Finding> findings;
    std::vector<std::tuple<std::string, std::string, int>> entries;
    for (const auto& e : ConfigCheck::Parse("# comment\n"
                                            "  ! another\n"
                                            "\n"
                                            "a.b = one\r\n"
                                            "c.d: two = 2\n"
                                            "long = first \\\n"
                                            "       second\n"
                                            "lonely\n"
                                            " = orphan\n"
                                            "after=x",
                                            findings)) {
        entries.emplace_back(e.key, e.value, e.line);
    }
    EXPECT_EQ(entries, (decltype(entries){{"a.b", "one", 4},
                                          {"c.d", "two = 2", 5},
                                          {"long", "first second", 6},
                                          {"lonely", "", 8},
                                          {"after", "x", 10}}));
    ASSERT_EQ(findings.size(), 2u);
    EXPECT_EQ(findings[0].line, 8);
    EXPECT_EQ(findings[1].line, 9);
}

TEST(ConfigCheckValues, EdgesOfTheRangesAreTaken) {
    for (const char* taken :
         {"cpu.limit_percent = 0", "cpu.limit_percent = 100", "policy.scan_ms = 50",
          "report.http.retry_max_ms = 3600000", "report.syslog.target = tcp:127.0.0.1:514",
          "report.http.url = https://x/", "metrics.enabled = false", "metrics.address = 127.0.0.1",
          "metrics.address = ::1", "metrics.port = 0"}) {
        EXPECT_TRUE(Check(taken).empty()) << taken;
    }
    EXPECT_EQ(Check("report.http.retry_max_ms = 3600001").size(), 1u);
    // Reachable from elsewhere: allowed, but worth a warning.
    const auto open = Check("metrics.address = 0.0.0.0");
    ASSERT_EQ(open.size(), 1u);
    EXPECT_FALSE(open[0].invalid);
    EXPECT_NE(open[0].reason.find("not a loopback address"), std::string::npos);
}

}  // namespace
