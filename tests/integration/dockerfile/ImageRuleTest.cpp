// Which rule protects a starting container: id first, then the smallest matching name key;
// at most 20 files per rule.

#include <gtest/gtest.h>

#include "HarnessFixture.h"

namespace DockerFileHarness {
namespace {

class ImageRuleTest : public ModuleFixture {
protected:
    /// Starts a container and returns the in-container files it got watches for.
    std::vector<std::string> FilesFor(const std::string& imageId, const std::string& imageName) {
        Sent().Clear();
        const std::string id = "c" + std::to_string(++started_);
        harness.SendContainer(MakeContainer(id, id, imageId, imageName, "/r"));
        EXPECT_TRUE(harness.Sync());
        std::vector<std::string> files;
        for (const auto& p : WatchedPaths()) files.push_back(p.substr(2));
        return files;
    }
    int started_ = 0;
};

TEST_F(ImageRuleTest, IdRuleWinsOverAMatchingNameRule) {
    Policy(PolicyDocument(
        {NameRule("nginx", {"/by-name"}, false, true), IdRule("sha256:aa", {"/by-id"})}));
    EXPECT_EQ(std::vector<std::string>{"/by-id"}, FilesFor("sha256:aa", "nginx"));
    EXPECT_TRUE(AuditRules().empty()) << "the id rule's flag applies, not the name rule's";
    EXPECT_EQ(1u,
              Logs().Exactly("Docker file match image by id: name(nginx), id(sha256:aa)").size());
    EXPECT_TRUE(Logs().Containing("match image by full name").empty());
    // Another id with the same name falls through to the name rule.
    EXPECT_EQ(std::vector<std::string>{"/by-name"}, FilesFor("sha256:bb", "nginx"));
    EXPECT_EQ(1u, AuditRules().size());
    auto full = Logs().Exactly("Docker file match image by full name: name(nginx), id(sha256:bb)");
    ASSERT_EQ(1u, full.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, full[0].priority);
}

TEST_F(ImageRuleTest, IdMatchIsExactAndCaseSensitive) {
    Policy(PolicyDocument({IdRule("sha256:AA", {"/a"})}));
    EXPECT_TRUE(FilesFor("sha256:aa", "x").empty());
    EXPECT_TRUE(FilesFor("sha256:AA0", "x").empty());
    EXPECT_EQ(std::vector<std::string>{"/a"}, FilesFor("sha256:AA", "x"));
}

TEST_F(ImageRuleTest, AmongFuzzyRulesTheSmallestKeyWins) {
    Policy(PolicyDocument({NameRule("nginx", {"/n1"}, true), NameRule("ngin", {"/n2"}, true)}));
    EXPECT_EQ(std::vector<std::string>{"/n2"}, FilesFor("sha256:x", "library/nginx:1.19"));
    auto fuzzy = Logs().Exactly(
        "Docker file match image by fuzzy name: name(library/nginx:1.19), id(sha256:x)");
    ASSERT_EQ(1u, fuzzy.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, fuzzy[0].priority);
}

TEST_F(ImageRuleTest, AFuzzyRuleSortingFirstBeatsAnExactOne) {
    Policy(PolicyDocument({NameRule("abc", {"/exact"}, false), NameRule("ab", {"/fuzzy"}, true)}));
    EXPECT_EQ(std::vector<std::string>{"/fuzzy"}, FilesFor("", "abc"));
    // Without the fuzzy candidate the exact rule applies.
    Policy(PolicyDocument({NameRule("abc", {"/exact"}, false)}));
    EXPECT_EQ(std::vector<std::string>{"/exact"}, FilesFor("", "abc"));
}

TEST_F(ImageRuleTest, ExactNameIncludesTheTag) {
    Policy(PolicyDocument({NameRule("nginx", {"/a"}, false)}));
    EXPECT_TRUE(FilesFor("", "nginx:latest").empty());
    EXPECT_TRUE(FilesFor("", "library/nginx").empty());
    EXPECT_TRUE(FilesFor("", "nginx ").empty());
    EXPECT_EQ(std::vector<std::string>{"/a"}, FilesFor("", "nginx"));
}

TEST_F(ImageRuleTest, FuzzyMatchIsAPlainCaseSensitiveSubstring) {
    Policy(PolicyDocument({NameRule("nx:1", {"/a"}, true)}));
    EXPECT_EQ(std::vector<std::string>{"/a"}, FilesFor("", "registry:5000/nginx:1.19"));
    EXPECT_TRUE(FilesFor("", "NGINX:1").empty());
    EXPECT_TRUE(FilesFor("", "nx:").empty());
    EXPECT_EQ(std::vector<std::string>{"/a"}, FilesFor("", "nx:1"));
}

TEST_F(ImageRuleTest, FirstRuleForAnIdOrANameWins) {
    Policy(PolicyDocument({IdRule("sha256:aa", {"/first"}, false),
                           IdRule("sha256:aa", {"/second", "/x"}, true),
                           NameRule("web", {"/fuzzy"}, true), NameRule("web", {"/exact"}, false)}));
    // Both id rules leave an insert line, the dropped one too.
    EXPECT_EQ(1u, Logs()
                      .Exactly("Docker file insert  id rules list: id(sha256:aa), filesNum(1), "
                               "elfForbidden(0)")
                      .size())
        << Logs().Dump();
    auto second = Logs().Exactly(
        "Docker file insert  id rules list: id(sha256:aa), filesNum(2), elfForbidden(1)");
    ASSERT_EQ(1u, second.size());
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, second[0].priority);
    auto nameLine = Logs().Exactly(
        "Docker file module insert name rules list: name(web), fuzzyMatch(1), filesNum(1), "
        "elfForbidden(0)");
    ASSERT_EQ(1u, nameLine.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, nameLine[0].priority);

