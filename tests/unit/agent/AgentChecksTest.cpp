// The agent binary's command line: refusals at start, and the check commands, whose documents
// the real container file-protection module parses.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "agent/ConfigCheck.h"
#include "support/Shell.h"
#include "support/TempDir.h"

namespace {

using Result = TestSupport::Shell::Result;

// Standard output and error together.
Result RunAgent(const std::string& args) {
    return TestSupport::Shell::Run(std::string(AGENT_BINARY) + " " + args + " 2>&1");
}

struct Case {
    std::string args;
    int exitCode;
    std::vector<std::string> says;
};

void ExpectAll(const std::vector<Case>& cases, bool oneLine = false) {
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        const Result r = RunAgent(c.args);
        EXPECT_EQ(r.exitCode, c.exitCode) << r.out;
        for (const auto& says : c.says) EXPECT_NE(r.out.find(says), std::string::npos) << says;
        EXPECT_TRUE(!oneLine || std::count(r.out.begin(), r.out.end(), '\n') <= 1) << r.out;
    }
}

// Each refusal's own text: the settings' findings are checked below through --check-config.
TEST(AgentCommandLine, BadConfigurationExitsTwoWithOneLine) {
    const std::string isolated = "--config /dev/null --log - ";
    ExpectAll(
        {{"--no-such-option", 2, {"no-such-option"}},
         {isolated + "--module-dir /nonexistent/modules --policy-dir /tmp",
          2,
          {"module directory /nonexistent/modules does not exist"}},
         {isolated + "--module-dir /tmp --policy-dir /tmp", 2, {"no module could be loaded"}},
         {"--config /nonexistent/agent.properties --log -", 2, {"cannot read settings file"}}},
        true);
}

class AgentChecks : public ::testing::Test {
protected:
    // Each document in a directory of its own: the key is the file name.
    std::string Policy(const std::string& name, const std::string& text) {
        const std::string dir = std::to_string(++policies_);
        tmp_.Dir(dir);
        return "--check-policy " + tmp_.File(dir + "/" + name, text) + " --module-dir " +
               TARNWICK_LIB_DIR;
    }
    TestSupport::TempDir tmp_{"tarnwick-checks"};
    int policies_ = 0;
};

const char* const kGoodPolicy = R"({"feature_name": "dockerfile_feature", "policy_id": "p1",
  "hash": "h1", "enabled": true, "content": {"rules": [
    {"image_id": "sha256:abc", "elf_forbidden": true, "protect_files": ["/etc/passwd"]},
    {"image_name": "nginx", "fuzzy_match": true, "protect_files": ["/etc/nginx/nginx.conf"]}]}})";

// 0 valid, 1 valid but protecting nothing or ignoring parts, 2 invalid or unreadable. A policy
// that protects nothing is the end-to-end check_commands case.
TEST_F(AgentChecks, PolicyChecksDescribeThePolicyAndExitWithTheVerdict) {
    std::string files;
    for (int i = 0; i < 21; ++i) files += (i ? ",\"/f" : "\"/f") + std::to_string(i) + "\"";
    ExpectAll({
        {Policy("10001.json", kGoodPolicy),
         0,
         {"policy key 10001, feature \"dockerfile_feature\", policy id \"p1\", hash \"h1\"",
          "rule 1 by image id \"sha256:abc\": executables forbidden, 1 protected file",
          "    /etc/passwd", "rule 2 by image name \"nginx\" (fuzzy",
          "executables allowed, 1 protected file", "    /etc/nginx/nginx.conf", ": valid"}},
        // Warnings carry the line they are about, and the module's own log lines come through.
        {Policy("10001.json",
                "{\"content\": {\"rules\": [\n  {\"image_name\": \"a\", \"protect_files\": [" +
                    files + "]},\n  {\"protect_files\": [\"/b\"]}\n]}}"),
         1,
         {"10001.json:3: warning: content.rules[1] has no image_id or image_name; dropped",
          "10001.json:2: warning: content.rules[0].protect_files[20]",
          "module log: warning: Docker monitor file conut reach limit.",
          "module log: warning: Docker file get invalid rules content.", "20 protected files"}},
        {Policy("10001.json", ""), 2, {"error: the document is not JSON"}},
        {Policy("10001.json", "{\n  \"content\": {\n    \"rules\": [,]\n  }\n}"), 2, {"Line 3"}},
    });
}

