#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "agent/PolicyDirectory.h"
#include "support/TempDir.h"

namespace {

class PolicyDirectoryTest : public ::testing::Test {
protected:
    void Write(const std::string& name, const std::string& text) {
        // Written aside and renamed, as an operator's tooling would, with a new mtime.
        const std::string tmp = dir_ + "/." + name + ".tmp";
        std::ofstream(tmp) << text;
        ASSERT_EQ(std::rename(tmp.c_str(), (dir_ + "/" + name).c_str()), 0);
    }
    TestSupport::TempDir tmp_{"tarnwick-policy"};
    const std::string dir_ = tmp_.Path();
};

TEST_F(PolicyDirectoryTest, KeyIsTheFileNameWithoutJson) {
    EXPECT_EQ(Agent::PolicyDirectory::KeyOf("10001.json"), "10001");
    EXPECT_EQ(Agent::PolicyDirectory::KeyOf(".json"), "");
    EXPECT_EQ(Agent::PolicyDirectory::KeyOf("10001.json.tmp"), "");
    EXPECT_EQ(Agent::PolicyDirectory::KeyOf(".10001.json"), "");
    EXPECT_EQ(Agent::PolicyDirectory::KeyOf("README"), "");
}

TEST_F(PolicyDirectoryTest, ReportsNewAndChangedDocumentsOnce) {
    Agent::PolicyDirectory policies(dir_);
    std::vector<Agent::PolicyDirectory::Problem> problems;
    Write("10001.json", "{\"a\":1}");
    Write("notes.txt", "ignored");
    auto changes = policies.Scan(problems);
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].key, "10001");
    EXPECT_EQ(changes[0].document, "{\"a\":1}");
    EXPECT_TRUE(policies.Scan(problems).empty());

    // Same content rewritten: not a new policy.
    Write("10001.json", "{\"a\":1}");
    struct timespec later[2] = {{0, UTIME_NOW}, {time(nullptr) + 5, 0}};
    utimensat(AT_FDCWD, (dir_ + "/10001.json").c_str(), later, 0);
    EXPECT_TRUE(policies.Scan(problems).empty());

    Write("10001.json", "{\"a\":2}");
    later[1].tv_sec += 5;
    utimensat(AT_FDCWD, (dir_ + "/10001.json").c_str(), later, 0);
    changes = policies.Scan(problems);
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].document, "{\"a\":2}");
    EXPECT_TRUE(problems.empty());
}

TEST_F(PolicyDirectoryTest, EmptyDocumentIsStillDeliveredOnce) {
    Agent::PolicyDirectory policies(dir_);
    std::vector<Agent::PolicyDirectory::Problem> problems;
    Write("20002.json", "");
    EXPECT_EQ(policies.Scan(problems).size(), 1u);
    EXPECT_TRUE(policies.Scan(problems).empty());
}

TEST_F(PolicyDirectoryTest, OversizedDocumentIsAProblemNotAPolicy) {
    Agent::PolicyDirectory policies(dir_);
    std::vector<Agent::PolicyDirectory::Problem> problems;
    const std::string path = dir_ + "/10001.json";
    { std::ofstream(path) << "{}"; }
    ASSERT_EQ(truncate(path.c_str(), Agent::PolicyDirectory::kMaxDocumentBytes + 1), 0);
    EXPECT_TRUE(policies.Scan(problems).empty());
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].path, path);
}

TEST_F(PolicyDirectoryTest, MissingDirectoryYieldsNothing) {
    Agent::PolicyDirectory policies(dir_ + "/nope");
    std::vector<Agent::PolicyDirectory::Problem> problems;
    EXPECT_TRUE(policies.Scan(problems).empty());
    EXPECT_TRUE(problems.empty());
}

}  // namespace
