#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/Shell.h"
#include "support/TempDir.h"

// The check commands of the agent binary, and the warning the running agent logs for a policy
// that protects nothing. The real container file-protection module parses the documents.
namespace {

using Result = TestSupport::Shell::Result;

// Standard output and error together.
Result RunAgent(const std::string& args) {
    return TestSupport::Shell::Run(std::string(AGENT_BINARY) + " " + args + " 2>&1");
}

size_t CountLines(const std::string& text, const std::string& needle) {
    size_t count = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(needle) != std::string::npos) ++count;
    }
    return count;
}

#define EXPECT_SAYS(result, text) \
    EXPECT_NE((result).out.find(text), std::string::npos) << (text) << "\n" << (result).out

class AgentChecks : public ::testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& text) {
        return tmp_.File(name, text);
    }
    Result CheckPolicy(const std::string& name, const std::string& text) {
        return RunAgent("--check-policy " + Write(name, text) + " --module-dir " +
                        TARNWICK_LIB_DIR);
    }
    TestSupport::TempDir tmp_{"tarnwick-checks"};
    const std::string dir_ = tmp_.Path();
};

const char* const kGoodPolicy = R"({
  "feature_name": "dockerfile_feature", "policy_id": "p1", "hash": "h1", "enabled": true,
  "content": { "rules": [
    { "image_id": "sha256:abc", "elf_forbidden": true, "protect_files": ["/etc/passwd"] },
    { "image_name": "nginx", "fuzzy_match": true, "protect_files": ["/etc/nginx/nginx.conf"] }
  ] }
})";

TEST_F(AgentChecks, AGoodPolicyIsDescribedRuleByRule) {
    const Result r = CheckPolicy("10001.json", kGoodPolicy);
    EXPECT_EQ(r.exitCode, 0) << r.out;
    for (const char* says :
         {"policy key 10001, feature \"dockerfile_feature\", policy id \"p1\", hash \"h1\"",
          "rule 1 by image id \"sha256:abc\": executables forbidden, 1 protected file",
          "    /etc/passwd", "rule 2 by image name \"nginx\" (fuzzy",
          "executables allowed, 1 protected file", "    /etc/nginx/nginx.conf", ": valid"}) {
        EXPECT_NE(r.out.find(says), std::string::npos) << says << "\n" << r.out;
    }
    // Any file name is checked against the modules' own keys.
    EXPECT_EQ(CheckPolicy("new-policy.txt", kGoodPolicy).exitCode, 0);
}

TEST_F(AgentChecks, PoliciesThatProtectNothingExitOneWithTheReason) {
    const struct {
        const char* document;
        const char* says;
    } cases[] = {
        {R"({"content": {"rules": {"image_id": "x", "protect_files": ["/a"]}}})",
         "content.rules is an object, not an array"},
        {R"({"content": "{\"rules\": []}"})", "content is a string, not an object"},
        {"{}", "the document has no \"content\" object"},
    };
    for (const auto& c : cases) {
        const Result r = CheckPolicy("10001.json", c.document);
        EXPECT_EQ(r.exitCode, 1) << c.document << "\n" << r.out;
        EXPECT_NE(r.out.find(std::string("protects nothing: ") + c.says), std::string::npos)
            << c.document << "\n"
            << r.out;
    }
}

TEST_F(AgentChecks, PolicyWarningsCarryLinesAndTheModulesOwnLogLines) {
    std::string files;
    for (int i = 0; i < 21; ++i) files += (i ? ",\"/f" : "\"/f") + std::to_string(i) + "\"";
    const std::string document =
        "{\"content\": {\"rules\": [\n"
        "  {\"image_name\": \"a\", \"protect_files\": [" +
        files +
        "]},\n"
        "  {\"protect_files\": [\"/b\"]}\n"
        "]}}";
    const Result r = CheckPolicy("10001.json", document);
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_NE(r.out.find("10001.json:3: warning: content.rules[1] has no image_id or "
                         "image_name; dropped"),
              std::string::npos)
        << r.out;
    EXPECT_SAYS(r, "10001.json:2: warning: content.rules[0].protect_files[20]");
    EXPECT_SAYS(r, "module log: warning: Docker monitor file conut reach limit.");
    EXPECT_SAYS(r, "module log: warning: Docker file get invalid rules content.");
    EXPECT_SAYS(r, "20 protected files");
}

