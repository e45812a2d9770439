// Malformed and hostile policy documents: never a crash, a clear trace, and the module keeps
// working afterwards.

#include <gtest/gtest.h>

#include "HarnessFixture.h"
#include "sdk/LogEscapingChannel.h"

namespace DockerFileHarness {
namespace {

class PolicyRobustnessTest : public ModuleFixture {
protected:
    /// A container of `imageId` started now: the paths it got watches for (root "/w<n>").
    std::vector<std::string> StartAndWatch(const std::string& imageId,
                                           const std::string& imageName = "") {
        Sent().Clear();
        const std::string id = "probe" + std::to_string(++probes_);
        harness.SendContainer(MakeContainer(id, id, imageId, imageName, "/w"));
        EXPECT_TRUE(harness.Sync());
        return WatchedPaths();
    }
    /// A valid policy still takes effect.
    void ExpectStillWorking() {
        Policy(PolicyDocument({IdRule("sha256:ok", {"/ok"})}));
        EXPECT_EQ(std::vector<std::string>{"/w/ok"}, StartAndWatch("sha256:ok"));
    }
    int probes_ = 0;
};

TEST_F(PolicyRobustnessTest, UnusableDocumentsAreLoggedAndLeaveThePolicyInForce) {
    Policy(PolicyDocument({IdRule("sha256:a", {"/a"})}));
    std::vector<std::string> docs = {
        "",
        "{",
        "not json",
        "null",
        "[]",
        "42",
        "\"text\"",
        "{}",
        R"({"content":"{\"rules\":[]}"})",
        R"({"content":[{"rules":[]}]})",
        R"({"content":null})",
        R"({"content":{"rules":[]}} trailing)",
        std::string(200000, '[') + std::string(200000, ']'),
        std::string(100000, '{'),
        "\xff\xfe\x00\x01",
    };
    std::string nested = R"({"content":{"rules":[)";
    for (int i = 0; i < 5000; ++i) nested += "{\"image_id\":";
    docs.push_back(nested);
    for (const auto& doc : docs) {
        SCOPED_TRACE(doc.substr(0, 40));
        Logs().Clear();
        harness.DeliverPolicy(doc);
        EXPECT_EQ(1u, Logs().Exactly("Docker file module refresh policy: " + doc).size());
        EXPECT_TRUE(Logs().Containing("Docker file module parse policy").empty())
            << "the parse line needs a content object";
        EXPECT_EQ(std::vector<std::string>{"/w/a"}, StartAndWatch("sha256:a"))
            << "a document that names no task leaves the task's policy as it was";
    }
    ExpectStillWorking();
}

TEST_F(PolicyRobustnessTest, ContentWithoutARulesArrayReplacesThePolicyWithAnEmptyOne) {
    for (const std::string content : {R"({})", R"({"rules":{}})", R"({"rules":"[]"})",
                                      R"({"rules":null})", R"({"rules":42})"}) {
        SCOPED_TRACE(content);
        Policy(PolicyDocument({IdRule("sha256:a", {"/a"})}));
        ASSERT_EQ(std::vector<std::string>{"/w/a"}, StartAndWatch("sha256:a"));
        Logs().Clear();
        Policy(R"({"feature_name":"f","hash":"h","policy_id":"p","content":)" + content + "}");
        EXPECT_EQ(1u,
                  Logs()
                      .Exactly("Docker file module parse policy: name(f),hash(h),id(p),enable(1)")
                      .size())
            << Logs().Dump();
        EXPECT_TRUE(StartAndWatch("sha256:a").empty());
    }
    ExpectStillWorking();
}

TEST_F(PolicyRobustnessTest, MembersOfTheWrongTypeFallBackToTheirDefaults) {
    // The first rule falls back to an exact name rule "web"; the second names no image.
    const std::string doc = R"({"feature_name":7,"hash":[],"enabled":"no","content":{"rules":[
        {"image_id":5,"image_name":"web","elf_forbidden":"true","fuzzy_match":1,
         "protect_files":"/etc/passwd"},
        {"image_id":["sha256:a"],"image_name":{}}]}})";
    Sent().Clear();
    Logs().Clear();
    Policy(doc);
    EXPECT_EQ((std::vector<std::string>{
                  "I Docker file module parse policy: name(),hash(),id(),enable(1)",
                  "D Docker file module insert name rules list: name(web), fuzzyMatch(0), "
                  "filesNum(0), elfForbidden(0)",
                  "W Docker file get invalid rules content.",
                  // The agent's log escapes the document's newlines.
                  "I Docker file module refresh policy: " + SDK::LogEscapingChannel::Escape(doc)}),
              Timeline());

    // "web" is an exact rule without files or audit: cached, nothing requested.
    EXPECT_TRUE(StartAndWatch("sha256:x", "web").empty());
    EXPECT_TRUE(Sent().All().empty());
    EXPECT_EQ(1u, Logs().Containing("Docker file add docker cache, index=0, name=probe").size());
    EXPECT_TRUE(StartAndWatch("sha256:x", "myweb").empty());
    EXPECT_EQ(1u, Logs().Containing("Docker file add docker cache").size());
    ExpectStillWorking();
}

