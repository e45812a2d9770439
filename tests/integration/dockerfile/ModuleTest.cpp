// The module loaded as the agent loads it, on the real framework, next to stand-ins for the four
// services it talks to: start and stop, policy documents, what each container start and exit
// asks the neighbours for, and the two alarms ("dockerfile_001" for file-notify events on
// protected files, "dockerfile_002" for executables written under a root where they are
// forbidden). The stand-ins add every message to the log capture on the sender's thread, so a
// test sees what the module logged and sent in one order. Real files in temporary directories
// stand in for containers' root filesystems.

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "Capture.h"
#include "container/ContainerMessage.h"
#include "filenotify/FileNotifyMessage.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "framework/Counters.h"
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
const std::string kRoot = "/var/lib/docker/overlay2/abc/merged";
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
    } else if (auto* d = dynamic_cast<const Framework::DataMessage*>(m)) {
        out << "alarm type " << d->GetType();
    } else {
        out << m->TypeName();
    }
    return out.str();
}

Json::Value ParseJson(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(0, SDK::JsonUtils::ParseJsonStr(text, value)) << text;
    return value;
}

/// Seconds on the clock the alarms are stamped from: time() may lag it by a tick, and so show an
/// alarm stamped in the second after "now".
int64_t Now() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

/// A policy document of the module holding the rule objects `rules` (JSON text).
std::string Doc(const std::string& rules) {
    return R"({"feature_name":"dockerfile_feature","hash":"h1","policy_id":"p1",)"
           R"("content":{"rules":[)" +
           rules + "]}}";
}

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override {
        Logs().Clear();
        for (const char* name :
             {"container_collect_task", "filenotify_task", "audit_task", "data_comm_report_task"}) {
            ASSERT_NE(nullptr, sender = neighbours.Add(new Neighbour(name)));
        }
        ASSERT_TRUE(module.Load("libdockerfile_module.so")) << module.Error();
        task = module.Get()->FindTask(kModuleTask);
        ASSERT_NE(nullptr, task);
    }
    /// Delivers a document under the module's policy key, as the agent does.
    void Policy(const std::string& document) {
        Framework::Policy* current = nullptr;
        ASSERT_EQ(0, module.Get()->RefreshPolicy("10001", "dockerfile_feature", document, current))
            << Logs().Dump();
    }

    /// Sends `msg` to the module's task as a neighbour would, and waits until it was handled.
    void Send(Framework::Message* msg) {
        sender->SendDirectMsg(kModuleTask, msg);
        const int waitMs = static_cast<int>(TestSupport::kDefaultWait.count());
        ASSERT_TRUE(Framework::Task::WaitIdle(kModuleTask, waitMs)) << Logs().Dump();
    }
    void Container(const std::string& id, const std::string& name, const std::string& imageId,
                   const std::string& imageName, const std::string& rootPath, bool running = true) {
        auto info = std::make_shared<Engine::ContainerInfo>();
        info->running = running;
        info->id = id;
        info->name = name;
        info->cmd = "/bin/sh -c run-" + name;
        info->imageId = imageId;
        info->imageName = imageName;
        info->rootPath = rootPath;
        Send(new Engine::ContainerMessage(info));
    }
    /// What the module logged, at information level and above unless `debug`, and sent, in
    /// order: a record as its priority letter and text, a message as its recipient and Describe.
    Strings Timeline(bool debug = false) const {
        Strings out;
        for (const auto& e : Logs().Entries()) {
            if (e.msg) {
                out.push_back("to " + e.text + ": " + Describe(e.msg.get()));
            } else if (e.logger == "dockerfile_module" &&
                       (debug || e.priority < Poco::Message::PRIO_DEBUG)) {
                out.push_back(std::string(1, "-FCEWNIDT"[e.priority]) + " " + e.text);
            }
        }
        return out;
    }
    /// The messages of type T sent since the capture was cleared.
    template <class T>
    std::vector<std::shared_ptr<T>> Sent() const {
        std::vector<std::shared_ptr<T>> out;
        for (const auto& e : Logs().Entries()) {
            if (auto m = std::dynamic_pointer_cast<T>(e.msg)) out.push_back(m);
        }
        return out;
    }

    /// The n-th alarm (1-based) sent since the capture was cleared, parsed, without "event_id"
    /// (a non-empty string) and "occur_time" (a number of seconds from the test's start to now).
    Json::Value Alarm(size_t n) {
        const auto alarms = Sent<Framework::DataMessage>();
        if (alarms.size() < n) {
            ADD_FAILURE() << "no alarm #" << n << "\n" << Logs().Dump();
            return Json::Value();
        }
        EXPECT_EQ("2", alarms[n - 1]->GetType());
        Json::Value doc = ParseJson(alarms[n - 1]->GetData());
        EXPECT_TRUE(doc["event_id"].isString() && !doc["event_id"].asString().empty()) << doc;
        EXPECT_TRUE(doc["occur_time"].isIntegral()) << "a number, not a string: " << doc;
        EXPECT_GE(doc["occur_time"].asInt64(), started);
        EXPECT_LE(doc["occur_time"].asInt64(), Now());
        doc.removeMember("event_id");
        doc.removeMember("occur_time");
        return doc;
    }

    // Declared in this order so that the module stops before its neighbours go.
    TestSupport::TaskHost neighbours{"neighbours"};
    TestSupport::ServiceModule module;
    Framework::Task* sender = nullptr;
    Framework::Task* task = nullptr;
    const int64_t started = Now();
};

