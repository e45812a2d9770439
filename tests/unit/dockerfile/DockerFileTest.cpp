// The module's plain functions: a policy document as the parser reads it, the rule an image gets
// from it, what the describer tells an operator about it; the ELF check.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "Capture.h"
#include "DockerFilePolicy.h"
#include "RootFsMonitor.h"
#include "framework/PolicyDescription.h"
#include "framework/TaskPolicy.h"
#include "support/TempDir.h"

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

class FunctionsTest : public ::testing::Test {
protected:
    void SetUp() override { Logs().Clear(); }
    DockerFilePolicy policy{"dockerfile_task"};
};

// Parse's result, the envelope "name|hash|id|enabled", the task named, the rule for image "a".
TEST_F(FunctionsTest, EnvelopeResultAndTaskChild) {
    const Rows rows = {
        // Not JSON: nothing changes, not even the name given at construction.
        {"{not json", "0 dockerfile_task|||1 - none"},
        {std::string(200000, '[') + std::string(200000, ']'), "0 dockerfile_task|||1 - none"},
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
            << doc.substr(0, 40);
    }
}

TEST_F(FunctionsTest, RulesThatNameNoImageAreDroppedWithAWarningEach) {
    EXPECT_EQ(1, policy.Parse(Document(R"([1, "x", null, {}, {"image_id":"","image_name":""},
        {"image_id":["sha256:a"],"image_name":{}}, {"image_name":"ok","protect_files":["/a"]}])")));
    EXPECT_EQ(6u, Logs().Count("Docker file get invalid rules content.")) << Logs().Dump();
    EXPECT_EQ("/a elf0", Find(policy, "", "ok"));
}

// Only strings count, as written; the 20th taken warns (even when there are exactly 20) and ends
// the list of that rule alone.
TEST_F(FunctionsTest, ARuleTakesTwentyFilesAsWritten) {
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
        EXPECT_EQ(want, Find(fresh, "j", "") + " " + std::to_string(Logs().Count(kLimitWarning)))
            << files;
    }
    Logs().Clear();
    policy.Parse(Document(R"([{"image_id":"i","protect_files":)" + FileArray(20) +
                          R"(},{"image_id":"j","protect_files":)" + FileArray(20) + "}]"));
    EXPECT_EQ(Listed(20) + "elf0", Find(policy, "j", ""));
    EXPECT_EQ(2u, Logs().Count(kLimitWarning));
}

TEST_F(FunctionsTest, WhichRuleApplies) {
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

// ---- the description for an operator ----

Framework::PolicyDescription Describe(const std::string& document) {
    Framework::PolicyDescription out;
    EXPECT_EQ(DescribePolicy("10001", document.data(), document.size(), nullptr, &out), 1);
    return out;
}

/// The rules in lookup order ("id|fuzzy|name <image> elf<0|1> <file> ... ;"), every finding as
/// "line where reason", then what protects nothing.
std::string Text(const Framework::PolicyDescription& d) {
    std::string text;
    for (const auto& r : d.rules) {
        const char* const kinds[] = {"name ", "fuzzy ", "id "};
        text +=
            kinds[r.byId ? 2 : r.fuzzy] + r.image + " elf" + std::to_string(r.elfForbidden) + " ";
        for (const auto& f : r.files) text += f + " ";
        text += ";";
    }
    for (const auto& f : d.findings) {
        text += "\n" + std::to_string(f.line) + " " + f.where + " " + f.reason;
    }
    return text + "\nnothing: " + d.protectsNothing;
}

// Documents that protect nothing: whether they are JSON the parser takes, whether the task gets
// the policy, and why nothing is protected (the agent's policy check shows more of these).
TEST_F(FunctionsTest, DescriptionSaysWhyNothingIsProtected) {
    const Rows rows = {
        {R"({"content":{}})", "1 1 content has no \"rules\" array"},
        {R"({"content":{"rules":[]}})", "1 1 content.rules is empty"},
        {R"({"content":{"rules":[{"image_id":7,"protect_files":["/a"]}, 3]}})",
         "1 1 no rule names an image by image_id or image_name"},
        {R"({"content":{"rules":[{"image_id":"x","protect_files":"/etc/passwd"},
            {"image_name":"y","protect_files":[1,true,null],"elf_forbidden":"yes"}]}})",
         "1 1 no rule protects a file or forbids executables"},
        {"\"text\"", "1 0 the document is a string, not a JSON object"},
        {std::string(100, '[') + std::string(100, ']'),
         "0 0 the document is not JSON: nested deeper than 64 levels"},
    };
    for (const auto& [doc, want] : rows) {
        const auto d = Describe(doc);
        EXPECT_EQ(want, std::to_string(d.valid) + " " + std::to_string(d.applied) + " " +
                            d.protectsNothing)
            << Text(d);
    }
}

