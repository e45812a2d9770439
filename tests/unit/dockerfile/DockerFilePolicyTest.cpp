#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DockerFilePolicy.h"
#include "LogCapture.h"

namespace {

using DockerFileUnit::LogCapture;
using Engine::DockerFilePolicy;

const char* const kLimitWarning = "Docker monitor file conut reach limit.";
const char* const kInvalidRule = "Docker file get invalid rules content.";

std::string Document(const std::string& rules) {
    return R"({"feature_name":"dockerfile_feature","hash":"h1","policy_id":"p1",)"
           R"("content":{"rules":)" +
           rules + "}}";
}

std::string FileArray(int count) {
    std::string files = "[";
    for (int i = 0; i < count; ++i) files += (i ? ",\"/f" : "\"/f") + std::to_string(i) + "\"";
    return files + "]";
}

struct Lookup {
    bool matched = false;
    std::vector<std::string> files;
    bool elfForbidden = false;
};

class PolicyFixture : public ::testing::Test {
protected:
    void SetUp() override { LogCapture::Instance().Clear(); }

    int Load(const std::string& rules) { return policy.Parse(Document(rules)); }

    Lookup Find(const std::string& imageId, const std::string& imageName) const {
        Lookup result;
        result.matched =
            policy.GetImageFileRule(imageId, imageName, result.files, result.elfForbidden);
        return result;
    }

