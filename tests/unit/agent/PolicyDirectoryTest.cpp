#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "agent/PolicyDirectory.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

using Agent::PolicyDirectory;

class PolicyDirectoryTest : public ::testing::Test {
protected:
    // Written aside and renamed, as an operator's tooling would, with an mtime `ahead` seconds
    // from now, so that a rewrite within the same second still looks changed.
    void Write(const std::string& name, const std::string& text, int ahead = 0) {
        ASSERT_TRUE(TestSupport::FileText::Write(tmp_ / ("." + name + ".tmp"), text));
        ASSERT_EQ(std::rename((tmp_ / ("." + name + ".tmp")).c_str(), (tmp_ / name).c_str()), 0);
        const struct timespec times[2] = {{0, UTIME_NOW}, {time(nullptr) + ahead, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, (tmp_ / name).c_str(), times, 0), 0);
    }
    TestSupport::TempDir tmp_{"tarnwick-policy"};
    PolicyDirectory policies_{tmp_.Path()};
    std::vector<PolicyDirectory::Problem> problems_;
};

TEST_F(PolicyDirectoryTest, KeyIsTheFileNameWithoutJson) {
    EXPECT_EQ(PolicyDirectory::KeyOf("10001.json"), "10001");
    for (const char* notPolicy : {".json", "10001.json.tmp", ".10001.json", "README"}) {
        EXPECT_EQ(PolicyDirectory::KeyOf(notPolicy), "") << notPolicy;
    }
}

TEST_F(PolicyDirectoryTest, ReportsNewAndChangedDocumentsOnceEvenEmptyOnes) {
    Write("10001.json", "{\"a\":1}");
    Write("20002.json", "");
    Write("notes.txt", "ignored");
    auto changes = policies_.Scan(problems_);
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_EQ(changes[0].key, "10001");
    EXPECT_EQ(changes[0].document, "{\"a\":1}");
    EXPECT_EQ(changes[1].key, "20002");
    EXPECT_TRUE(policies_.Scan(problems_).empty());

    Write("10001.json", "{\"a\":1}", 5);  // the same content again: not a new policy
    EXPECT_TRUE(policies_.Scan(problems_).empty());
    Write("10001.json", "{\"a\":2}", 10);
    changes = policies_.Scan(problems_);
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].document, "{\"a\":2}");
    EXPECT_TRUE(problems_.empty());
}

TEST_F(PolicyDirectoryTest, OversizedDocumentIsAProblemAndAMissingDirectoryNothing) {
    const std::string path = tmp_.File("10001.json", "{}");
    ASSERT_EQ(truncate(path.c_str(), PolicyDirectory::kMaxDocumentBytes + 1), 0);
    EXPECT_TRUE(policies_.Scan(problems_).empty());
    ASSERT_EQ(problems_.size(), 1u);
    EXPECT_EQ(problems_[0].path, path);
    problems_.clear();
    EXPECT_TRUE(PolicyDirectory(tmp_ / "nope").Scan(problems_).empty());
    EXPECT_TRUE(problems_.empty());
}

}  // namespace
