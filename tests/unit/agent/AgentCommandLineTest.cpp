#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "support/Shell.h"

namespace {

using Result = TestSupport::Shell::Result;

// Standard output and error together.
Result RunAgent(const std::string& args) {
    return TestSupport::Shell::Run(std::string(AGENT_BINARY) + " " + args + " 2>&1");
}

TEST(AgentCommandLine, HelpDocumentsEveryOptionAndExitsZero) {
    const Result r = RunAgent("--help");
    EXPECT_EQ(r.exitCode, 0);
    for (const char* option :
         {"--config", "--module-dir", "--policy-dir", "--alarms", "--log", "--log-level",
          "--docker-socket", "--daemon", "--pidfile", "--check-config", "--check-policy", "0 valid",
          "1 valid, but", "2 invalid or unreadable"}) {
        EXPECT_NE(r.out.find(option), std::string::npos) << option;
    }
}

TEST(AgentCommandLine, BadConfigurationExitsTwoWithOneLine) {
    const std::string isolated = "--config /dev/null --log - ";
    const struct {
        std::string args;
        std::string says;
    } cases[] = {
        {"--no-such-option", "no-such-option"},
        {isolated + "--module-dir /nonexistent/modules --policy-dir /tmp",
         "module directory /nonexistent/modules does not exist"},
        {isolated + "--module-dir /tmp --policy-dir /nonexistent/policies",
         "policy directory /nonexistent/policies does not exist"},
        {isolated + "--module-dir /tmp --policy-dir /tmp --log-level loud",
         "unknown log level 'loud'"},
        {isolated + "--module-dir /tmp --policy-dir /tmp --cpu-limit 250", "cpu.limit_percent"},
        {"--config /nonexistent/agent.properties --log -", "cannot read settings file"},
    };
    for (const auto& c : cases) {
        const Result r = RunAgent(c.args);
        EXPECT_EQ(r.exitCode, 2) << c.args << "\n" << r.out;
        EXPECT_NE(r.out.find(c.says), std::string::npos) << c.args << "\n" << r.out;
        EXPECT_LE(std::count(r.out.begin(), r.out.end(), '\n'), 1) << r.out;
    }
}

TEST(AgentCommandLine, ModuleDirectoryWithoutModulesIsBadConfiguration) {
    const Result r = RunAgent("--config /dev/null --log - --module-dir /tmp --policy-dir /tmp");
    EXPECT_EQ(r.exitCode, 2) << r.out;
    EXPECT_NE(r.out.find("no module could be loaded"), std::string::npos) << r.out;
}

}  // namespace