    DockerFilePolicy policy{"dockerfile_task"};
};

// ---- the document and its envelope ----

class PolicyDocumentTest : public PolicyFixture {};

TEST_F(PolicyDocumentTest, NotJsonLeavesTheNameAndAddsNoTaskPolicy) {
    EXPECT_EQ(0, policy.Parse("{not json"));
    EXPECT_EQ("dockerfile_task", policy.GetPolicyName());
    EXPECT_TRUE(policy.GetChildren().empty());
    EXPECT_FALSE(Find("", "nginx").matched);
}

TEST_F(PolicyDocumentTest, MissingContentKeepsTheEnvelopeButNoTaskPolicy) {
    EXPECT_EQ(0,
              policy.Parse(R"({"feature_name":"f","hash":"h","policy_id":"i","enabled":false})"));
    EXPECT_EQ("f", policy.GetPolicyName());
    EXPECT_EQ("h", policy.GetHash());
    EXPECT_EQ("i", policy.GetPolicyId());
    EXPECT_FALSE(policy.IsEnabled());
    EXPECT_TRUE(policy.GetChildren().empty());
}

TEST_F(PolicyDocumentTest, ContentAsAStringIsNotContent) {
    EXPECT_EQ(0, policy.Parse(R"({"content":"{\"rules\":[{\"image_name\":\"a\"}]}"})"));
    EXPECT_TRUE(policy.GetChildren().empty());
    EXPECT_FALSE(Find("", "a").matched);
}

TEST_F(PolicyDocumentTest, ContentWithoutRulesStillNamesTheTask) {
    EXPECT_EQ(0, policy.Parse(R"({"content":{}})"));
    ASSERT_EQ(1u, policy.GetTaskNames().size());
    EXPECT_EQ("dockerfile_task", policy.GetTaskNames()[0]);
    EXPECT_TRUE(policy.IsEnabled());  // default when absent
}

TEST_F(PolicyDocumentTest, DisabledPolicyStillParsesItsRules) {
    EXPECT_EQ(1, policy.Parse(R"({"enabled":false,"content":{"rules":[{"image_name":"a"}]}})"));
    EXPECT_FALSE(policy.IsEnabled());
    EXPECT_TRUE(Find("", "a").matched);
}

TEST_F(PolicyDocumentTest, RulesThatAreNotObjectsAreDroppedWithAWarning) {
    EXPECT_EQ(1, Load(R"([1, "x", null, {}, {"image_name":"ok","protect_files":["/a"]}])"));
    EXPECT_EQ(4, LogCapture::Instance().Count(kInvalidRule)) << LogCapture::Instance().Dump();
    EXPECT_EQ(std::vector<std::string>{"/a"}, Find("", "ok").files);
}

// ---- the protected-file list of one rule ----

class ProtectFilesTest : public PolicyFixture {
protected:
    std::vector<std::string> FilesOf(const std::string& filesJson) {
        Load(R"([{"image_id":"sha256:1","protect_files":)" + filesJson + "}]");
        return Find("sha256:1", "").files;
    }
};

TEST_F(ProtectFilesTest, TwentyFiveStringsKeepTheFirstTwentyAndWarnOnce) {
    const auto files = FilesOf(FileArray(25));
    ASSERT_EQ(20u, files.size());
    EXPECT_EQ("/f0", files.front());
    EXPECT_EQ("/f19", files.back());
    EXPECT_EQ(1, LogCapture::Instance().Count(kLimitWarning));
}

TEST_F(ProtectFilesTest, ExactlyTwentyStillWarns) {
    EXPECT_EQ(20u, FilesOf(FileArray(20)).size());
    EXPECT_EQ(1, LogCapture::Instance().Count(kLimitWarning));
}

TEST_F(ProtectFilesTest, NineteenDoNotWarn) {
    EXPECT_EQ(19u, FilesOf(FileArray(19)).size());
    EXPECT_EQ(0, LogCapture::Instance().Count(kLimitWarning));
}

TEST_F(ProtectFilesTest, NonStringsAreSkippedAndNotCounted) {
    std::string files = "[1, \"/a\", null, \"/b\"";
    for (int i = 0; i < 18; ++i) files += ", {}, \"/x" + std::to_string(i) + "\"";
    files += ", \"/over\"]";
    const auto kept = FilesOf(files);
    ASSERT_EQ(20u, kept.size());  // 2 + 18 strings reach the limit; "/over" is not taken
    EXPECT_EQ("/a", kept[0]);
    EXPECT_EQ("/b", kept[1]);
    EXPECT_EQ("/x17", kept.back());
}

TEST_F(ProtectFilesTest, EntriesAreKeptAsWrittenDuplicatesIncluded) {
    EXPECT_EQ((std::vector<std::string>{" /a ", "etc/hosts", " /a ", ""}),
              FilesOf(R"([" /a ", "etc/hosts", " /a ", ""])"));
}

TEST_F(ProtectFilesTest, TheLimitIsPerRule) {
    Load("[{\"image_id\":\"i1\",\"protect_files\":" + FileArray(20) +
         "},{\"image_id\":\"i2\",\"protect_files\":" + FileArray(20) + "}]");
    EXPECT_EQ(20u, Find("i1", "").files.size());
    EXPECT_EQ(20u, Find("i2", "").files.size());
    EXPECT_EQ(2, LogCapture::Instance().Count(kLimitWarning));
}

TEST_F(ProtectFilesTest, MissingListKeepsTheRuleWithNoFiles) {
    Load(R"([{"image_id":"i1","elf_forbidden":true}])");
    const Lookup hit = Find("i1", "");
    EXPECT_TRUE(hit.matched);
    EXPECT_TRUE(hit.files.empty());
    EXPECT_TRUE(hit.elfForbidden);
}

// ---- which rule applies to an image ----

class ImageLookupTest : public PolicyFixture {};

TEST_F(ImageLookupTest, IdRuleWinsOverAMatchingNameRule) {
    Load(R"([{"image_name":"nginx","protect_files":["/n"],"elf_forbidden":true},
             {"image_id":"sha256:1","protect_files":["/i"]}])");
    const Lookup hit = Find("sha256:1", "nginx");
    EXPECT_TRUE(hit.matched);
    EXPECT_EQ(std::vector<std::string>{"/i"}, hit.files);
    EXPECT_FALSE(hit.elfForbidden);
}

TEST_F(ImageLookupTest, ARuleWithIdAndNameIsAnIdRuleOnly) {
    Load(
        R"([{"image_id":"sha256:1","image_name":"nginx","fuzzy_match":true,"protect_files":["/i"]}])");
    EXPECT_FALSE(Find("sha256:2", "nginx").matched);
    EXPECT_TRUE(Find("sha256:1", "other").matched);
}

TEST_F(ImageLookupTest, IdsCompareExactlyAndCaseSensitively) {
    Load(R"([{"image_id":"sha256:AB"}])");
    EXPECT_FALSE(Find("sha256:ab", "").matched);
    EXPECT_FALSE(Find("sha256:A", "").matched);
    EXPECT_TRUE(Find("sha256:AB", "").matched);
}

TEST_F(ImageLookupTest, FirstRuleForAnIdWins) {
    Load(R"([{"image_id":"i1","protect_files":["/first"]},
             {"image_id":"i1","protect_files":["/second"],"elf_forbidden":true}])");
    const Lookup hit = Find("i1", "");
    EXPECT_EQ(std::vector<std::string>{"/first"}, hit.files);
    EXPECT_FALSE(hit.elfForbidden);
}

