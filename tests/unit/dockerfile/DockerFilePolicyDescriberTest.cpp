#include <gtest/gtest.h>

#include <string>

#include "DockerFilePolicy.h"
#include "LogCapture.h"
#include "framework/PolicyDescription.h"
#include "framework/TaskPolicy.h"

extern "C" int DescribePolicy(const char* key, const char* document, unsigned long length,
                              const Framework::Policy* parsed, Framework::PolicyDescription* out);

namespace {

using DockerFileUnit::LogCapture;
using Framework::PolicyDescription;

PolicyDescription Describe(const std::string& document) {
    PolicyDescription out;
    EXPECT_EQ(DescribePolicy("10001", document.data(), document.size(), nullptr, &out), 1);
    return out;
}

std::string Findings(const PolicyDescription& d) {
    std::string text;
    for (const auto& f : d.findings) {
        text += std::to_string(f.line) + " " + f.where + " " + f.reason + "\n";
    }
    return text + "nothing: " + d.protectsNothing + "\n";
}

bool HasFinding(const PolicyDescription& d, int line, const std::string& where,
                const std::string& reasonStart) {
    for (const auto& f : d.findings) {
        if (f.line == line && f.where == where && f.reason.rfind(reasonStart, 0) == 0) return true;
    }
    return false;
}

class DescriberFixture : public ::testing::Test {
protected:
    void SetUp() override { LogCapture::Instance().Clear(); }
};

TEST_F(DescriberFixture, RulesAreThoseTheParserKeepsInLookupOrder) {
    const auto d = Describe(R"({"feature_name":"f","policy_id":"p","hash":"h","content":{"rules":[
        {"image_name":"zeta","protect_files":["/z"]},
        {"image_id":"sha256:1","image_name":"ignored","elf_forbidden":true},
        {"image_name":"alpha","fuzzy_match":true,"protect_files":["/a1","/a2"]},
        {"image_id":"sha256:1","protect_files":["/dropped"]}]}})");
    EXPECT_TRUE(d.valid);
    EXPECT_TRUE(d.applied);
    EXPECT_EQ(d.key, "10001");
    EXPECT_EQ(d.feature, "f");
    EXPECT_EQ(d.policyId, "p");
    EXPECT_EQ(d.hash, "h");
    EXPECT_TRUE(d.protectsNothing.empty());
    ASSERT_EQ(d.rules.size(), 3u);
    EXPECT_TRUE(d.rules[0].byId);
    EXPECT_EQ(d.rules[0].image, "sha256:1");
    EXPECT_TRUE(d.rules[0].elfForbidden);
    EXPECT_TRUE(d.rules[0].files.empty());
    EXPECT_EQ(d.rules[1].image, "alpha");
    EXPECT_TRUE(d.rules[1].fuzzy);
    EXPECT_EQ(d.rules[1].files, (std::vector<std::string>{"/a1", "/a2"}));
    EXPECT_EQ(d.rules[2].image, "zeta");
    EXPECT_FALSE(d.rules[2].fuzzy);
    EXPECT_TRUE(HasFinding(d, 3, "content.rules[1]", "has both image_id and image_name"))
        << Findings(d);
    EXPECT_TRUE(HasFinding(d, 5, "content.rules[3]", "image id sha256:1 has a rule earlier"))
        << Findings(d);
    EXPECT_EQ(d.findings.size(), 2u) << Findings(d);
}

TEST_F(DescriberFixture, DocumentsTheParserTakesSilentlyProtectNothing) {
    const struct {
        const char* document;
        const char* nothing;
        bool applied;
    } cases[] = {
        {R"({"content":{"rules":{"image_id":"x"}}})", "content.rules is an object, not an array",
         true},
        {R"({"content":"{\"rules\":[]}"})", "content is a string, not an object", false},
        {R"({"content":{}})", "content has no \"rules\" array", true},
        {R"({"content":{"rules":[]}})", "content.rules is empty", true},
        {R"({"content":{"rules":[{"image_id":7,"protect_files":["/a"]}, 3]}})",
         "no rule names an image by image_id or image_name", true},
        {R"({"content":{"rules":[{"image_id":"x","protect_files":"/etc/passwd"},
            {"image_name":"y","protect_files":[1,true,null],"elf_forbidden":"yes"}]}})",
         "no rule protects a file or forbids executables", true},
        {R"({"policy_id":"p"})", "the document has no \"content\" object", false},
        {"\"text\"", "the document is a string, not a JSON object", false},
    };
    for (const auto& c : cases) {
        const auto d = Describe(c.document);
        EXPECT_TRUE(d.valid) << c.document;
        EXPECT_EQ(d.protectsNothing.rfind(c.nothing, 0), 0u) << c.document << "\n" << Findings(d);
        EXPECT_EQ(d.applied, c.applied) << c.document;
    }
}

