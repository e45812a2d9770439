// A policy document as the parser reads it, the rule an image gets from it, and what the
// describer tells an operator about it.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "Capture.h"
#include "DockerFilePolicy.h"
#include "framework/PolicyDescription.h"
#include "framework/TaskPolicy.h"

extern "C" int DescribePolicy(const char* key, const char* document, unsigned long length,
                              const Framework::Policy* parsed, Framework::PolicyDescription* out);

namespace {

using DockerFileTest::Logs;
using Engine::DockerFilePolicy;
using Files = std::vector<std::string>;
using Rows = std::vector<std::pair<std::string, std::string>>;

const char* const kLimitWarning = "Docker monitor file conut reach limit.";

std::string Document(const std::string& rules) {
    return R"({"feature_name":"dockerfile_feature","content":{"rules":)" + rules + "}}";
}

/// ["/f0","/f1",...] as JSON, and the same files as Find lists them.
std::string FileArray(int count) {
    std::string files = "[";
    for (int i = 0; i < count; ++i) files += (i ? ",\"/f" : "\"/f") + std::to_string(i) + "\"";
    return files + "]";
}
std::string Listed(int count) {
    std::string files;
    for (int i = 0; i < count; ++i) files += "/f" + std::to_string(i) + " ";
    return files;
}

/// "none", or the files and executable flag of the image's rule: "/a /b elf0".
std::string Find(const DockerFilePolicy& policy, const std::string& id, const std::string& name) {
    Files files;
    bool elf = false;
    if (!policy.GetImageFileRule(id, name, files, elf)) return "none";
    std::string out;
    for (const auto& f : files) out += f + " ";
    return out + (elf ? "elf1" : "elf0");
}

class PolicyTest : public ::testing::Test {
protected:
    void SetUp() override { Logs().Clear(); }
    DockerFilePolicy policy{"dockerfile_task"};
};

// Parse's result, the envelope "name|hash|id|enabled", the task named, the rule for image "a".
TEST_F(PolicyTest, EnvelopeResultAndTaskChild) {
    const Rows rows = {
        // Not JSON: nothing changes, not even the name given at construction.
        {"{not json", "0 dockerfile_task|||1 - none"},
        // No content: the envelope is taken, but there are no rules and no task child.
        {R"({"feature_name":"f","hash":"h","policy_id":"i","enabled":false})", "0 f|h|i|0 - none"},
        // Content is an object, never a string holding JSON.
        {R"({"content":"{\"rules\":[{\"image_name\":\"a\"}]}"})", "0 |||1 - none"},
        // Content without a rules array still names the task: its policy is replaced.
        {R"({"content":{}})", "0 |||1 dockerfile_task none"},
        {R"({"content":{"rules":{"image_name":"a"}}})", "0 |||1 dockerfile_task none"},
        {R"({"content":{"rules":"[]"}})", "0 |||1 dockerfile_task none"},
        // Members of the wrong type fall back to their defaults.
        {R"({"feature_name":7,"hash":[],"policy_id":{},"enabled":"no","content":{}})",
         "0 |||1 dockerfile_task none"},
        // "enabled" is stored but does not stop the rules being parsed.
        {R"({"enabled":false,"content":{"rules":[{"image_name":"a"}]}})",
         "1 |||0 dockerfile_task elf0"},
    };
    for (const auto& [doc, want] : rows) {
        DockerFilePolicy fresh("dockerfile_task");
        const int result = fresh.Parse(doc);
        std::string tasks;
        for (const auto& t : fresh.GetTaskNames()) tasks += t;
        EXPECT_EQ(want, std::to_string(result) + " " + fresh.GetPolicyName() + "|" +
                            fresh.GetHash() + "|" + fresh.GetPolicyId() + "|" +
                            std::to_string(fresh.IsEnabled()) + " " +
                            (tasks.empty() ? "-" : tasks) + " " + Find(fresh, "", "a"))
            << doc;
    }
}

TEST_F(PolicyTest, RulesThatNameNoImageAreDroppedWithAWarningEach) {
    EXPECT_EQ(1, policy.Parse(Document(R"([1, "x", null, {}, {"image_id":"","image_name":""},
        {"image_id":["sha256:a"],"image_name":{}}, {"image_name":"ok","protect_files":["/a"]}])")));
    EXPECT_EQ(6u, Logs().Find("Docker file get invalid rules content.").size()) << Logs().Dump();
    EXPECT_EQ("/a elf0", Find(policy, "", "ok"));
}

// Only strings count, as written; the 20th taken warns (even when there are exactly 20) and ends
// the list of that rule alone.
TEST_F(PolicyTest, ARuleTakesTwentyFilesAsWritten) {
    std::string mixed = "[1,null";
    for (int i = 0; i < 25; ++i) mixed += ",{},\"/f" + std::to_string(i) + "\"";
    const Rows rows = {
        {FileArray(25), Listed(20) + "elf0 1"},
        {FileArray(20), Listed(20) + "elf0 1"},
        {FileArray(19), Listed(19) + "elf0 0"},
        {mixed + "]", Listed(20) + "elf0 1"},
        {R"([" /a ", "etc/hosts", " /a ", ""])", " /a  etc/hosts  /a   elf0 0"},
        {"\"/a\"", "elf0 0"},
    };
    for (const auto& [files, want] : rows) {
        Logs().Clear();
        DockerFilePolicy fresh("dockerfile_task");
        fresh.Parse(Document(R"([{"image_id":"j","protect_files":)" + files + "}]"));
        EXPECT_EQ(want,
                  Find(fresh, "j", "") + " " + std::to_string(Logs().Find(kLimitWarning).size()))
            << files;
    }
    Logs().Clear();
    policy.Parse(Document(R"([{"image_id":"i","protect_files":)" + FileArray(20) +
                          R"(},{"image_id":"j","protect_files":)" + FileArray(20) + "}]"));
    EXPECT_EQ(Listed(20) + "elf0", Find(policy, "j", ""));
    EXPECT_EQ(2u, Logs().Find(kLimitWarning).size());
}

TEST_F(PolicyTest, WhichRuleApplies) {
    const std::string fuzzy = R"(,"fuzzy_match":true)";
    // rules, image id, image name, what Find shows
    const std::string rows[][4] = {
        // The id rule wins over the name rule; a rule with id and name is an id rule.
        {R"({"image_name":"n","protect_files":["/n"]},{"image_id":"sha256:1"})", "sha256:1", "n",
         "elf0"},
        {R"({"image_id":"sha256:1","image_name":"n")" + fuzzy + "}", "sha256:2", "n", "none"},
        {R"({"image_id":"sha256:1","image_name":"n")" + fuzzy + "}", "sha256:1", "x", "elf0"},
        // Ids compare exactly, case included; the first rule for an id wins.
        {R"({"image_id":"sha256:AB"})", "sha256:ab", "", "none"},
        {R"({"image_id":"sha256:AB"})", "sha256:A", "", "none"},
        {R"({"image_id":"i","protect_files":["/1"]},{"image_id":"i","elf_forbidden":true})", "i",
         "", "/1 elf0"},
        // Name rules in key order, the smallest key first, fuzzy or exact alike; fuzzy and exact
        // rules of one name collide, and the first stays.
        {R"({"image_name":"nginx","protect_files":["/long"])" + fuzzy +
             R"(},{"image_name":"ngin","protect_files":["/short"])" + fuzzy + "}",
         "", "library/nginx:1.19", "/short elf0"},
        {R"({"image_name":"abc"},{"image_name":"ab","protect_files":["/fuzzy"])" + fuzzy + "}", "",
         "abc", "/fuzzy elf0"},
        {R"({"image_name":"app"},{"image_name":"app")" + fuzzy + "}", "", "my-app", "none"},
        // An exact name includes the tag; a fuzzy one is a case-sensitive substring.
        {R"({"image_name":"nginx"})", "", "nginx:latest", "none"},
        {R"({"image_name":"nginx"})", "", "ngin", "none"},
        {R"({"image_name":"redis")" + fuzzy + "}", "", "docker.io/library/redis:7", "elf0"},
        {R"({"image_name":"redis")" + fuzzy + "}", "", "REDIS", "none"},
        // Members of the wrong type fall back to their defaults: an exact rule for "web".
        {R"({"image_id":5,"image_name":"web","elf_forbidden":"true","fuzzy_match":1,
             "protect_files":"/etc/passwd"})",
         "5", "web", "elf0"},
        {R"({"image_name":"web","fuzzy_match":1})", "", "myweb", "none"},
        {"", "", "", "none"},
    };
    for (const auto& row : rows) {
        DockerFilePolicy fresh("dockerfile_task");
        fresh.Parse(Document("[" + row[0] + "]"));
        EXPECT_EQ(row[3], Find(fresh, row[1], row[2])) << row[0] << " / " << row[1] << row[2];
    }
}