TEST_F(PolicyRobustnessTest, LargeDocumentsStayUsable) {
    std::vector<Json::Value> rules;
    std::vector<std::string> hugeList;
    for (int i = 0; i < 200000; ++i) hugeList.push_back("/f" + std::to_string(i));
    rules.push_back(IdRule("sha256:huge", hugeList, true));
    char name[32];
    for (int i = 0; i < 10000; ++i) {
        rules.push_back(IdRule("img-" + std::to_string(i), {"/id" + std::to_string(i)}));
        snprintf(name, sizeof(name), "n-%05d-", i);
        rules.push_back(NameRule(name, {"/name" + std::to_string(i)}, true));
    }
    Policy(PolicyDocument(rules));
    EXPECT_EQ(10001u, Logs().Containing("Docker file insert  id rules list").size());
    EXPECT_EQ(1u, Logs().Exactly("Docker monitor file conut reach limit.").size());

    auto watched = StartAndWatch("sha256:huge");
    ASSERT_EQ(20u, watched.size());
    EXPECT_EQ("/w/f0", watched.front());
    EXPECT_EQ("/w/f19", watched.back());
    EXPECT_EQ(1u, AuditRules().size());
    EXPECT_EQ(std::vector<std::string>{"/w/id9999"}, StartAndWatch("img-9999"));
    EXPECT_EQ(std::vector<std::string>{"/w/id0"}, StartAndWatch("img-0"));
    EXPECT_EQ(std::vector<std::string>{"/w/name7321"}, StartAndWatch("none", "reg/n-07321-app:1"));
    EXPECT_TRUE(StartAndWatch("none", "n-7321").empty());
    ExpectStillWorking();
}

TEST_F(PolicyRobustnessTest, FormatLikeAndOddTextIsCarriedVerbatim) {
    const std::string odd = "/%s%d%n%lu%%\n\t\"'\\";
    const std::string bigName(1 << 20, 'n');
    Policy(PolicyDocument({IdRule("%s%n", {odd}, true), NameRule(bigName, {"/big"})}));
    Sent().Clear();
    harness.SendContainer(MakeContainer("%n%s", "%s%s%s", "%s%n", "%d", "/r%s"));
    ASSERT_TRUE(harness.Sync());
    EXPECT_EQ(std::vector<std::string>{"/r%s" + odd}, WatchedPaths());
    ASSERT_EQ(1u, AuditRules().size());
    EXPECT_EQ("cid:%n%s", AuditRules()[0]->ruleKey);
    // Kept as written, except that the log shows its control bytes as escapes.
    EXPECT_EQ(1u, Logs().Exactly("Docker file add notify: /r%s/%s%d%n%lu%%\\n\\t\"'\\").size());
    EXPECT_EQ(std::vector<std::string>{"/w/big"}, StartAndWatch("x", bigName));
    ExpectStillWorking();
}

}  // namespace
}  // namespace DockerFileHarness