// Every document is logged whole and becomes a new policy, the one it replaces marked outdated.
TEST_F(ModuleTest, DocumentsAreLoggedAndReplaceThePolicy) {
    const std::string text = Doc(R"({"image_id":"sha256:a","protect_files":["/a"]})");
    Logs().Clear();
    Policy(text);
    EXPECT_EQ((Strings{"I Docker file module parse policy: name(dockerfile_feature),hash(h1),"
                       "id(p1),enable(1)",
                       "I Docker file module refresh policy: " + text}),
              Timeline());
    const auto first = task->GetFeaturePolicy();
    Policy(Doc(""));
    EXPECT_TRUE(first->IsOutdated());
    EXPECT_NE(first, task->GetFeaturePolicy());
}

// Format directives and control bytes in names and paths are data, never formatting: carried
// as written, and only escaped in the log.
TEST_F(ModuleTest, FormatLikeAndOddTextIsCarriedVerbatim) {
    const std::string bigName(1 << 20, 'n');
    Policy(Doc(R"({"image_id":"%s%n","elf_forbidden":true,
                   "protect_files":["/%s%d%n%lu%%\n\t\"'\\"]},{"image_name":")" +
               bigName + R"(","protect_files":["/big"]})"));
    Logs().Clear();
    Container("%n%s", "%s%s%s", "%s%n", "%d", "/r%s");
    EXPECT_EQ((Strings{"to filenotify_task: add /r%s/%s%d%n%lu%%\n\t\"'\\" + kMasks + " ext 0",
                       "to audit_task: -w cid:%n%s /r%s -p wa"}),
              Timeline());
    EXPECT_EQ(1u, Logs().Count(R"(Docker file add notify: /r%s/%s%d%n%lu%%\n\t"'\)"));
    Logs().Clear();
    Container("big", "big", "x", bigName, "/w");
    EXPECT_EQ(Strings{"to filenotify_task: add /w/big" + kMasks + " ext 1"}, Timeline());
}

// ---- container start and exit ----

// A protected start asks for one watch per file, every mask and the container's cache index with
// it, then for the audit rule when executables are forbidden. Root and entry are joined as they
// stand, slashes and empty ones included; a rule without files still gets the audit rule.
TEST_F(ModuleTest, StartRequestsWatchesThenTheAuditRuleWithRootEntryAndIdAsTheyAre) {
    // container id, root, protected files, the paths watched, the audit rule or none
    using Row = std::tuple<std::string, std::string, std::string, Strings, std::string>;
    const std::vector<Row> rows = {
        {"c1", "/s/", R"("/p","e/h","/p")", {"/s//p", "/s/e/h", "/s//p"}, "-w cid:c1 /s/ -p wa"},
        {"", "", R"("/a")", {"/a"}, "-w cid:  -p wa"},
        {"c3", "/r", "", {}, "-w cid:c3 /r -p wa"},
        {"c4", "/r", R"("e/h")", {"/re/h"}, ""},
    };
    size_t index = 0;
    for (const auto& [id, root, files, watched, audit] : rows) {
        SCOPED_TRACE("root " + root);
        Policy(Doc(R"({"image_id":"sha256:aa","protect_files":[)" + files +
                   "],\"elf_forbidden\":" + (audit.empty() ? "false}" : "true}")));
        Logs().Clear();
        Container(id, "web", "sha256:aa", "img", root);
        Strings want;
        for (const auto& path : watched) {
            want.push_back("to filenotify_task: add " + path + kMasks + " ext " +
                           std::to_string(index));
        }
        if (!audit.empty()) want.push_back("to audit_task: " + audit);
        EXPECT_EQ(want, Timeline());
        Container(id, "web", "sha256:aa", "img", root, false);
        ++index;
    }
}

// Without a policy a start is an error and nothing is cached. Indexes count up and are never
// handed out again; a second start of a cached container is refused without using one, and its
// exit withdraws what was set up for the cached record, not what the exit names, whatever the
// policy now says. An exit that finds nothing cached (a second one, or after a start no rule
// protects) is warned and sends nothing.
TEST_F(ModuleTest, TheCacheDecidesWhatAnExitWithdraws) {
    Logs().Clear();
    Container("a", "a", "", "myapp", "/ra");
    EXPECT_EQ(Strings{"E Docker file task get feature policy failed."}, Timeline());
    Policy(Doc(R"({"image_name":"app","fuzzy_match":true,"elf_forbidden":true,
                   "protect_files":["/f","/g"]})"));
    const auto lastIndex = [this] {
        const auto w = Sent<Engine::FileNotifyWatchMessage>();
        return w.empty() ? UINT64_MAX : w.back()->options.extParm;
    };
    Container("a", "a", "", "myapp", "/ra");
    EXPECT_EQ(0u, lastIndex());
    Container("b", "b", "", "myapp", "/rb");
    EXPECT_EQ(1u, lastIndex());
    Logs().Clear();
    Container("b", "second", "", "myapp:2", "/elsewhere");
    EXPECT_EQ(Strings{"W Docker file task insert exist docker cache. name:second, image:myapp:2"},
              Timeline());
    Container("a", "a", "", "myapp", "/ra", false);
    Container("c", "c", "", "myapp", "/rc");
    EXPECT_EQ(2u, lastIndex());
    Container("a", "a", "", "myapp", "/ra");
    EXPECT_EQ(3u, lastIndex()) << "a container that comes back gets a new index";

    Policy(R"({"content":{}})");
    Logs().Clear();
    Container("b", "renamed", "", "other", "/changed", false);
    EXPECT_EQ((Strings{"to filenotify_task: remove /rb/f", "to filenotify_task: remove /rb/g",
                       "to audit_task: -W cid:b /rb -p wa"}),
              Timeline());
    Logs().Clear();
    Container("b", "b", "", "myapp", "/rb", false);
    Container("d", "d", "", "myapp", "/rd");
    Container("d", "d", "", "myapp", "/rd", false);
    const std::string notCached = "W Docker file task do not find containre cache.";
    EXPECT_EQ((Strings{notCached, notCached}), Timeline());
}

// ---- file-notify events on protected files ----

class UserFileAlarmTest : public ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        Policy(Doc(R"({"image_name":"myapp","fuzzy_match":true,
                       "protect_files":["/etc/passwd","/etc/shadow"]})"));
        Container("cid-1", "web", "sha256:img", "myapp:1", kRoot);
        Logs().Clear();
    }
    void FileEvent(const std::string& path, uint32_t mask, uint64_t index = 0) {
        Send(new Engine::FileNotifyMessage(path, mask, index));
    }
};