TEST_F(AgentChecks, InvalidEmptyOrUnreadablePoliciesExitTwo) {
    Result r = CheckPolicy("10001.json", "");
    EXPECT_EQ(r.exitCode, 2) << r.out;
    EXPECT_SAYS(r, "error: the document is not JSON");
    r = CheckPolicy("10001.json", "{\n  \"content\": {\n    \"rules\": [,]\n  }\n}");
    EXPECT_EQ(r.exitCode, 2) << r.out;
    EXPECT_SAYS(r, "Line 3");
    r = RunAgent("--check-policy " + dir_ + "/missing.json --module-dir " + TARNWICK_LIB_DIR);
    EXPECT_EQ(r.exitCode, 2) << r.out;
    EXPECT_SAYS(r, "cannot be read");
    r = CheckPolicy("10002.json", kGoodPolicy);
    EXPECT_EQ(r.exitCode, 2) << r.out;
    EXPECT_SAYS(r, "takes policy key \"10002\"");
}

TEST_F(AgentChecks, ConfigExitCodes) {
    const std::string dirs = "module.dir = " + dir_ + "\npolicy.dir = " + dir_ + "\n";
    Result r = RunAgent("--check-config " +
                        Write("good.properties", "# comment\n" + dirs + "log.level = debug\n"));
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_SAYS(r, "good.properties: valid");

    r = RunAgent("--check-config=" + Write("empty.properties", ""));
    EXPECT_EQ(r.exitCode, 0) << r.out;

    r = RunAgent("--check-config " +
                 Write("typo.properties", dirs + "audit.backlg = 100\nreport.http.batch = 0\n"));
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_SAYS(r, "typo.properties:3: warning: unknown setting audit.backlg");
    EXPECT_SAYS(r, "typo.properties:4: warning: report.http.batch should be");

    r = RunAgent("--check-config " + Write("bad.properties", dirs + "log.level = loud\n"));
    EXPECT_EQ(r.exitCode, 2) << r.out;
    EXPECT_SAYS(r, "bad.properties:3: error: unknown log level 'loud'");

    r = RunAgent("--check-config " + dir_ + "/missing.properties");
    EXPECT_EQ(r.exitCode, 2) << r.out;
    EXPECT_SAYS(r, "cannot be read");
    // Without a file, the settings file given by --config is checked.
    r = RunAgent("--config " + dir_ + "/bad.properties --check-config");
    EXPECT_EQ(r.exitCode, 2) << r.out;
}

// The running agent warns once per delivery of a policy that protects nothing.
TEST_F(AgentChecks, RunningAgentWarnsOncePerDeliveryOfAPolicyThatProtectsNothing) {
    const std::string modules = dir_ + "/modules";
    const std::string policies = dir_ + "/policy.d";
    const std::string log = dir_ + "/agent.log";
    ASSERT_EQ(mkdir(modules.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(policies.c_str(), 0755), 0);
    // Only the feature module is loaded; the libraries it needs come from the build.
    const std::string library = std::string(TARNWICK_LIB_DIR) + "/libdockerfile_module.so";
    ASSERT_EQ(symlink(library.c_str(), (modules + "/libdockerfile_module.so").c_str()), 0);
    std::ofstream(policies + "/10001.json") << R"({"content": {"rules": {"image_id": "x"}}})";

    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        setenv("LD_LIBRARY_PATH", TARNWICK_LIB_DIR, 1);
        execl(AGENT_BINARY, AGENT_BINARY, "--config", "/dev/null", "--module-dir", modules.c_str(),
              "--policy-dir", policies.c_str(), "--log", log.c_str(), "--log-level", "debug",
              static_cast<char*>(nullptr));
        _exit(127);
    }
    const auto waitFor = [&](const std::string& needle, size_t count) {
        return TestSupport::WaitUntil(
            [&] { return CountLines(TestSupport::FileText::Read(log), needle) >= count; },
            std::chrono::seconds(20), std::chrono::milliseconds(50));
    };
    const std::string warning = "[Warning] agent AgentApplication.cpp";
    const std::string nothing = "protects nothing: content.rules is an object, not an array";
    EXPECT_TRUE(waitFor(nothing, 1)) << TestSupport::FileText::Read(log);
    EXPECT_TRUE(waitFor("Agent started", 1)) << TestSupport::FileText::Read(log);
    // A second delivery, of another document that protects nothing.
    std::ofstream(policies + "/.next") << R"({"content": "{\"rules\": []}"})";
    ASSERT_EQ(std::rename((policies + "/.next").c_str(), (policies + "/10001.json").c_str()), 0);
    EXPECT_TRUE(waitFor("protects nothing: content is a string", 1))
        << TestSupport::FileText::Read(log);

    kill(pid, SIGTERM);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    const std::string text = TestSupport::FileText::Read(log);
    EXPECT_EQ(CountLines(text, nothing), 1u) << text;
    EXPECT_EQ(CountLines(text, "protects nothing"), 2u) << text;
    for (const char* needle : {nothing.c_str(), "protects nothing: content is a string"}) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            if (line.find(needle) == std::string::npos) continue;
            EXPECT_NE(line.find(warning), std::string::npos) << line;
        }
    }
}

}  // namespace