// The caller passes the cache record's own list and flag: a match appends behind what is there,
// no match leaves both as they were.
TEST_F(PolicyTest, CallersArgumentsAreExtendedOnAMatchAndUntouchedOtherwise) {
    policy.Parse(Document(R"([{"image_name":"a","protect_files":["/x"],"elf_forbidden":true}])"));
    Files files = {"/kept"};
    bool elf = false;
    ASSERT_TRUE(policy.GetImageFileRule("", "a", files, elf));
    EXPECT_EQ((Files{"/kept", "/x"}), files);
    EXPECT_TRUE(elf);
    files = {"/kept"};
    EXPECT_FALSE(policy.GetImageFileRule("j", "b", files, elf = true));
    EXPECT_EQ(Files{"/kept"}, files);
    EXPECT_TRUE(elf);
}

// ---- the description for an operator ----

Framework::PolicyDescription Describe(const std::string& document) {
    Framework::PolicyDescription out;
    EXPECT_EQ(DescribePolicy("10001", document.data(), document.size(), nullptr, &out), 1);
    return out;
}

/// The rules in lookup order ("id|fuzzy|name <image> elf<0|1> <files>;"), every finding as
/// "line where reason", then what protects nothing.
std::string Text(const Framework::PolicyDescription& d) {
    std::string text;
    for (const auto& r : d.rules) {
        text += std::string(r.byId    ? "id "
                            : r.fuzzy ? "fuzzy "
                                      : "name ") +
                r.image + " elf" + std::to_string(r.elfForbidden);
        for (const auto& f : r.files) text += " " + f;
        text += ";";
    }
    for (const auto& f : d.findings) {
        text += "\n" + std::to_string(f.line) + " " + f.where + " " + f.reason;
    }
    return text + "\nnothing: " + d.protectsNothing;
}

