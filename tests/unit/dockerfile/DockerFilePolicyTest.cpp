#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DockerFilePolicy.h"
#include "LogCapture.h"

namespace {

using DockerFileUnit::LogCapture;
using Engine::DockerFilePolicy;
using Files = std::vector<std::string>;

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

/// "none", or the files found and the executable flag: "/a /b elf0".
std::string Describe(const DockerFilePolicy& policy, const std::string& id,
                     const std::string& name) {
    Files files;
    bool elf = false;
    if (!policy.GetImageFileRule(id, name, files, elf)) return "none";
    std::string out;
    for (const auto& f : files) out += f + " ";
    return out + (elf ? "elf1" : "elf0");
}

class PolicyFixture : public ::testing::Test {
protected:
    void SetUp() override { LogCapture::Instance().Clear(); }

    int Load(const std::string& rules) { return policy.Parse(Document(rules)); }

    std::string Find(const std::string& imageId, const std::string& imageName) const {
        return Describe(policy, imageId, imageName);
    }

    DockerFilePolicy policy{"dockerfile_task"};
};

// ---- the document and its envelope ----

class PolicyDocumentTest : public PolicyFixture {};

TEST_F(PolicyDocumentTest, EnvelopeFieldsResultAndTaskChild) {
    struct Row {
        const char* doc;
        int result;
        const char* name;
        const char* hash;
        const char* id;
        bool enabled;
        bool namesTheTask;
        bool ruleA;  // a rule for image name "a" is in force
    };
    const Row rows[] = {
        // Not JSON: nothing changes, not even the name given at construction.
        {"{not json", 0, "dockerfile_task", "", "", true, false, false},
        // No content: the envelope is taken, but there are no rules and no task child.
        {R"({"feature_name":"f","hash":"h","policy_id":"i","enabled":false})", 0, "f", "h", "i",
         false, false, false},
        // Content is an object, never a string holding JSON.
        {R"({"content":"{\"rules\":[{\"image_name\":\"a\"}]}"})", 0, "", "", "", true, false,
         false},
        // Content without rules still names the task.
        {R"({"content":{}})", 0, "", "", "", true, true, false},
        // "enabled" is stored but does not stop the rules being parsed.
        {R"({"enabled":false,"content":{"rules":[{"image_name":"a"}]}})", 1, "", "", "", false,
         true, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.doc);
        DockerFilePolicy fresh("dockerfile_task");
        EXPECT_EQ(row.result, fresh.Parse(row.doc));
        EXPECT_EQ(row.name, fresh.GetPolicyName());
        EXPECT_EQ(row.hash, fresh.GetHash());
        EXPECT_EQ(row.id, fresh.GetPolicyId());
        EXPECT_EQ(row.enabled, fresh.IsEnabled());
        EXPECT_EQ(row.namesTheTask ? Files{"dockerfile_task"} : Files{}, fresh.GetTaskNames());
        EXPECT_EQ(row.ruleA, Describe(fresh, "", "a") != "none");
    }
}

TEST_F(PolicyDocumentTest, RulesThatAreNotObjectsOrNameNoImageAreDroppedWithAWarningEach) {
    EXPECT_EQ(1, Load(R"([1, "x", null, {}, {"image_id":"","image_name":""},
                          {"image_name":"ok","protect_files":["/a"]}])"));
    EXPECT_EQ(5, LogCapture::Instance().Count(kInvalidRule)) << LogCapture::Instance().Dump();
    EXPECT_EQ("/a elf0", Find("", "ok"));
}

// ---- the protected-file list of one rule ----

class ProtectFilesTest : public PolicyFixture {
protected:
    Files FilesOf(const std::string& filesJson) {
        Load(R"([{"image_id":"sha256:1","protect_files":)" + filesJson + "}]");
        Files files;
        bool elf = false;
        policy.GetImageFileRule("sha256:1", "", files, elf);
        return files;
    }
};

// The 20th file taken warns, even when there are exactly 20.
TEST_F(ProtectFilesTest, TwentyFilesAreTakenAndTheTwentiethWarns) {
    const struct {
        int strings;
        size_t kept;
        int warnings;
    } rows[] = {{25, 20, 1}, {20, 20, 1}, {19, 19, 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.strings);
        LogCapture::Instance().Clear();
        DockerFilePolicy fresh("dockerfile_task");
        fresh.Parse(
            Document(R"([{"image_id":"i","protect_files":)" + FileArray(row.strings) + "}]"));
        Files files;
        bool elf = false;
        ASSERT_TRUE(fresh.GetImageFileRule("i", "", files, elf));
        ASSERT_EQ(row.kept, files.size());
        EXPECT_EQ("/f0", files.front());
        EXPECT_EQ("/f" + std::to_string(row.kept - 1), files.back());
        EXPECT_EQ(row.warnings, LogCapture::Instance().Count(kLimitWarning));
    }
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
    EXPECT_EQ((Files{" /a ", "etc/hosts", " /a ", ""}),
              FilesOf(R"([" /a ", "etc/hosts", " /a ", ""])"));
}

