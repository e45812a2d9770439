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
#include "support/TempDir.h"

extern "C" int DescribePolicy(const char* key, const char* document, unsigned long length,
                              const Framework::Policy* parsed, Framework::PolicyDescription* out);

namespace {

using DockerFileTest::Logs;
using Engine::DockerFilePolicy;
using Rows = std::vector<std::pair<std::string, std::string>>;

/// "/f0".."/f<count-1>" as a JSON array, or as Find lists them.
std::string Files(int count, bool json) {
    std::string files;
    for (int i = 0; i < count; ++i)
        files += (json ? ",\"/f" : "/f") + std::to_string(i) + (json ? "\"" : " ");
    return json ? "[" + files.substr(1) + "]" : files;
}

/// "none", or the files and executable flag of the image's rule: "/a /b elf0".
std::string Find(const DockerFilePolicy& policy, const std::string& id, const std::string& name) {
    std::vector<std::string> files;
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

// Rules that name no image are dropped with a warning each. Of a rule's files only strings count,
// as written; the 20th taken warns (even when there are exactly 20) and ends that rule's list
// alone. The first rule for an id wins; members of the wrong type fall back to their defaults.
// An id rule wins over a name rule, and a rule with both is an id rule; of several matching
// names the smallest key wins, and fuzzy and exact rules of one name collide (the first stays).
TEST_F(FunctionsTest, WhichRulesTheParserKeepsAndWhichOneApplies) {
    std::string mixed = "[1,null";
    for (int i = 0; i < 25; ++i) mixed += ",{},\"/f" + std::to_string(i) + "\"";
    policy.Parse(R"({"content":{"rules":[1, "x", null, {}, {"image_id":"","image_name":""},
        {"image_id":["sha256:a"],"image_name":{}}, {"image_id":"i","protect_files":)" +
                 Files(20, true) + R"(}, {"image_id":"j","protect_files":)" + mixed +
                 R"(]}, {"image_id":"k","protect_files":)" + Files(19, true) + R"(},
        {"image_id":"k","elf_forbidden":true}, {"image_id":"m","image_name":"both"},
        {"image_id":"l","protect_files":[" /a ","etc/hosts"," /a ",""]},
        {"image_id":5,"image_name":"web","elf_forbidden":"true","fuzzy_match":1,
         "protect_files":"/etc/passwd"}, {"image_name":"nginx","fuzzy_match":true},
        {"image_name":"ngin","fuzzy_match":true,"elf_forbidden":true},
        {"image_name":"app"}, {"image_name":"app","fuzzy_match":true}]}})");
    EXPECT_EQ(6u, Logs().Count("Docker file get invalid rules content.")) << Logs().Dump();
    EXPECT_EQ(2u, Logs().Count("Docker monitor file conut reach limit."));
    EXPECT_EQ(Files(20, false) + "elf0|" + Files(20, false) + "elf0|" + Files(19, false) +
                  "elf0| /a  etc/hosts  /a   elf0|elf0|none|none|elf1|none",
              Find(policy, "i", "web") + "|" + Find(policy, "j", "") + "|" + Find(policy, "k", "") +
                  "|" + Find(policy, "l", "") + "|" + Find(policy, "", "web") + "|" +
                  Find(policy, "", "myweb") + "|" + Find(policy, "", "both") + "|" +
                  Find(policy, "", "library/nginx:1.19") + "|" + Find(policy, "", "my-app"));
}

// ---- the description for an operator ----