TEST_F(DescriberFixture, FileListsAreReadAsTheParserReadsThem) {
    std::string files = "[1";
    for (int i = 0; i < 22; ++i) files += ",\"/f" + std::to_string(i) + "\"";
    files += ",\"\",\"relative\"]";
    const auto d = Describe(R"({"content":{"rules":[{"image_name":"n","protect_files":)" + files +
                            R"(},{"image_name":"m","protect_files":["","etc/x",2]}]}})");
    ASSERT_EQ(d.rules.size(), 2u);
    EXPECT_EQ(d.rules[1].files.size(), 20u);  // "n" sorts after "m"
    EXPECT_TRUE(HasFinding(d, 1, "content.rules[0].protect_files[0]", "is a number"))
        << Findings(d);
    EXPECT_TRUE(HasFinding(d, 1, "content.rules[0].protect_files[21]", "and what follows"))
        << Findings(d);
    // Entries beyond the limit are not looked at, as the parser does not take them.
    EXPECT_FALSE(HasFinding(d, 1, "content.rules[0].protect_files[23]", "is empty")) << Findings(d);
    EXPECT_TRUE(HasFinding(d, 1, "content.rules[1].protect_files[0]", "is empty")) << Findings(d);
    EXPECT_TRUE(HasFinding(d, 1, "content.rules[1].protect_files[1]", "is not an absolute path"))
        << Findings(d);
    EXPECT_TRUE(HasFinding(d, 1, "content.rules[1].protect_files[2]", "is a number"))
        << Findings(d);
    EXPECT_EQ(LogCapture::Instance().Count("Docker monitor file conut reach limit."), 1);
}

TEST_F(DescriberFixture, TypesAndKeysTheParserIgnoresAreNamed) {
    const auto d = Describe(
        "{\"feature_name\":1,\"enabled\":false,\"extra\":0,\n"
        "\"content\":{\"rules\":[{\"image_id\":\"i\",\"fuzzy_match\":true,\"protect_files\":[\"/a"
        "\"]},\n"
        "{\"image_name\":\"n\",\"fuzzy_match\":\"yes\",\"elf_forbidden\":1,\"protect\":[]}]}}");
    EXPECT_TRUE(HasFinding(d, 1, "feature_name", "is a number, not a string")) << Findings(d);
    EXPECT_TRUE(HasFinding(d, 1, "enabled", "is false, but the rules apply")) << Findings(d);
    EXPECT_TRUE(HasFinding(d, 1, "extra", "is not a known key")) << Findings(d);
    EXPECT_TRUE(HasFinding(d, 2, "content.rules[0].fuzzy_match", "has no effect")) << Findings(d);
    EXPECT_TRUE(HasFinding(d, 3, "content.rules[1].fuzzy_match", "is a string, not a bool"))
        << Findings(d);
    EXPECT_TRUE(HasFinding(d, 3, "content.rules[1].elf_forbidden", "is a number, not a bool"))
        << Findings(d);
    EXPECT_TRUE(HasFinding(d, 3, "content.rules[1].protect", "is not a known key")) << Findings(d);
    EXPECT_TRUE(HasFinding(d, 3, "content.rules[1]", "protects no file and does not forbid"))
        << Findings(d);
    EXPECT_FALSE(d.enabled);
}

TEST_F(DescriberFixture, InvalidJsonIsNotValidAndSaysWhere) {
    for (const std::string& document : {std::string(), std::string("{\n\"content\": [,]\n}"),
                                        std::string(100, '[') + std::string(100, ']')}) {
        const auto d = Describe(document);
        EXPECT_FALSE(d.valid) << document;
        EXPECT_TRUE(d.rules.empty());
        ASSERT_EQ(d.findings.size(), 1u);
        EXPECT_EQ(d.findings[0].reason.rfind("is not JSON: ", 0), 0u) << d.findings[0].reason;
    }
    EXPECT_NE(Describe("{\n\"content\": [,]\n}").findings[0].reason.find("Line 2"),
              std::string::npos);
}

TEST_F(DescriberFixture, ADeliveredPolicyIsDescribedWithoutParsingOrLoggingAgain) {
    const std::string document =
        R"({"content":{"rules":[{"image_name":"n","protect_files":["/a"]},{"x":1}]}})";
    Engine::DockerFilePolicy policy("dockerfile_task");
    policy.Parse(document);
    LogCapture::Instance().Clear();
    PolicyDescription d;
    EXPECT_EQ(DescribePolicy("10001", document.data(), document.size(), &policy, &d), 1);
    EXPECT_EQ(LogCapture::Instance().Count("Docker file get invalid rules content."), 0);
    ASSERT_EQ(d.rules.size(), 1u);
    EXPECT_EQ(d.rules[0].files, std::vector<std::string>{"/a"});

    // Other keys, and other modules' policies, are not this module's to describe.
    PolicyDescription other;
    EXPECT_EQ(DescribePolicy("10002", document.data(), document.size(), nullptr, &other), 0);
    Framework::TaskPolicy foreign("some_task");
    EXPECT_EQ(DescribePolicy("", document.data(), document.size(), &foreign, &other), -1);
    EXPECT_EQ(DescribePolicy("", document.data(), document.size(), nullptr, &other), 1);
    EXPECT_EQ(other.key, "10001");
}

}  // namespace