TEST_F(ProtectFilesTest, TheLimitIsPerRuleAndAMissingListKeepsTheRule) {
    Load("[{\"image_id\":\"i1\",\"protect_files\":" + FileArray(20) +
         "},{\"image_id\":\"i2\",\"protect_files\":" + FileArray(20) +
         "},{\"image_id\":\"i3\",\"elf_forbidden\":true}]");
    EXPECT_EQ(2, LogCapture::Instance().Count(kLimitWarning));
    Files files;
    bool elf = false;
    policy.GetImageFileRule("i1", "", files, elf);
    policy.GetImageFileRule("i2", "", files, elf);
    EXPECT_EQ(40u, files.size());
    EXPECT_EQ("elf1", Find("i3", ""));
}

// ---- which rule applies to an image ----

class ImageLookupTest : public PolicyFixture {};

TEST_F(ImageLookupTest, WhichRuleApplies) {
    const std::string idAndName = R"([{"image_name":"nginx","protect_files":["/n"],
        "elf_forbidden":true},{"image_id":"sha256:1","protect_files":["/i"]}])";
    const std::string both = R"([{"image_id":"sha256:1","image_name":"nginx",
        "fuzzy_match":true,"protect_files":["/i"]}])";
    const std::string twoIds = R"([{"image_id":"i1","protect_files":["/first"]},
        {"image_id":"i1","protect_files":["/second"],"elf_forbidden":true}])";
    const std::string twoFuzzy = R"([
        {"image_name":"nginx","fuzzy_match":true,"protect_files":["/long"]},
        {"image_name":"ngin","fuzzy_match":true,"protect_files":["/short"]}])";
    const std::string exactAndFuzzy = R"([{"image_name":"abc","protect_files":["/exact"]},
        {"image_name":"ab","fuzzy_match":true,"protect_files":["/fuzzy"]}])";
    const std::string sameName = R"([{"image_name":"app","protect_files":["/exact"]},
        {"image_name":"app","fuzzy_match":true,"protect_files":["/fuzzy"]}])";
    const std::string exact = R"([{"image_name":"nginx"}])";
    const std::string fuzzy = R"([{"image_name":"redis","fuzzy_match":true}])";
    const std::string upperId = R"([{"image_id":"sha256:AB"}])";
    const std::string none = "[]";
    const struct {
        const std::string& rules;
        const char* id;
        const char* name;
        const char* expected;
    } rows[] = {
        {idAndName, "sha256:1", "nginx", "/i elf0"},  // the id rule wins over the name rule
        {both, "sha256:2", "nginx", "none"},          // a rule with id and name is an id rule
        {both, "sha256:1", "other", "/i elf0"},
        {upperId, "sha256:ab", "", "none"},  // ids compare exactly, case included
        {upperId, "sha256:A", "", "none"},
        {twoIds, "i1", "", "/first elf0"},                    // the first rule for an id wins
        {twoFuzzy, "", "library/nginx:1.19", "/short elf0"},  // the smallest key wins...
        {exactAndFuzzy, "", "abc", "/fuzzy elf0"},            // ...fuzzy or exact
        {exact, "", "nginx:latest", "none"},                  // the tag is part of the name
        {exact, "", "ngin", "none"},
        {fuzzy, "", "docker.io/library/redis:7", "elf0"},  // a substring anywhere
        {fuzzy, "", "REDIS", "none"},                      // case-sensitive
        {sameName, "", "my-app", "none"},  // fuzzy and exact of one name collide: the first stays
        {sameName, "", "app", "/exact elf0"},
        {none, "", "", "none"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.rules + " / " + row.id + " / " + row.name);
        DockerFilePolicy fresh("dockerfile_task");
        fresh.Parse(Document(row.rules));
        EXPECT_EQ(row.expected, Describe(fresh, row.id, row.name));
    }
}

// The caller passes the cache record's own list and flag: a match appends behind what is there,
// no match leaves both as they were.
TEST_F(ImageLookupTest, CallersArgumentsAreExtendedOnAMatchAndUntouchedOtherwise) {
    Load(R"([{"image_name":"a","protect_files":["/x","/y"],"elf_forbidden":true},
             {"image_id":"i"}])");
    Files files = {"/kept"};
    bool elf = false;
    ASSERT_TRUE(policy.GetImageFileRule("", "a", files, elf));
    EXPECT_EQ((Files{"/kept", "/x", "/y"}), files);
    EXPECT_TRUE(elf);

    files = {"/kept"};
    elf = true;
    EXPECT_FALSE(policy.GetImageFileRule("j", "b", files, elf));
    EXPECT_EQ(Files{"/kept"}, files);
    EXPECT_TRUE(elf);
}

}  // namespace