TEST_F(UserFileAlarmTest, AlarmDocumentCarriesEveryMemberWithItsTypeAndValue) {
    FileEvent(kRoot + "/etc/passwd", 0x2);
    EXPECT_EQ(ParseJson(R"({
        "attack_phase": 4, "attack_tag": 4, "confidence": 60, "container_name": "web",
        "detect_module": "dockerfile_module", "event_category": 3000,
        "event_classid": "dockerfile_001", "event_count": 1,
        "event_name": "Container file exception", "event_type": 3021,
        "file_info": [{"file_operation": 2, "file_path": "/etc/passwd"}],
        "image_name": "myapp:1",
        "resource_info": {"container_id": "cid-1", "image_id": "sha256:img"},
        "serverity": 2, "type": "container_user_file_violation"})"),
              Alarm(1));
    EXPECT_EQ((Strings{"I Docker file send user file monitor alarm, container(web), "
                       "image(myapp:1), file(/etc/passwd)",
                       "to data_comm_report_task: alarm type 2"}),
              Timeline());
}

// The first matching bit in the order create, modify, move, delete, change of status decides;
// anything else is "other" and reported as a modification. Every event is an alarm of its own.
TEST_F(UserFileAlarmTest, FirstMatchingBitDecidesTheOperation) {
    // mask, operation
    const std::vector<std::pair<uint32_t, int>> rows = {
        {0x100, 0}, {0x40000100, 0}, {0x102, 0}, {0x2, 2},   {0x6, 2},
        {0xC2, 2},  {0x40, 4},       {0x80, 4},  {0x280, 4}, {0xC4, 4},
        {0x200, 3}, {0x400, 3},      {0x604, 3}, {0x4, 1},   {0x804, 1},
        {0x800, 2}, {0x8000, 2},     {0x0, 2},   {0x1, 2},   {0xFFFFFFFF, 0},
    };
    size_t n = 0;
    for (const auto& [mask, operation] : rows) {
        SCOPED_TRACE(mask);
        FileEvent(kRoot + "/etc/shadow", mask);
        const Json::Value file = Alarm(++n)["file_info"][0];
        EXPECT_EQ(std::to_string(operation) + " /etc/shadow",
                  file["file_operation"].asString() + " " + file["file_path"].asString());
    }
}

