// The module loaded as the agent loads it, on the real framework, next to stand-ins for the four
// services it talks to: what each container start and exit asks the neighbours for, and the two
// alarms ("dockerfile_001" for file-notify events on protected files, "dockerfile_002" for
// executables written under a root where they are forbidden). The stand-ins add every message to
// the log capture on the sender's thread, so a test sees what the module logged and sent in one
// order. Real files in temporary directories stand in for containers' root filesystems. Module
// start and stop, policy delivery and replacement, and each alarm kind in a real container are
// the end-to-end suite's.

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "Capture.h"
#include "container/ContainerMessage.h"
#include "filenotify/FileNotifyMessage.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "framework/DataMessage.h"
#include "framework/TaskCondition.h"
#include "process_collect/AuditEventMessage.h"
#include "process_collect/AuditFileSystemCtrlMessage.h"
#include "sdk/JsonUtils.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/ServiceModule.h"
#include "support/Shell.h"
#include "support/TaskHost.h"
#include "support/TempDir.h"

namespace DockerFileTest {
namespace {

using Strings = std::vector<std::string>;
constexpr const char* kModuleTask = "dockerfile_task";
const std::string kMasks = " 100 2 200 c0 4 400 800";

/// Takes every message handed to it into the capture and handles none.
class Neighbour : public Framework::Task {
public:
    explicit Neighbour(const char* name)
        : Framework::Task(name, "test", Framework::TaskCondition::TASK_TYPE_MESSAGE, 16) {}
    int EnqueueMsg(std::shared_ptr<Framework::Message>& msg) override {
        Logs().Add({"", 0, name(), msg});
        return 1;
    }
};

/// A message the module sent, with what its recipient acts on.
std::string Describe(const Framework::Message* m) {
    std::ostringstream out;
    if (auto* w = dynamic_cast<const Engine::FileNotifyWatchMessage*>(m)) {
        out << (w->add ? "add " : "remove ") << w->path << std::hex;
        for (unsigned int mask : w->masks) out << " " << mask;
        if (w->add) out << " ext " << std::dec << w->options.extParm;
    } else if (auto* a = dynamic_cast<const Engine::AuditFileSystemCtrlMessage*>(m)) {
        out << a->ruleOption << " " << a->ruleKey << " " << a->ruleArgument;
    }
    return out.str();
}

Json::Value ParseJson(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(0, SDK::JsonUtils::ParseJsonStr(text, value)) << text;
    return value;
}

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* name :
             {"container_collect_task", "filenotify_task", "audit_task", "data_comm_report_task"}) {
            ASSERT_NE(nullptr, sender = neighbours.Add(new Neighbour(name)));
        }
        ASSERT_TRUE(module.Load("libdockerfile_module.so")) << module.Error();
        Logs().Clear();
    }
    /// Delivers a document holding the rule objects `rules` (JSON text) under the module's policy
    /// key, as the agent does.
    void Policy(const std::string& rules) {
        const std::string document =
            R"({"feature_name":"dockerfile_feature","content":{"rules":[)" + rules + "]}}";
        Framework::Policy* current = nullptr;
        ASSERT_EQ(0, module.Get()->RefreshPolicy("10001", "dockerfile_feature", document, current))
            << Logs().Dump();
    }
    /// Sends `msg` to the module's task as a neighbour would, and waits until it was handled.
    void Send(Framework::Message* msg) {
        sender->SendDirectMsg(kModuleTask, msg);
        ASSERT_TRUE(Framework::Task::WaitIdle(kModuleTask,
                                              static_cast<int>(TestSupport::kDefaultWait.count())))
            << Logs().Dump();
    }
    void Container(const std::string& id, const std::string& name, const std::string& imageId,
                   const std::string& imageName, const std::string& rootPath, bool running = true) {
        auto info = std::make_shared<Engine::ContainerInfo>();
        info->running = running;
        std::tie(info->id, info->name, info->imageId, info->imageName, info->rootPath) =
            std::tie(id, name, imageId, imageName, rootPath);
        Send(new Engine::ContainerMessage(info));
    }
    /// What the module logged, at notice level and above (all of it if `debug`), and sent, in
    /// order: a record as its priority letter and text, a message as its recipient and Describe.
    /// Policy deliveries are logged at information level; that is the end-to-end suite's.
    Strings Timeline(bool debug = false) const {
        Strings out;
        for (const auto& e : Logs().Entries()) {
            if (e.msg) {
                out.push_back("to " + e.text + ": " + Describe(e.msg.get()));
            } else if (e.logger == "dockerfile_module" &&
                       (debug || e.priority < Poco::Message::PRIO_INFORMATION)) {
                out.push_back(std::string(1, "-FCEWNIDT"[e.priority]) + " " + e.text);
            }
        }
        return out;
    }
    // Declared in this order so that the module stops before its neighbours go.
    TestSupport::TaskHost neighbours{"neighbours"};
    TestSupport::ServiceModule module;
    Framework::Task* sender = nullptr;
};