// The rules the parser keeps, in lookup order; what it ignores or reads otherwise than written is
// named with its line. Entries beyond a rule's file limit are not looked at, as the parser does
// not take them.
TEST_F(FunctionsTest, DescriptionHasTheRulesAndNamesWhatTheParserReadsOtherwise) {
    std::string files = "[1";
    for (int i = 0; i < 22; ++i) files += ",\"/f" + std::to_string(i) + "\"";
    const auto d = Describe(
        "{\"feature_name\":\"f\",\"policy_id\":\"p\",\"hash\":1,\"enabled\":false,\"extra\":0,\n"
        "\"content\":{\"rules\":[\n"
        "{\"image_id\":\"i\",\"fuzzy_match\":true,\"protect_files\":" +
        files + ",\"\",\"relative\"]},\n" +
        R"({"image_name":"n","fuzzy_match":"yes","elf_forbidden":1,"protect":[]},
           {"image_name":"m","protect_files":["","etc/x",2]},
           {"image_name":"zeta","protect_files":["/z"]},
           {"image_id":"sha256:1","image_name":"ignored","elf_forbidden":true},
           {"image_name":"alpha","fuzzy_match":true,"protect_files":["/a1","/a2"]},
           {"image_id":"sha256:1","protect_files":["/dropped"]}]}})");
    EXPECT_TRUE(d.valid && d.applied && !d.enabled);
    EXPECT_EQ("10001 f p ", d.key + " " + d.feature + " " + d.policyId + " " + d.hash);
    EXPECT_EQ("id i elf0 " + Listed(20) +
                  ";id sha256:1 elf1 ;fuzzy alpha elf0 /a1 /a2 ;name m elf0  etc/x ;name n elf0 ;"
                  "name zeta elf0 /z ;\n"
                  "1 extra is not a known key; ignored\n"
                  "1 hash is a number, not a string; taken as \"\"\n"
                  "1 enabled is false, but the rules apply all the same\n"
                  "3 content.rules[0].fuzzy_match has no effect on a rule by image id\n"
                  "3 content.rules[0].protect_files[0] is a number, not a string; skipped\n"
                  "3 content.rules[0].protect_files[21] and what follows it are not protected: a "
                  "rule protects at most 20 files\n"
                  "4 content.rules[1].protect is not a known key; ignored\n"
                  "4 content.rules[1].elf_forbidden is a number, not a bool; taken as false\n"
                  "4 content.rules[1].fuzzy_match is a string, not a bool; taken as false\n"
                  "4 content.rules[1] protects no file and does not forbid executables\n"
                  "5 content.rules[2].protect_files[0] is empty\n"
                  "5 content.rules[2].protect_files[1] is not an absolute path\n"
                  "5 content.rules[2].protect_files[2] is a number, not a string; skipped\n"
                  "7 content.rules[4] has both image_id and image_name; only the id is used\n"
                  "9 content.rules[6] image id sha256:1 has a rule earlier; this one is dropped\n"
                  "nothing: ",
              Text(d));
    EXPECT_EQ(1u, Logs().Count(kLimitWarning)) << "parsed once, as the task would";
}

TEST_F(FunctionsTest, ADeliveredPolicyIsDescribedWithoutParsingOrLoggingAgain) {
    const std::string doc =
        R"({"content":{"rules":[{"image_name":"n","protect_files":["/a"]},{"x":1}]}})";
    policy.Parse(doc);
    Logs().Clear();
    Framework::PolicyDescription d;
    EXPECT_EQ(1, DescribePolicy("10001", doc.data(), doc.size(), &policy, &d));
    EXPECT_EQ("", Logs().Dump());
    EXPECT_EQ(
        "name n elf0 /a ;\n1 content.rules[1].x is not a known key; ignored\n"
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

// ---- the ELF check ----

// What the file holds is checked with the module's alarms; here the cases an audit event cannot
// reach, as they are filtered out before (or only a race would bring them here).
TEST_F(FunctionsTest, ElfCheckOfAMissingPathFailsLeavesTheFlagAndWarns) {
    TestSupport::TempDir dir;
    bool elf = true;
    EXPECT_FALSE(Engine::IsElf(dir / "missing", elf));
    EXPECT_TRUE(elf);
    EXPECT_EQ("dockerfile_module: Docker file path invalid: " + (dir / "missing") + ".\n",
              Logs().Dump());
}

// Not regular: examined and not ELF, without a log line; a FIFO without a writer must not block
// the task, and a device is never opened for reading.
TEST_F(FunctionsTest, ElfCheckExaminesDirectoryDeviceAndFifoAsNotElf) {
    TestSupport::TempDir dir;
    const std::string fifo = dir / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0700));
    for (const std::string& path : {dir.Path(), std::string("/dev/null"), fifo}) {
        auto pending = std::async(std::launch::async, [&path] {
            bool elf = true;
            return Engine::IsElf(path, elf) && !elf;
        });
        if (pending.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            // Release the blocked reader so the test can end, then report the hang.
            const int writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
            if (writer >= 0) close(writer);
            pending.wait();
            FAIL() << "the ELF check blocked on " << path;
        }
        EXPECT_TRUE(pending.get()) << path;
    }
    EXPECT_EQ("", Logs().Dump());
}

}  // namespace
