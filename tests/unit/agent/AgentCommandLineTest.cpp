#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>

namespace {

struct Result {
    int exitCode = -1;
    std::string output;  // standard output and error together
};

Result RunAgent(const std::string& args) {
    Result result;
    const std::string command = std::string(AGENT_BINARY) + " " + args + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return result;
    std::array<char, 4096> buffer;
    size_t n;
    while ((n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
        result.output.append(buffer.data(), n);
    const int status = pclose(pipe);
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    return result;
}

TEST(AgentCommandLine, HelpDocumentsEveryOptionAndExitsZero) {
    const Result r = RunAgent("--help");
    EXPECT_EQ(r.exitCode, 0);
    for (const char* option :
         {"--config", "--module-dir", "--policy-dir", "--alarms", "--log", "--log-level",
          "--docker-socket", "--daemon", "--pidfile", "--check-config", "--check-policy", "0 valid",
          "1 valid, but", "2 invalid or unreadable"}) {
        EXPECT_NE(r.output.find(option), std::string::npos) << option;
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
        EXPECT_EQ(r.exitCode, 2) << c.args << "\n" << r.output;
        EXPECT_NE(r.output.find(c.says), std::string::npos) << c.args << "\n" << r.output;
        EXPECT_LE(std::count(r.output.begin(), r.output.end(), '\n'), 1) << r.output;
    }
}

TEST(AgentCommandLine, ModuleDirectoryWithoutModulesIsBadConfiguration) {
    const Result r = RunAgent("--config /dev/null --log - --module-dir /tmp --policy-dir /tmp");
    EXPECT_EQ(r.exitCode, 2) << r.output;
    EXPECT_NE(r.output.find("no module could be loaded"), std::string::npos) << r.output;
}

}  // namespace