TEST_F(ImageLookupTest, SmallestMatchingFuzzyKeyWins) {
    Load(R"([{"image_name":"nginx","fuzzy_match":true,"protect_files":["/long"]},
             {"image_name":"ngin","fuzzy_match":true,"protect_files":["/short"]}])");
    EXPECT_EQ(std::vector<std::string>{"/short"}, Find("", "library/nginx:1.19").files);
}

TEST_F(ImageLookupTest, ExactRuleIsNotPreferredOverAFuzzyRuleThatSortsFirst) {
    Load(R"([{"image_name":"abc","protect_files":["/exact"]},
             {"image_name":"ab","fuzzy_match":true,"protect_files":["/fuzzy"]}])");
    EXPECT_EQ(std::vector<std::string>{"/fuzzy"}, Find("", "abc").files);
}

TEST_F(ImageLookupTest, ExactNameIncludesTheTag) {
    Load(R"([{"image_name":"nginx"}])");
    EXPECT_FALSE(Find("", "nginx:latest").matched);
    EXPECT_FALSE(Find("", "ngin").matched);
    EXPECT_TRUE(Find("", "nginx").matched);
}

TEST_F(ImageLookupTest, FuzzyNameIsACaseSensitiveSubstring) {
    Load(R"([{"image_name":"redis","fuzzy_match":true}])");
    EXPECT_TRUE(Find("", "docker.io/library/redis:7").matched);
    EXPECT_FALSE(Find("", "REDIS").matched);
}

TEST_F(ImageLookupTest, FuzzyAndExactRuleOfTheSameNameCollideFirstWins) {
    Load(R"([{"image_name":"app","protect_files":["/exact"]},
             {"image_name":"app","fuzzy_match":true,"protect_files":["/fuzzy"]}])");
    EXPECT_FALSE(Find("", "my-app").matched);
    EXPECT_EQ(std::vector<std::string>{"/exact"}, Find("", "app").files);
}

TEST_F(ImageLookupTest, FilesAreAppendedBehindTheCallersOwn) {
    Load(R"([{"image_name":"a","protect_files":["/x","/y"],"elf_forbidden":true}])");
    std::vector<std::string> files = {"/kept"};
    bool elf = false;
    ASSERT_TRUE(policy.GetImageFileRule("", "a", files, elf));
    EXPECT_EQ((std::vector<std::string>{"/kept", "/x", "/y"}), files);
    EXPECT_TRUE(elf);
}

TEST_F(ImageLookupTest, NoMatchTouchesNeitherArgument) {
    Load(R"([{"image_name":"a","protect_files":["/x"]},{"image_id":"i"}])");
    std::vector<std::string> files = {"/kept"};
    bool elf = true;
    EXPECT_FALSE(policy.GetImageFileRule("j", "b", files, elf));
    EXPECT_EQ(std::vector<std::string>{"/kept"}, files);
    EXPECT_TRUE(elf);
}

TEST_F(ImageLookupTest, EmptyPolicyMatchesNothing) {
    Load("[]");
    EXPECT_FALSE(Find("", "").matched);
}

}  // namespace