// Whether the document is JSON the parser takes, whether the task gets the policy, the envelope
// as parsed "name|hash|id|enabled", and why nothing is protected: one row per reason the agent's
// policy check does not show already.
TEST_F(FunctionsTest, DescriptionSaysWhyNothingIsProtected) {
    const Rows rows = {
        // Without a content object the envelope is taken, but the task gets no policy.
        {R"({"feature_name":"f","hash":"h","policy_id":"i","enabled":false})",
         "1 0 f|h|i|0 the document has no \"content\" object"},
        // Members of the wrong type fall back to their defaults.
        {R"({"feature_name":7,"hash":[],"policy_id":{},"enabled":"no","content":{}})",
         "1 1 |||1 content has no \"rules\" array"},
        {R"({"content":{"rules":[]}})", "1 1 |||1 content.rules is empty"},
        {R"({"content":{"rules":[{"image_id":7,"protect_files":["/a"]}, 3]}})",
         "1 1 |||1 no rule names an image by image_id or image_name"},
        {R"({"content":{"rules":[{"image_id":"x","protect_files":"/etc/passwd"},
            {"image_name":"y","protect_files":[1,true,null],"elf_forbidden":"yes"}]}})",
         "1 1 |||1 no rule protects a file or forbids executables"},
        {"\"text\"", "1 0 |||1 the document is a string, not a JSON object"},
        // Far deeper than the reader's limit: refused, never a stack overflow.
        {std::string(200000, '[') + std::string(200000, ']'),
         "0 0 |||1 the document is not JSON: nested deeper than 64 levels"},
    };
    for (const auto& [doc, want] : rows) {
        Framework::PolicyDescription d;
        EXPECT_EQ(1, DescribePolicy("10001", doc.data(), doc.size(), nullptr, &d));
        EXPECT_EQ(want, std::to_string(d.valid) + " " + std::to_string(d.applied) + " " +
                            d.feature + "|" + d.hash + "|" + d.policyId + "|" +
                            std::to_string(d.enabled) + " " + d.protectsNothing);
    }
}

// Where the parser reads a rule otherwise than written, the finding names it with its line (how
// the rules it keeps are shown, and the findings of a rule without an image or beyond the file
// limit, are the agent's policy check case). A delivered policy is described without parsing
// (and logging) again.
TEST_F(FunctionsTest, DescriptionNamesWhatTheParserReadsOtherwise) {
    const std::string doc =
        "{\"policy_id\":\"p\",\"content\":{\"rules\":[\n" +
        std::string(R"({"image_name":"n","elf_forbidden":1,"protect_files":["etc/x"]},
        {"image_id":"sha256:1","image_name":"ignored","elf_forbidden":true}]}})");
    policy.Parse(doc);
    Logs().Clear();
    Framework::PolicyDescription d;
    EXPECT_EQ(1, DescribePolicy("10001", doc.data(), doc.size(), &policy, &d));
    EXPECT_EQ("", Logs().Dump());
    std::string findings = d.policyId + " " + std::to_string(d.rules.size());
    for (const auto& f : d.findings) {
        findings += "\n" + std::to_string(f.line) + " " + f.where + " " + f.reason;
    }
    EXPECT_EQ(
        "p 2\n"
        "2 content.rules[0].elf_forbidden is a number, not a bool; taken as false\n"
        "2 content.rules[0].protect_files[0] is not an absolute path\n"
        "3 content.rules[1] has both image_id and image_name; only the id is used",
        findings);
}

// ---- the ELF check ----

// What the file holds is checked with the module's alarms; here a case an audit event reaches only
// by a race, as the mode check drops it before: a file that is not regular is examined and not
// ELF, without a log line and never opened for reading, so a FIFO without a writer must not block
// the task (a device is the same branch).
TEST_F(FunctionsTest, ElfCheckExaminesAFifoAsNotElfWithoutBlocking) {
    TestSupport::TempDir dir;
    const std::string fifo = dir / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0700));
    auto pending = std::async(std::launch::async, [&fifo] {
        bool elf = true;
        return Engine::IsElf(fifo, elf) && !elf;
    });
    const bool returned = pending.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    // A writer coming and going releases a blocked reader, so that the test ends either way.
    close(open(fifo.c_str(), O_WRONLY | O_NONBLOCK));
    EXPECT_TRUE(returned) << "the ELF check blocked on a FIFO";
    EXPECT_TRUE(pending.get());
    EXPECT_EQ("", Logs().Dump());
}

}  // namespace