// The index picks the container and its root must lead the path, as plain text; the alarm names
// the path without the root. An index that is unknown, or whose container left, drops the event,
// and so does a path outside the root; each is warned, then the mismatch.
TEST_F(UserFileAlarmTest, IndexThenRootDecide) {
    Container("cid-2", "db", "sha256:x", "myapp:2", "/r/abc");  // index 1
    Container("cid-3", "rootless", "sha256:x", "myapp:2", "");  // index 2
    Container("cid-4", "back", "sha256:x", "myapp:2", "/g");    // index 3
    Container("cid-4", "back", "sha256:x", "myapp:2", "/g", false);
    Container("cid-4", "back", "sha256:x", "myapp:2", "/g");  // index 4
    const std::string path = kRoot + "/etc/passwd";
    const std::string noIndex = "W Docker file not match cache index. index=";
    const std::string outside = "W Docker file root path match failed. container=db, file=";
    // path, index, the alarm's container and path or the warning
    const std::vector<std::tuple<std::string, uint64_t, std::string>> rows = {
        {kRoot + "/etc/passwd.d/child", 0, "web /etc/passwd.d/child"},
        {kRoot, 0, "web "},
        {"/r/abcdef/x", 1, "db def/x"},
        {"/anything/at/all", 2, "rootless /anything/at/all"},
        {"/g/x", 4, "back /x"},
        {"/x/r/abc/y", 1, outside + "/x/r/abc/y, root=/r/abc"},
        {path, 1, outside + path + ", root=/r/abc"},
        {path, 3, noIndex + "3, path=" + path},
        {path, 7, noIndex + "7, path=" + path},
        {path, UINT64_MAX, noIndex + "18446744073709551615, path=" + path},
    };
    for (const auto& [file, index, want] : rows) {
        SCOPED_TRACE(file + " " + std::to_string(index));
        Logs().Clear();
        FileEvent(file, 0x2, index);
        if (want.rfind("W ", 0) == 0) {
            EXPECT_EQ((Strings{want, "W Docker file module inotify message not match container."}),
                      Timeline());
        } else {
            const Json::Value doc = Alarm(1);
            EXPECT_EQ(want, doc["container_name"].asString() + " " +
                                doc["file_info"][0]["file_path"].asString());
        }
    }
}