TEST_F(PolicyTest, DescriptionHasTheRulesTheParserKeepsInLookupOrder) {
    const auto d = Describe(R"({"feature_name":"f","policy_id":"p","hash":"h","content":{"rules":[
        {"image_name":"zeta","protect_files":["/z"]},
        {"image_id":"sha256:1","image_name":"ignored","elf_forbidden":true},
        {"image_name":"alpha","fuzzy_match":true,"protect_files":["/a1","/a2"]},
        {"image_id":"sha256:1","protect_files":["/dropped"]}]}})");
    EXPECT_TRUE(d.valid && d.applied && d.enabled);
    EXPECT_EQ("10001 f p h", d.key + " " + d.feature + " " + d.policyId + " " + d.hash);
    EXPECT_EQ(
        "id sha256:1 elf1;fuzzy alpha elf0 /a1 /a2;name zeta elf0 /z;\n"
        "3 content.rules[1] has both image_id and image_name; only the id is used\n"
        "5 content.rules[3] image id sha256:1 has a rule earlier; this one is dropped\n"
        "nothing: ",
        Text(d));
}

// Documents the parser takes without a word that protect nothing: whether the task gets the
// policy, and why nothing is protected (the agent's policy check shows more of these).
TEST_F(PolicyTest, DescriptionSaysWhyNothingIsProtected) {
    const Rows rows = {
        {R"({"content":{}})", "1 content has no \"rules\" array"},
        {R"({"content":{"rules":[]}})", "1 content.rules is empty"},
        {R"({"content":{"rules":[{"image_id":7,"protect_files":["/a"]}, 3]}})",
         "1 no rule names an image by image_id or image_name"},
        {R"({"content":{"rules":[{"image_id":"x","protect_files":"/etc/passwd"},
            {"image_name":"y","protect_files":[1,true,null],"elf_forbidden":"yes"}]}})",
         "1 no rule protects a file or forbids executables"},
        {"\"text\"", "0 the document is a string, not a JSON object"},
    };
    for (const auto& [doc, want] : rows) {
        const auto d = Describe(doc);
        EXPECT_TRUE(d.valid);
        EXPECT_EQ(want, std::to_string(d.applied) + " " + d.protectsNothing) << Text(d);
    }
}

