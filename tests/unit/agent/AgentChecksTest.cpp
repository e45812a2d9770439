// The agent binary's command line: help, refusals at start, and the check commands, whose
// documents the real container file-protection module parses.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

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

TEST(AgentCommandLine, HelpDocumentsEveryOptionAndTheExitCodes) {
    ExpectAll({{"--help",
                0,
                {"--config", "--module-dir", "--policy-dir", "--alarms", "--log", "--log-level",
                 "--docker-socket", "--daemon", "--pidfile", "--check-config", "--check-policy",
                 "0 valid", "1 valid, but", "2 invalid or unreadable"}}});
}

TEST(AgentCommandLine, BadConfigurationExitsTwoWithOneLine) {
    const std::string isolated = "--config /dev/null --log - ";
    const std::string dirs = isolated + "--module-dir /tmp --policy-dir /tmp";
    ExpectAll(
        {{"--no-such-option", 2, {"no-such-option"}},
         {isolated + "--module-dir /nonexistent/modules --policy-dir /tmp",
          2,
          {"module directory /nonexistent/modules does not exist"}},
         {isolated + "--module-dir /tmp --policy-dir /nonexistent/policies",
          2,
          {"policy directory /nonexistent/policies does not exist"}},
         {dirs + " --log-level loud", 2, {"unknown log level 'loud'"}},
         {dirs + " --cpu-limit 250", 2, {"cpu.limit_percent"}},
         {dirs, 2, {"no module could be loaded"}},
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

const char* const kGoodPolicy = R"({
  "feature_name": "dockerfile_feature", "policy_id": "p1", "hash": "h1", "enabled": true,
  "content": { "rules": [
    { "image_id": "sha256:abc", "elf_forbidden": true, "protect_files": ["/etc/passwd"] },
    { "image_name": "nginx", "fuzzy_match": true, "protect_files": ["/etc/nginx/nginx.conf"] }
  ] }
})";

// 0 valid, 1 valid but protecting nothing or ignoring parts, 2 invalid or unreadable.
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
        // Any file name is checked against the modules' own keys.
        {Policy("new-policy.txt", kGoodPolicy), 0, {}},
        // Rules given as an object are the end-to-end check_commands case.
        {Policy("10001.json", R"({"content": "{\"rules\": []}"})"),
         1,
         {"protects nothing: content is a string, not an object"}},
        {Policy("10001.json", "{}"),
         1,
         {"protects nothing: the document has no \"content\" object"}},
        // Warnings carry the line they are about, and the module's own log lines come through.
        {Policy("10001.json",
                "{\"content\": {\"rules\": [\n  {\"image_name\": \"a\", "
                "\"protect_files\": [" +
                    files +
                    "]},\n  {\"protect_files\": "
                    "[\"/b\"]}\n]}}"),
         1,
         {"10001.json:3: warning: content.rules[1] has no image_id or image_name; dropped",
          "10001.json:2: warning: content.rules[0].protect_files[20]",
          "module log: warning: Docker monitor file conut reach limit.",
          "module log: warning: Docker file get invalid rules content.", "20 protected files"}},
        {Policy("10001.json", ""), 2, {"error: the document is not JSON"}},
        {Policy("10001.json", "{\n  \"content\": {\n    \"rules\": [,]\n  }\n}"), 2, {"Line 3"}},
        {"--check-policy " + tmp_ / "missing.json" + " --module-dir " + TARNWICK_LIB_DIR,
         2,
         {"cannot be read"}},
        {Policy("10002.json", kGoodPolicy), 2, {"takes policy key \"10002\""}},
    });
}

TEST_F(AgentChecks, ConfigChecksExitWithTheVerdict) {
    const std::string dirs = "module.dir = " + tmp_.Path() + "\npolicy.dir = " + tmp_.Path() + "\n";
    ExpectAll({
        // An empty file is valid; the installed one is the end-to-end check_commands case.
        {"--check-config=" + tmp_.File("empty.properties", ""), 0, {}},
        {"--check-config " + tmp_.File("typo.properties", dirs + "audit.backlg = 100\n"),
         1,
         {"typo.properties:3: warning: unknown setting audit.backlg"}},
        {"--check-config " + tmp_ / "missing.properties", 2, {"cannot be read"}},
        // Without a file, the settings file given by --config is checked.
        {"--config " + tmp_.File("bad.properties", "log.level = loud\n") + " --check-config",
         2,
         {"bad.properties:1: error: unknown log level 'loud'"}},
    });
}

// Every finding on its line: an error for what would stop the agent from starting, a warning
// for what it runs without or falls back from.
TEST_F(AgentChecks, ConfigFindingsAreErrorsForStartRefusalsAndWarningsForFallbacks) {
    const std::string file = tmp_.File("agent.properties",
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
                                       "no.such.setting = 1\n"
                                       "metrics.enabled = no\n"
                                       "metrics.address = localhost\n"
                                       "metrics.port = 65536\n"
                                       "report.http.retry_max_ms = 0\n");
    const std::vector<std::string> expected = {
        "1: error: cpu.limit_percent must be a number from 0 to 100",
        "2: error: policy.scan_ms must be a number of milliseconds, at least 50",
        "3: error: unknown log level 'loud'",
        "4: error: module directory /nonexistent/modules does not exist",
        "5: warning: audit.backlog should be a whole number, at least 1",
        "6: warning: unknown syslog facility 'local9'",
        "7: warning: report.http.url should be an http:// or https:// URL",
        "8: warning: report.http.verify_peer should be true or false",
        "9: warning: status.interval_s should be a whole number, at least 0",
        "11: warning: log.level is set again (first on line 3); this value wins",
        "12: warning: unknown setting no.such.setting",
        "13: error: metrics.enabled must be true or false",
        "14: error: metrics.address must be an IP address",
        "15: error: metrics.port must be a number from 0 (any free port) to 65535",
        "16: warning: report.http.retry_max_ms should be",
        " invalid, the agent would not start (7 errors, 8 warnings)"};
    const Result r = RunAgent("--check-config " + file);
    EXPECT_EQ(r.exitCode, 2);
    std::istringstream out(r.out);
    std::vector<std::string> lines;
    for (std::string line; std::getline(out, line);) lines.push_back(line);
    ASSERT_EQ(lines.size(), expected.size()) << r.out;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].rfind(file + ":" + expected[i], 0), 0u) << expected[i];
    }
}

}  // namespace
