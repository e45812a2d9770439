#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

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
    const auto entries = ConfigCheck::Parse(
        "# comment\n"
        "  ! another\n"
        "\n"
        "a.b = one\r\n"
        "c.d: two = 2\n"
        "long = first \\\n"
        "       second\n"
        "lonely\n"
        " = orphan\n"
        "after=x",
        findings);
    ASSERT_EQ(entries.size(), 5u);
    EXPECT_EQ(entries[0].key, "a.b");
    EXPECT_EQ(entries[0].value, "one");
    EXPECT_EQ(entries[0].line, 4);
    EXPECT_EQ(entries[1].key, "c.d");
    EXPECT_EQ(entries[1].value, "two = 2");
    EXPECT_EQ(entries[2].value, "first second");
    EXPECT_EQ(entries[2].line, 6);
    EXPECT_EQ(entries[3].key, "lonely");
    EXPECT_EQ(entries[3].line, 8);
    EXPECT_EQ(entries[4].key, "after");
    EXPECT_EQ(entries[4].line, 10);
    ASSERT_EQ(findings.size(), 2u);
    EXPECT_EQ(findings[0].line, 8);
    EXPECT_EQ(findings[1].line, 9);
}

TEST(ConfigCheckValues, StartRefusalsAreErrorsAndRunFallbacksAreWarnings) {
    const auto findings = Check(
        "cpu.limit_percent = 101\n"
        "policy.scan_ms = 10\n"
        "log.level = loud\n"
        "module.dir = /nonexistent/modules\n"
        "audit.backlog = 0\n"
        "report.syslog.facility = local9\n"
        "report.http.url = ftp://collector\n"
        "report.http.verify_peer = yes\n"
        "status.interval_s = soon\n"
        "report.http.batch =\n"
        "log.level = debug\n"
        "no.such.setting = 1\n");
    std::ostringstream all;
    for (const auto& f : findings) all << f.line << (f.invalid ? " E " : " W ") << f.reason << "\n";
    const struct {
        int line;
        bool invalid;
        const char* says;
    } expected[] = {
        {1, true, "cpu.limit_percent must be a number from 0 to 100"},
        {2, true, "policy.scan_ms must be a number of milliseconds, at least 50"},
        {3, true, "unknown log level 'loud'"},
        {4, true, "module directory /nonexistent/modules does not exist"},
        {5, false, "audit.backlog should be a whole number, at least 1"},
        {6, false, "unknown syslog facility 'local9'"},
        {7, false, "report.http.url should be an http:// or https:// URL"},
        {8, false, "report.http.verify_peer should be true or false"},
        {9, false, "status.interval_s should be a whole number, at least 0"},
        {11, false, "log.level is set again (first on line 3); this value wins"},
        {12, false, "unknown setting no.such.setting"},
    };
    ASSERT_EQ(findings.size(), sizeof(expected) / sizeof(expected[0])) << all.str();
    for (size_t i = 0; i < findings.size(); ++i) {
        EXPECT_EQ(findings[i].line, expected[i].line) << all.str();
        EXPECT_EQ(findings[i].invalid, expected[i].invalid) << all.str();
        EXPECT_EQ(findings[i].reason.rfind(expected[i].says, 0), 0u) << all.str();
    }
}

TEST(ConfigCheckValues, EdgesOfTheRangesAreTaken) {
    EXPECT_EQ(Check("cpu.limit_percent = 0\ncpu.limit_percent = 100\n").size(), 1u);
    EXPECT_TRUE(Check("policy.scan_ms = 50\nreport.http.retry_max_ms = 3600000\n"
                      "report.syslog.target = tcp:127.0.0.1:514\nreport.http.url = https://x/\n")
                    .empty());
    EXPECT_EQ(Check("report.http.retry_max_ms = 3600001\n").size(), 1u);
}

// The installed settings file names only settings the agent knows, with usable values; only
// its directories may be missing on a machine where nothing is installed.
TEST(ConfigCheckValues, TheShippedSettingsFileIsClean) {
    std::ifstream in(std::string(TARNWICK_SOURCE_DIR) + "/agent/etc/agent.properties");
    ASSERT_TRUE(in.good());
    std::ostringstream text;
    text << in.rdbuf();
    for (const auto& finding : Check(text.str())) {
        EXPECT_NE(finding.reason.find("directory /usr/local/tarnwick/"), std::string::npos)
            << finding.line << ": " << finding.reason;
    }
}

}  // namespace

namespace {
TEST(ConfigCheckMetrics, EndpointSettingsAreCheckedLikeTheAgentStartsWithThem) {
    EXPECT_TRUE(Check("metrics.enabled = false\nmetrics.address = 127.0.0.1\n"
                      "metrics.port = 0\n")
                    .empty());
    auto findings = Check(
        "metrics.enabled = no\nmetrics.address = localhost\n"
        "metrics.port = 65536\n");
    ASSERT_EQ(findings.size(), 3u);
    for (const auto& finding : findings) EXPECT_TRUE(finding.invalid) << finding.reason;
    EXPECT_EQ(findings[1].line, 2);
    EXPECT_NE(findings[1].reason.find("IP address"), std::string::npos);
    // Reachable from elsewhere: allowed, but worth a warning.
    findings = Check("metrics.address = 0.0.0.0\n");
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_FALSE(findings[0].invalid);
    EXPECT_NE(findings[0].reason.find("not a loopback address"), std::string::npos);
    EXPECT_EQ(ConfigCheck::StartProblem("metrics.port", "-1"),
              "metrics.port must be a number from 0 (any free port) to 65535");
    EXPECT_EQ(ConfigCheck::StartProblem("metrics.address", "::1"), "");
}
}  // namespace