// ---- container start and exit ----

// Without a policy a start is an error and nothing is cached. A protected start asks for one
// watch per file, every mask and the container's cache index with it, then for the audit rule;
// a second start of a cached container is refused. An exit withdraws what was set up for the
// cached record, not what the exit names, whatever the policy now says; an exit that finds
// nothing cached is warned and sends nothing. Root and entry are joined as they stand; format
// directives and control bytes are data, carried as written (the log escapes them, the end-to-end
// hostile_file_name_stays_one_log_line case).
TEST_F(ModuleTest, TheCacheDecidesWhatStartAndExitDoWithTextAsItIs) {
    Container("%n%s", "b", "", "myapp", "/rb");
    Policy(R"({"image_id":"%s%n","elf_forbidden":true,
                   "protect_files":["/%s%d%n%lu%%\n\t\"'\\","e/h"]})");
    Container("%n%s", "%s%s%s", "%s%n", "%d", "/r%s/");
    Container("%n%s", "second", "%s%n", "myapp:2", "/elsewhere");
    Policy("");
    Container("%n%s", "renamed", "", "other", "/changed", false);
    Container("%n%s", "b", "", "myapp", "/rb", false);
    const std::string file = "/r%s//%s%d%n%lu%%\n\t\"'\\";
    EXPECT_EQ((Strings{"E Docker file task get feature policy failed.",
                       "to filenotify_task: add " + file + kMasks + " ext 0",
                       "to filenotify_task: add /r%s/e/h" + kMasks + " ext 0",
                       "to audit_task: -w cid:%n%s /r%s/ -p wa",
                       "W Docker file task insert exist docker cache. name:second, image:myapp:2",
                       "to filenotify_task: remove " + file, "to filenotify_task: remove /r%s/e/h",
                       "to audit_task: -W cid:%n%s /r%s/ -p wa",
                       "W Docker file task do not find containre cache."}),
              Timeline());
}

// ---- the alarms ----

const std::string kRoot = "/var/lib/docker/overlay2/abc/merged";
const char* const kElf = "/bin/true";  // copied into container roots

/// Writes `text` to `path` with `mode`.
bool Put(const std::string& path, mode_t mode, const std::string& text) {
    return TestSupport::FileText::Write(path, text) && chmod(path.c_str(), mode) == 0;
}