// ---- executables written under a container's root ----

constexpr off_t kTenMiB = 10485760;

/// The executable the tests copy into container roots, and its SHA-256 worked out apart from the
/// agent's own helper.
const char* const kElf = "/bin/true";
std::string Sha256(const std::string& path) {
    return TestSupport::Shell::Output("sha256sum '" + path + "' | cut -d' ' -f1");
}

/// Writes `path` with `mode`: a copy of kElf, or the text given.
bool Put(const std::string& path, mode_t mode, const std::string& text = "") {
    using TestSupport::FileText;
    return FileText::Write(path, text.empty() ? FileText::Read(kElf) : text) &&
           chmod(path.c_str(), mode) == 0;
}

/// `inContainer` named through a host path of exactly `length` characters, padded with slashes,
/// which resolve away.
std::string PaddedName(const std::string& root, const std::string& inContainer, size_t length) {
    return root + std::string(length - root.size() - inContainer.size(), '/') + inContainer;
}

class RootFsAlarmTest : public ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        root.Dir("usr/bin");
        ASSERT_TRUE(Put(tool, 0755));
        Policy(Doc(R"({"image_id":"sha256:elf","elf_forbidden":true})"));
        Container("c-elf", "box", "sha256:elf", "busybox:1", root.Path());
        ASSERT_EQ(1u, Sent<Engine::AuditFileSystemCtrlMessage>().size());
        Logs().Clear();
    }
    /// An audit event for the files named, as "audit_task" sends it.
    void Audit(const std::string& key, const Strings& paths, bool write = true, bool attr = false,
               const std::string& pid = "1", const std::string& ppid = "0") {
        auto* msg = new Engine::AuditEventMessage();
        msg->key = key;
        msg->syscall = std::make_shared<Engine::AuditLogSyscall>();
        for (const auto& p : paths) msg->syscall->paths.push_back({p, "NORMAL", "", ""});
        msg->syscall->write = write;
        msg->syscall->attr = attr;
        msg->syscall->pid = pid;
        msg->syscall->ppid = ppid;
        msg->syscall->processName = "cp";
        Send(msg);
    }
    TestSupport::TempDir root;
    const std::string tool = root / "usr/bin/tool";
};