// Every finding on its line: an error for what would stop the agent from starting, a warning
// for what it runs without or falls back from; the count in the verdict shows there are no
// others. Valid settings (the installed ones, exit 0) are the end-to-end check_commands case.
TEST_F(AgentChecks,
       ConfigChecksFindErrorsForStartRefusalsWarningsForFallbacksAndExitWithTheVerdict) {
    const std::string dirs = "module.dir = " + tmp_.Path() + "\npolicy.dir = " + tmp_.Path() + "\n";
    const std::string file = tmp_.File("agent.properties",
                                       "cpu.limit_percent = 101\n"
                                       "module.dir = /nonexistent/modules\n"
                                       "report.syslog.facility = local9\n"
                                       "report.http.batch =\n"
                                       "report.syslog.facility = auth\n"
                                       "no.such.setting = 1\n");
    ExpectAll({
        {"--check-config " + tmp_.File("typo.properties", dirs + "audit.backlg = 100\n"),
         1,
         {"typo.properties:3: warning: unknown setting audit.backlg"}},
        {"--check-config " + file,
         2,
         {file + ":1: error: cpu.limit_percent must be a number from 0 to 100\n",
          file + ":2: error: module directory /nonexistent/modules does not exist\n",
          file + ":3: warning: unknown syslog facility 'local9'; the syslog output stays off\n",
          file + ":5: warning: report.syslog.facility is set again (first on line 3); this value "
                 "wins\n",
          file + ":6: warning: unknown setting no.such.setting; ignored\n",
          file + ": invalid, the agent would not start (2 errors, 3 warnings)\n"}},
        {"--check-config " + tmp_ / "missing.properties", 2, {"cannot be read"}},
        // Without a file, the settings file given by --config is checked.
        {"--config " + tmp_.File("bad.properties", "log.level = loud\n") + " --check-config",
         2,
         {"bad.properties:1: error: unknown log level 'loud'"}},
    });
}

// The settings parser and checker on their own: what the findings above are made from.
std::vector<Agent::ConfigCheck::Finding> Check(const std::string& text) {
    std::vector<Agent::ConfigCheck::Finding> findings;
    Agent::ConfigCheck::CheckEntries(Agent::ConfigCheck::Parse(text, findings), findings);
    return findings;
}

TEST(ConfigCheckParse, EntriesKeepTheirLinesThroughCommentsAndContinuations) {
    std::vector<Agent::ConfigCheck::Finding> findings;
    std::string entries;  // key=value@line;...
    const std::string text =
        "# comment\n  ! another\n\na.b = one\r\nc.d: two = 2\n"
        "long = first \\\n       second\nlonely\n = orphan\nafter=x";
    for (const auto& e : Agent::ConfigCheck::Parse(text, findings)) {
        entries += e.key + "=" + e.value + "@" + std::to_string(e.line) + ";";
    }
    EXPECT_EQ(entries, "a.b=one@4;c.d=two = 2@5;long=first second@6;lonely=@8;after=x@10;");
    ASSERT_EQ(findings.size(), 2u);
    EXPECT_EQ((std::pair{findings[0].line, findings[1].line}), (std::pair{8, 9}));
}

TEST(ConfigCheckValues, EdgesOfTheRangesAreTakenAndWhatIsBeyondThemIsNot) {
    for (const char* taken :
         {"cpu.limit_percent = 0", "cpu.limit_percent = 100", "policy.scan_ms = 50",
          "report.http.retry_max_ms = 3600000", "report.syslog.target = tcp:127.0.0.1:514",
          "report.http.url = https://x/", "metrics.enabled = false", "metrics.address = 127.0.0.1",
          "metrics.address = ::1", "metrics.port = 0"}) {
        EXPECT_TRUE(Check(taken).empty()) << taken;
    }
    for (const char* refused :
         {"policy.scan_ms = 49", "metrics.port = 65536", "metrics.enabled = no",
          "metrics.address = localhost", "report.http.retry_max_ms = 3600001",
          "status.interval_s = soon", "audit.backlog = 0", "report.http.url = ftp://x",
          "report.http.verify_peer = yes", "log.level = loud"}) {
        EXPECT_EQ(Check(refused).size(), 1u) << refused;
    }
    // Reachable from elsewhere: allowed, but worth a warning.
    const auto open = Check("metrics.address = 0.0.0.0");
    ASSERT_EQ(open.size(), 1u);
    EXPECT_FALSE(open[0].invalid);
    EXPECT_NE(open[0].reason.find("not a loopback address"), std::string::npos);
}

}  // namespace