/// "web" (index 0) protects two files under kRoot; "box" (index 1) forbids executables under a
/// real directory holding an executable at usr/bin/tool (mode 0744).
class AlarmTest : public ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        root.Dir("usr/bin");
        // The owner's execute bit alone makes it executable.
        ASSERT_TRUE(Put(tool, 0744, TestSupport::FileText::Read(kElf)));
        Policy(R"({"image_name":"myapp","fuzzy_match":true,
                       "protect_files":["/etc/passwd","/etc/shadow"]},
                      {"image_id":"sha256:elf","elf_forbidden":true})");
        Container("cid-1", "web", "sha256:img", "myapp:1", kRoot);
        Container("c-elf", "box", "sha256:elf", "busybox:1", root.Path());
        Logs().Clear();
    }
    /// An audit event for the files named, as "audit_task" sends it.
    void Audit(const std::string& key, const Strings& paths, bool write = true, bool attr = false) {
        auto* msg = new Engine::AuditEventMessage();
        msg->key = key;
        msg->syscall = std::make_shared<Engine::AuditLogSyscall>();
        for (const auto& p : paths) msg->syscall->paths.push_back({p, "NORMAL", "", ""});
        msg->syscall->write = write;
        msg->syscall->attr = attr;
        msg->syscall->pid = std::to_string(getpid());
        msg->syscall->ppid = std::to_string(getppid());
        msg->syscall->processName = "cp";
        Send(msg);
    }
    /// The last alarm sent since the capture was cleared, parsed, without "event_id" (a
    /// non-empty string) and "occur_time" (a number of seconds, now).
    Json::Value Alarm() const {
        std::shared_ptr<Framework::DataMessage> last;
        for (const auto& e : Logs().Entries()) {
            if (auto m = std::dynamic_pointer_cast<Framework::DataMessage>(e.msg)) last = m;
        }
        if (!last) return Json::Value();
        EXPECT_EQ("2", last->GetType());
        Json::Value doc = ParseJson(last->GetData());
        EXPECT_TRUE(doc["event_id"].isString() && !doc["event_id"].asString().empty()) << doc;
        EXPECT_TRUE(doc["occur_time"].isIntegral()) << "a number, not a string: " << doc;
        EXPECT_NEAR(time(nullptr), doc["occur_time"].asInt64(), 2) << "seconds, stamped now";
        doc.removeMember("event_id");
        doc.removeMember("occur_time");
        return doc;
    }
    /// What the last event led to: the last alarm's container, file and operation (and the
    /// executable's hash and mode), or every line logged and message sent, one a line, but for
    /// the debug trace of each audit event received: the line after it says why.
    std::string Outcome() const {
        const Json::Value doc = Alarm();
        std::string out;
        if (doc.isNull()) {
            for (const auto& line : Timeline(true)) {
                if (line.rfind("D Docker file rootFs receive audit", 0) != 0) out += line + "\n";
            }
            return out;
        }
        const Json::Value& f = doc["file_info"][0];
        out = doc["container_name"].asString() + " " + f["file_path"].asString() + " " +
              f["file_operation"].asString();
        if (!f.isMember("file_sha256")) return out;
        return out + " " + f["file_sha256"].asString() + " " + f["file_attr"].asString();
    }
    TestSupport::TempDir root;
    const std::string tool = root / "usr/bin/tool";
    // Worked out apart from the agent's own helper.
    const std::string elfSha256 =
        TestSupport::Shell::Output(std::string("sha256sum ") + kElf + " | cut -d' ' -f1");
};

// The index picks the container and its root must lead the path, as plain text; the alarm names
// the path without the root, and the first matching bit in the order create, modify, move,
// delete, change of status its operation (anything else is "other", reported as a modification;
// each operation alone is the end-to-end user_file_operations case). An index is never handed
// out again: one whose container left drops the event, and so does a path outside the root;
// each is warned, then the mismatch.
TEST_F(AlarmTest, IndexRootAndMaskDecide) {
    Container("cid-1", "web", "sha256:img", "myapp:1", kRoot, false);
    Container("cid-2", "db", "sha256:x", "myapp:2", "/r/abc");  // index 2
    const std::string path = kRoot + "/etc/passwd";
    const std::string mismatch = "W Docker file module inotify message not match container.\n";
    // path, mask, index, the alarm or the lines logged
    const std::vector<std::tuple<std::string, uint32_t, uint64_t, std::string>> rows = {
        {"/r/abc/s", 0xFFFFFFFF, 2, "db /s 0"},
        {"/r/abc/s", 0x6, 2, "db /s 2"},
        {"/r/abc/s", 0x284, 2, "db /s 4"},
        {"/r/abc/s", 0x604, 2, "db /s 3"},
        {"/r/abc/s", 0x4, 2, "db /s 1"},
        {"/r/abcdef/x", 0x800, 2, "db def/x 2"},
        {"/x/r/abc/y", 2, 2,
         "W Docker file root path match failed. container=db, file=/x/r/abc/y, root=/r/abc\n" +
             mismatch},
        {path, 2, 0,
         "W Docker file not match cache index. index=0, path=" + path + "\n" + mismatch},
    };
    for (const auto& [file, mask, index, want] : rows) {
        Logs().Clear();
        Send(new Engine::FileNotifyMessage(file, mask, index));
        EXPECT_EQ(want, Outcome()) << file << " " << mask;
    }
}