// The alarm has every member with its type and value. The access kind gives the operation, a
// write winning; process ids are decimal text narrowed to 32 bits.
TEST_F(RootFsAlarmTest, ExecutableWrittenIntoTheRootRaisesAFullAlarm) {
    Audit("cid:c-elf", {tool}, true, false, std::to_string(getpid()), std::to_string(getppid()));
    Json::Value want = ParseJson(R"({
        "attack_phase": 4, "attack_tag": 4, "confidence": 60, "container_name": "box",
        "detect_module": "dockerfile_module", "event_category": 3000,
        "event_classid": "dockerfile_002", "event_count": 1,
        "event_name": "Container rootFs exception", "event_type": 3021,
        "file_info": [{"file_attr": 33261, "file_operation": 2, "file_path": "/usr/bin/tool",
                       "file_sha256": "", "file_type": "elf"}],
        "image_name": "busybox:1",
        "process_info": [{"parent_process_pid": 0, "process_container_id": "",
                          "process_name": "cp", "process_pid": 0}],
        "resource_info": {"container_id": "c-elf", "image_id": "sha256:elf"},
        "serverity": 2, "type": "container_root_fs_modification"})");
    want["file_info"][0]["file_sha256"] = Sha256(kElf);
    want["process_info"][0]["parent_process_pid"] = getppid();
    want["process_info"][0]["process_pid"] = getpid();
    EXPECT_EQ(want, Alarm(1));  // file_attr: mode 0100755
    EXPECT_EQ((Strings{"I Docker file send rootFs monitor alarm, container(box), "
                       "image(busybox:1), file(/usr/bin/tool), event(2)",
                       "to data_comm_report_task: alarm type 2"}),
              Timeline());

    // write, attr, pid, ppid, then operation, pid and parent pid as the alarm gives them
    const std::vector<std::tuple<bool, bool, std::string, std::string, std::string>> rows = {
        {false, true, "0", "1", "1 0 1"},
        {true, true, "abc", "", "2 0 0"},
        {true, false, "4294967297", "4294967295", "2 1 -1"},
        {true, false, "12x", "-5", "2 12 -5"},
    };
    for (const auto& [write, attr, pid, ppid, want] : rows) {
        Logs().Clear();
        Audit("cid:c-elf", {tool}, write, attr, pid, ppid);
        const Json::Value alarm = Alarm(1);
        const Json::Value& p = alarm["process_info"][0];
        EXPECT_EQ(want, alarm["file_info"][0]["file_operation"].asString() + " " +
                            p["process_pid"].asString() + " " + p["parent_process_pid"].asString())
            << pid << " " << ppid;
    }
}