    EXPECT_EQ(std::vector<std::string>{"/first"}, FilesFor("sha256:aa", ""));
    EXPECT_TRUE(AuditRules().empty());
    // The fuzzy "web" came first, so "myweb" matches although a later exact "web" exists.
    EXPECT_EQ(std::vector<std::string>{"/fuzzy"}, FilesFor("", "myweb"));
}

TEST_F(ImageRuleTest, ARuleWithAnIdIgnoresItsNameAndFuzzyFlag) {
    Json::Value rule = IdRule("sha256:aa", {"/a"});
    rule["image_name"] = "nginx";
    rule["fuzzy_match"] = true;
    Policy(PolicyDocument({rule}));
    EXPECT_TRUE(Logs().Containing("insert name rules list").empty());
    EXPECT_TRUE(FilesFor("sha256:bb", "nginx").empty());
    EXPECT_EQ(std::vector<std::string>{"/a"}, FilesFor("sha256:aa", "redis"));
}

TEST_F(ImageRuleTest, FuzzyFlagIsNotConsultedForIdRules) {
    Json::Value rule = IdRule("sha256:aa", {"/a"});
    rule["fuzzy_match"] = true;
    Policy(PolicyDocument({rule}));
    EXPECT_TRUE(FilesFor("sha256:a", "").empty());
    EXPECT_TRUE(FilesFor("xsha256:aax", "").empty());
}

TEST_F(ImageRuleTest, RuleWithNeitherIdNorNameIsDroppedWithAWarning) {
    Json::Value empty(Json::objectValue);
    empty["protect_files"] = Json::Value(Json::arrayValue);
    empty["protect_files"].append("/a");
    Json::Value blank = NameRule("", {"/b"});
    blank["image_id"] = "";
    Policy(PolicyDocument({empty, blank, NameRule("web", {"/c"})}));
    auto warnings = Logs().Exactly("Docker file get invalid rules content.");
    ASSERT_EQ(2u, warnings.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_WARNING, warnings[0].priority);
    EXPECT_EQ("dockerfile_module", warnings[0].logger);
    EXPECT_TRUE(FilesFor("", "").empty()) << "no rule for an empty name came of them";
    EXPECT_EQ(std::vector<std::string>{"/c"}, FilesFor("", "web"));
}

class FileLimitTest : public ImageRuleTest {
protected:
    static std::vector<std::string> Numbered(int n) {
        std::vector<std::string> files;
        for (int i = 0; i < n; ++i) files.push_back("/f" + std::to_string(i));
        return files;
    }
    size_t LimitWarnings() {
        return Logs().Exactly("Docker monitor file conut reach limit.").size();
    }
};

TEST_F(FileLimitTest, TwentyFiveFilesYieldTheFirstTwentyAndOneWarning) {
    Policy(PolicyDocument({IdRule("i", Numbered(25))}));
    auto warnings = Logs().Exactly("Docker monitor file conut reach limit.");
    ASSERT_EQ(1u, warnings.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_WARNING, warnings[0].priority);
    EXPECT_EQ(1u, Logs()
                      .Exactly("Docker file insert  id rules list: id(i), filesNum(20), "
                               "elfForbidden(0)")
                      .size());
    EXPECT_EQ(Numbered(20), FilesFor("i", ""));
}

TEST_F(FileLimitTest, ExactlyTwentyFilesAlsoWarn) {
    Policy(PolicyDocument({IdRule("i", Numbered(20))}));
    EXPECT_EQ(1u, LimitWarnings());
    EXPECT_EQ(Numbered(20), FilesFor("i", ""));
}

TEST_F(FileLimitTest, NineteenFilesDoNotWarn) {
    Policy(PolicyDocument({IdRule("i", Numbered(19))}));
    EXPECT_EQ(0u, LimitWarnings());
    EXPECT_EQ(Numbered(19), FilesFor("i", ""));
}

TEST_F(FileLimitTest, TheLimitAppliesPerRule) {
    Policy(PolicyDocument({IdRule("i", Numbered(21)), NameRule("n", Numbered(30))}));
    EXPECT_EQ(2u, LimitWarnings());
    EXPECT_EQ(Numbered(20), FilesFor("i", ""));
    EXPECT_EQ(Numbered(20), FilesFor("", "n"));
}

TEST_F(FileLimitTest, NonStringEntriesAreSkippedWithoutCounting) {
    Json::Value rule = IdRule("i", {});
    rule["protect_files"].append(1);
    rule["protect_files"].append("/a");
    rule["protect_files"].append(Json::Value());
    rule["protect_files"].append("/b");
    for (int i = 0; i < 30; ++i) rule["protect_files"].append(Json::Value(Json::objectValue));
    Policy(PolicyDocument({rule}));
    EXPECT_EQ(0u, LimitWarnings());
    EXPECT_EQ(1u, Logs()
                      .Exactly("Docker file insert  id rules list: id(i), filesNum(2), "
                               "elfForbidden(0)")
                      .size())
        << Logs().Dump();
    EXPECT_EQ((std::vector<std::string>{"/a", "/b"}), FilesFor("i", ""));
}

TEST_F(FileLimitTest, EntriesAreTakenAsTheyStand) {
    Policy(PolicyDocument({IdRule("i", {" /a ", "", "/b/../c", "/a"})}));
    EXPECT_EQ((std::vector<std::string>{" /a ", "", "/b/../c", "/a"}), FilesFor("i", ""));
}

}  // namespace
}  // namespace DockerFileHarness