// Both kinds share the envelope. An attribute change alone is operation 1 (a write, 2, is in the
// table below).
TEST_F(AlarmTest, AlarmsCarryEveryMemberWithItsTypeAndValue) {
    const std::string envelope = R"({"attack_phase":4,"attack_tag":4,"confidence":60,
        "detect_module":"dockerfile_module","event_category":3000,"event_type":3021,"serverity":2,
        "event_count":1,)";
    Send(new Engine::FileNotifyMessage(kRoot + "/etc/passwd", 0x2, 0));
    EXPECT_EQ(ParseJson(envelope + R"("event_classid":"dockerfile_001","container_name":"web",
        "event_name":"Container file exception","type":"container_user_file_violation",
        "image_name":"myapp:1","file_info":[{"file_operation":2,"file_path":"/etc/passwd"}],
        "resource_info":{"container_id":"cid-1","image_id":"sha256:img"}})"),
              Alarm());
    Audit("cid:c-elf", {tool}, false, true);
    Json::Value want = ParseJson(envelope + R"("event_classid":"dockerfile_002",
        "event_name":"Container rootFs exception","type":"container_root_fs_modification",
        "container_name":"box","image_name":"busybox:1","resource_info":{"container_id":"c-elf",
        "image_id":"sha256:elf"},"file_info":[{"file_attr":33252,"file_operation":1,
        "file_path":"/usr/bin/tool","file_sha256":"","file_type":"elf"}],"process_info":[{
        "parent_process_pid":0,"process_container_id":"","process_name":"cp","process_pid":0}]})");
    want["file_info"][0]["file_sha256"] = elfSha256;
    want["process_info"][0]["parent_process_pid"] = getppid();
    want["process_info"][0]["process_pid"] = getpid();
    EXPECT_EQ(want, Alarm());  // file_attr: mode 0100744
}

// Whatever name the event gives (the longest allowed, the first of several), the alarm is for
// the resolved file, named from the root on, and beyond 10 MiB the size stands in for the hash.
// Otherwise each filter drops the event with its own line, and only the first failing one
// speaks: the file is judged before the access kind, the access kind before the key. Scripts, data
// and ELF files without the execute bit are the end-to-end elf_dropped case; links out of the root
// (which the audit service resolves inside it) names_links_and_climbs.
TEST_F(AlarmTest, ResolvedExecutablesAreReportedAndAnythingElseSaysWhy) {
    // Six bytes with the magic in front make an ELF file; fewer do not.
    const std::string magic = std::string(1, '\x7f') + "ELF";
    ASSERT_TRUE(Put(root / "over", 0755, magic + "\x02\x01"));
    ASSERT_TRUE(Put(root / "five", 0755, magic + "\x02"));
    ASSERT_EQ(0, truncate((root / "over").c_str(), 10485761));
    // The same file through a host path of 4096 and 4097 characters, padded with slashes.
    const std::string longest =
        root.Path() + std::string(4096 - tool.size(), '/') + "/usr/bin/tool";
    const std::string tooLong = "/" + longest;
    const std::string ok = "cid:c-elf";
    // the names in the event, its key (a write unless "bogus"), then the alarm, or the line that
    // says why there is none
    const std::vector<std::tuple<Strings, std::string, std::string>> rows = {
        {{longest}, ok, "box /usr/bin/tool 2 " + elfSha256 + " 33252"},
        {{root / "over"}, ok, "box /over 2 Oversize:10485761 33261"},
        {{}, ok, "W Docker file receive invalid audit message."},
        {{tooLong}, ok, "W Docker file audit receive invalid file path: " + tooLong},
        {{root / "five", tool},
         "bogus",
         "D Docker file audit file is not elf " + (root / "five") + "."},
        {{tool}, "bogus", "W Docker file audit receive invalid event. " + tool},
        {{tool}, "x-cid:c-elf", "W Docker file audit get invalid module info: x-cid:c-elf"},
        {{tool}, "cid:c-elfx", "W Docker file audit get container info failed, cid:c-elfx"},
    };
    for (const auto& [names, key, want] : rows) {
        Logs().Clear();
        Audit(key, names, key != "bogus");
        EXPECT_EQ(want.rfind("box ", 0) == 0 ? want : want + "\n", Outcome()) << key;
    }
}

}  // namespace
}  // namespace DockerFileTest