// Whatever name the event gives (the longest allowed, the first of several), the alarm is for
// the resolved file, named from the root on; a link leading out of the root is cut by the root's
// length alone, and beyond 10 MiB the size stands in for the hash. Otherwise each filter drops
// the event with its own line, and only the first failing one speaks: the file is judged before
// the access kind, the access kind before the key. The receive line comes once the path resolved.
TEST_F(RootFsAlarmTest, ResolvedExecutablesAreReportedAndAnythingElseSaysWhy) {
    TestSupport::TempDir outside;
    ASSERT_EQ(root.Path().size(), outside.Path().size());
    ASSERT_TRUE(Put(outside / "evil", 0755));
    ASSERT_EQ(0, symlink((outside / "evil").c_str(), (root / "usr/bin/escape").c_str()));
    ASSERT_TRUE(Put(root / "usr/bin/owner", 0744));
    const std::string script = root / "script";
    ASSERT_TRUE(Put(script, 0755, "#!/bin/sh\necho hi\n"));
    ASSERT_TRUE(Put(root / "elf0011", 0011));
    ASSERT_EQ(0, mkfifo((root / "fifo").c_str(), 0755));
    ASSERT_EQ(0, chmod((root / "fifo").c_str(), 0755));
    // Six bytes with the magic in front make an ELF file; fewer do not.
    const std::string magic = std::string(1, '\x7f') + "ELF";
    for (const char* name : {"six", "exact", "over"}) {
        ASSERT_TRUE(Put(root / name, 0755, magic + "\x02\x01"));
    }
    ASSERT_EQ(0, truncate((root / "exact").c_str(), kTenMiB));
    ASSERT_EQ(0, truncate((root / "over").c_str(), kTenMiB + 1));
    ASSERT_TRUE(Put(root / "five", 0755, magic + "\x02"));
    const std::string longest = PaddedName(root.Path(), "/usr/bin/tool", 4096);
    const std::string tooLong = PaddedName(root.Path(), "/usr/bin/tool", 4097);
    ASSERT_EQ(4096u, longest.size());
    ASSERT_EQ(4097u, tooLong.size());
    const std::string elf = Sha256(kElf) + " 33261";  // mode 0100755
    const std::string notFile = "D Docker file audit not file or not executable: ";
    const auto notElf = [](const std::string& file) {
        return "D Docker file audit file is not elf " + file + ".";
    };
    const std::string badPath = "W Docker file audit receive invalid file path: ";
    const std::string badKey = "W Docker file audit get invalid module info: ";
    const std::string noContainer = "W Docker file audit get container info failed, cid:";
    const std::string ok = "cid:c-elf";
    // the names in the event, its key (a write unless "bogus"), then the alarm's path, hash and
    // mode, or the line that says why there is none
    const std::vector<std::tuple<Strings, std::string, std::string>> rows = {
        {{longest}, ok, "/usr/bin/tool " + elf},
        {{tool, script}, ok, "/usr/bin/tool " + elf},
        {{root / "usr/bin/owner"}, ok, "/usr/bin/owner " + Sha256(kElf) + " 33252"},
        {{root / "usr/bin/escape"}, ok, "/evil " + elf},
        {{root / "six"}, ok, "/six " + Sha256(root / "six") + " 33261"},
        {{root / "exact"}, ok, "/exact " + Sha256(root / "exact") + " 33261"},
        {{root / "over"}, ok, "/over Oversize:10485761 33261"},
        {{}, ok, "W Docker file receive invalid audit message."},
        {{root / "usr/bin/gone"}, ok, badPath + (root / "usr/bin/gone")},
        {{""}, ok, badPath},
        {{tooLong}, ok, badPath + tooLong},
        {{root / "five"}, ok, notElf(root / "five")},
        {{script, tool}, ok, notElf(script)},
        {{script}, "bogus", notElf(script)},
        {{root / "elf0011"}, ok, notFile + (root / "elf0011") + " "},
        {{root / "fifo"}, ok, notFile + (root / "fifo") + " "},
        {{root / "usr/bin"}, ok, notFile + (root / "usr/bin") + " "},
        {{tool}, "bogus", "W Docker file audit receive invalid event. " + tool},
        {{tool}, "x-cid:c-elf", badKey + "x-cid:c-elf"},
        {{tool}, "CID:c-elf", badKey + "CID:c-elf"},
        {{tool}, "", badKey},
        {{tool}, "cid:", noContainer},
        {{tool}, "cid:c-elfx", noContainer + "c-elfx"},
    };
    for (const auto& [names, key, want] : rows) {
        SCOPED_TRACE(want.substr(0, 100));
        Logs().Clear();
        Audit(key, names, key != "bogus");
        if (want[0] == '/') {
            const Json::Value file = Alarm(1)["file_info"][0];
            EXPECT_EQ(want, file["file_path"].asString() + " " + file["file_sha256"].asString() +
                                " " + file["file_attr"].asString());
            continue;
        }
        Strings expected = {want};
        if (!names.empty() && want.rfind(badPath, 0) != 0) {
            expected.insert(expected.begin(), "D Docker file rootFs receive audit message. write(" +
                                                  std::to_string(key != "bogus") +
                                                  "), attr(0), file(" + names[0] + ")");
        }
        EXPECT_EQ(expected, Timeline(true));
    }
}

// A resolved path shorter than the root throws; the framework's loop catches, logs and counts
// it, and the task goes on.
TEST_F(RootFsAlarmTest, ARootLongerThanTheResolvedPathIsCaughtByTheFrameworkLoop) {
    Container("c-long", "long", "sha256:elf", "busybox:1", root / std::string(300, 'x'));
    Logs().Clear();
    auto& counters = Framework::Counters::Instance();
    const uint64_t before = counters.Value(Framework::CounterNames::kHandlerException);
    Audit("cid:c-long", {tool});
    EXPECT_EQ(before + 1, counters.Value(Framework::CounterNames::kHandlerException));
    const std::string threw = "Task dockerfile_task: handler of Engine::AuditEventMessage threw: ";
    size_t errors = 0;
    for (const auto& e : Logs().Entries()) {
        errors += e.logger == "framework" && e.priority == Poco::Message::PRIO_ERROR &&
                  e.text.rfind(threw, 0) == 0;
    }
    EXPECT_EQ(1u, errors) << Logs().Dump();
    EXPECT_TRUE(Sent<Framework::DataMessage>().empty());
    Audit("cid:c-elf", {tool});
    EXPECT_EQ("/usr/bin/tool", Alarm(1)["file_info"][0]["file_path"].asString());
}

}  // namespace
}  // namespace DockerFileTest