// What the parser ignores or reads otherwise than written is named with its line; entries beyond
// a rule's file limit are not looked at, as the parser does not take them.
TEST_F(PolicyTest, DescriptionNamesWhatTheParserReadsOtherwise) {
    std::string files = "[1";
    for (int i = 0; i < 22; ++i) files += ",\"/f" + std::to_string(i) + "\"";
    const auto d = Describe(
        "{\"feature_name\":1,\"enabled\":false,\"extra\":0,\n\"content\":{\"rules\":[\n"
        "{\"image_id\":\"i\",\"fuzzy_match\":true,\"protect_files\":" +
        files + ",\"\",\"relative\"]},\n" +
        R"({"image_name":"n","fuzzy_match":"yes","elf_forbidden":1,"protect":[]},
           {"image_name":"m","protect_files":["","etc/x",2]}]}})");
    EXPECT_FALSE(d.enabled);
    EXPECT_EQ(
        "id i elf0 " + Listed(20).substr(0, Listed(20).size() - 1) +
            ";name m elf0  etc/x;name n elf0;\n"
            "1 extra is not a known key; ignored\n"
            "1 feature_name is a number, not a string; taken as \"\"\n"
            "1 enabled is false, but the rules apply all the same\n"
            "3 content.rules[0].fuzzy_match has no effect on a rule by image id\n"
            "3 content.rules[0].protect_files[0] is a number, not a string; skipped\n"
            "3 content.rules[0].protect_files[21] and what follows it are not protected: a rule "
            "protects at most 20 files\n"
            "4 content.rules[1].protect is not a known key; ignored\n"
            "4 content.rules[1].elf_forbidden is a number, not a bool; taken as false\n"
            "4 content.rules[1].fuzzy_match is a string, not a bool; taken as false\n"
            "4 content.rules[1] protects no file and does not forbid executables\n"
            "5 content.rules[2].protect_files[0] is empty\n"
            "5 content.rules[2].protect_files[1] is not an absolute path\n"
            "5 content.rules[2].protect_files[2] is a number, not a string; skipped\n"
            "nothing: ",
        Text(d));
    EXPECT_EQ(1u, Logs().Find(kLimitWarning).size()) << "parsed once, as the task would";
}

// Not JSON at all, or where it stops being JSON, is shown by the agent's policy check.
TEST_F(PolicyTest, DescriptionOfTooDeepADocumentSaysSo) {
    const auto d = Describe(std::string(100, '[') + std::string(100, ']'));
    EXPECT_FALSE(d.valid);
    EXPECT_EQ(
        "\n0 the document is not JSON: nested deeper than 64 levels\n"
        "nothing: the document is not JSON: nested deeper than 64 levels",
        Text(d));
}

TEST_F(PolicyTest, ADeliveredPolicyIsDescribedWithoutParsingOrLoggingAgain) {
    const std::string doc =
        R"({"content":{"rules":[{"image_name":"n","protect_files":["/a"]},{"x":1}]}})";
    policy.Parse(doc);
    Logs().Clear();
    Framework::PolicyDescription d;
    EXPECT_EQ(1, DescribePolicy("10001", doc.data(), doc.size(), &policy, &d));
    EXPECT_EQ("", Logs().Dump());
    EXPECT_EQ(
        "name n elf0 /a;\n1 content.rules[1].x is not a known key; ignored\n"
        "1 content.rules[1] has no image_id or image_name; dropped\nnothing: ",
        Text(d));
    // Other keys, and other modules' policies, are not this module's to describe.
    EXPECT_EQ(0, DescribePolicy("10002", doc.data(), doc.size(), nullptr, &d));
    Framework::TaskPolicy foreign("some_task");
    EXPECT_EQ(-1, DescribePolicy("", doc.data(), doc.size(), &foreign, &d));
    Framework::PolicyDescription any;
    EXPECT_EQ(1, DescribePolicy("", doc.data(), doc.size(), nullptr, &any));
    EXPECT_EQ("10001", any.key);
}

}  // namespace
