// The two alarms: "dockerfile_001" for file-notify events on protected files, "dockerfile_002"
// for audit events under a root filesystem where executables are forbidden. Real files in a
// temporary directory stand in for a container's root filesystem.

#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <tuple>

#include "ModuleFixture.h"
#include "framework/Counters.h"
#include "process_collect/AuditEventMessage.h"
#include "support/FileText.h"
#include "support/Shell.h"
#include "support/TempDir.h"

namespace DockerFileTest {
namespace {

const std::string kRoot = "/var/lib/docker/overlay2/abc/merged";

class UserFileAlarmTest : public ModuleFixture {
protected:
    void SetUp() override {
        ModuleFixture::SetUp();
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
    const int64_t before = static_cast<int64_t>(time(nullptr));
    FileEvent(kRoot + "/etc/passwd", 0x2);
    ExpectAlarm(Alarm(1), ParseJson(R"({
        "attack_phase": 4, "attack_tag": 4, "confidence": 60, "container_name": "web",
        "detect_module": "dockerfile_module", "event_category": 3000,
        "event_classid": "dockerfile_001", "event_count": 1,
        "event_name": "Container file exception", "event_type": 3021,
        "file_info": [{"file_operation": 2, "file_path": "/etc/passwd"}],
        "image_name": "myapp:1",
        "resource_info": {"container_id": "cid-1", "image_id": "sha256:img"},
        "serverity": 2, "type": "container_user_file_violation"})"),
                before);
    EXPECT_EQ((Strings{"D Docker file matched docker by index, index=0, name=web.",
                       "D Docker file module receive modify message, FilePath=" + kRoot +
                           "/etc/passwd, eventMask=2",
                       "I Docker file send user file monitor alarm, container(web), "
                       "image(myapp:1), file(/etc/passwd)",
                       "to data_comm_report_task: alarm type 2"}),
              Timeline());
}

// The first matching bit in the order create, modify, move, delete, change of status decides;
// anything else is "other" and reported as a modification. Every event is an alarm of its own.
TEST_F(UserFileAlarmTest, FirstMatchingBitDecidesTheOperation) {
    // mask, operation, the word of the log line
    const std::vector<std::tuple<uint32_t, int, std::string>> rows = {
        {0x100, 0, "create"}, {0x40000100, 0, "create"}, {0x102, 0, "create"},
        {0x2, 2, "modify"},   {0x6, 2, "modify"},        {0xC2, 2, "modify"},
        {0x40, 4, "move"},    {0x80, 4, "move"},         {0x280, 4, "move"},
        {0xC4, 4, "move"},    {0x200, 3, "delete"},      {0x400, 3, "delete"},
        {0x604, 3, "delete"}, {0x4, 1, "change status"}, {0x804, 1, "change status"},
        {0x800, 2, "other"},  {0x8000, 2, "other"},      {0x0, 2, "other"},
        {0x1, 2, "other"},    {0xFFFFFFFF, 0, "create"},
    };
    const std::string path = kRoot + "/etc/shadow";
    std::set<std::string> ids;
    size_t n = 0;
    for (const auto& [mask, operation, word] : rows) {
        SCOPED_TRACE(mask);
        FileEvent(path, mask);
        const Json::Value doc = Alarm(++n);
        ids.insert(doc["event_id"].asString());
        EXPECT_EQ(operation, doc["file_info"][0]["file_operation"].asInt());
        EXPECT_EQ("/etc/shadow", doc["file_info"][0]["file_path"].asString());
        const auto line =
            Logs().Find("Docker file module receive " + word + " message, FilePath=" + path +
                        ", eventMask=" + std::to_string(mask));
        ASSERT_EQ(1u, line.size()) << Logs().Dump();
        EXPECT_EQ(Poco::Message::PRIO_DEBUG, line[0].priority);
    }
    EXPECT_EQ(n, ids.size()) << "every alarm has an id of its own";
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

/// `inContainer` named through a host path of exactly `length` characters, padded with "/."
/// (and one doubled slash for odd lengths), which all resolve away.
std::string PaddedName(const std::string& root, const std::string& inContainer, size_t length) {
    std::string pad;
    const size_t fixed = root.size() + inContainer.size();
    while (fixed + pad.size() + 2 <= length) pad += "/.";
    if (fixed + pad.size() < length) pad += "/";
    return root + pad + inContainer;
}

std::string ReceiveLine(const std::string& name, bool write = true, bool attr = false) {
    return "D Docker file rootFs receive audit message. write(" + std::to_string(write) +
           "), attr(" + std::to_string(attr) + "), file(" + name + ")";
}

class RootFsAlarmTest : public ModuleFixture {
protected:
    void SetUp() override {
        ModuleFixture::SetUp();
        root.Dir("usr/bin");
        ASSERT_TRUE(Put(tool, 0755));
        Policy(
            Doc(R"({"image_id":"sha256:elf","elf_forbidden":true},{"image_id":"sha256:allow"})"));
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

TEST_F(RootFsAlarmTest, ExecutableWrittenIntoTheRootRaisesAFullAlarm) {
    const int64_t before = static_cast<int64_t>(time(nullptr));
    Audit("cid:c-elf", {tool}, true, false, std::to_string(getpid()), std::to_string(getppid()));
    Json::Value doc = Alarm(1);
    // An unsigned member: compared on its own, as parsed text cannot carry the type.
    Json::Value& file = doc["file_info"][0];
    ASSERT_TRUE(file["file_attr"].isIntegral());
    EXPECT_EQ(0100755u, file["file_attr"].asUInt());
    file.removeMember("file_attr");
    Json::Value want = ParseJson(R"({
        "attack_phase": 4, "attack_tag": 4, "confidence": 60, "container_name": "box",
        "detect_module": "dockerfile_module", "event_category": 3000,
        "event_classid": "dockerfile_002", "event_count": 1,
        "event_name": "Container rootFs exception", "event_type": 3021,
        "file_info": [{"file_operation": 2, "file_path": "/usr/bin/tool", "file_sha256": "",
                       "file_type": "elf"}],
        "image_name": "busybox:1",
        "process_info": [{"parent_process_pid": 0, "process_container_id": "",
                          "process_name": "cp", "process_pid": 0}],
        "resource_info": {"container_id": "c-elf", "image_id": "sha256:elf"},
        "serverity": 2, "type": "container_root_fs_modification"})");
    want["file_info"][0]["file_sha256"] = Sha256(kElf);
    want["process_info"][0]["parent_process_pid"] = getppid();
    want["process_info"][0]["process_pid"] = getpid();
    ExpectAlarm(doc, want, before);
    EXPECT_EQ((Strings{ReceiveLine(tool),
                       "I Docker file send rootFs monitor alarm, container(box), "
                       "image(busybox:1), file(/usr/bin/tool), event(2)",
                       "to data_comm_report_task: alarm type 2"}),
              Timeline());
}

// The access kind gives the operation, a write winning; process ids are decimal text narrowed
// to 32 bits.
TEST_F(RootFsAlarmTest, AccessKindAndProcessIds) {
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
        const Json::Value doc = Alarm(1);
        const Json::Value& p = doc["process_info"][0];
        const std::string operation = doc["file_info"][0]["file_operation"].asString();
        EXPECT_EQ(want, operation + " " + p["process_pid"].asString() + " " +
                            p["parent_process_pid"].asString())
            << pid << " " << ppid;
        EXPECT_EQ(1u, Logs()
                          .Find("Docker file send rootFs monitor alarm, container(box), "
                                "image(busybox:1), file(/usr/bin/tool), event(" +
                                operation + ")")
                          .size());
    }
}

// Whatever name the event gives (the longest allowed, a link, the first of several), the alarm
// is for the resolved file, named from the root on, and the name is logged as received. A link
// leading out of the root is cut by the root's length alone. Files up to 10 MiB are hashed;
// beyond that the size stands in.
TEST_F(RootFsAlarmTest, TheResolvedFileIsReported) {
    TestSupport::TempDir outside;
    ASSERT_EQ(root.Path().size(), outside.Path().size());
    ASSERT_TRUE(Put(outside / "evil", 0755));
    ASSERT_EQ(0, symlink((outside / "evil").c_str(), (root / "usr/bin/escape").c_str()));
    ASSERT_EQ(0, symlink(tool.c_str(), (root / "usr/bin/alias").c_str()));
    ASSERT_TRUE(Put(root / "usr/bin/owner", 0744));
    ASSERT_TRUE(Put(root / "script", 0755, "#!/bin/sh\n"));
    // Six bytes with the magic in front make an ELF file.
    const std::string magic(
        "\x7f"
        "ELF",
        4);
    for (const char* name : {"six", "exact", "over"}) {
        ASSERT_TRUE(Put(root / name, 0755, magic + "\x02\x01"));
    }
    ASSERT_EQ(0, truncate((root / "exact").c_str(), kTenMiB));
    ASSERT_EQ(0, truncate((root / "over").c_str(), kTenMiB + 1));
    const std::string longest = PaddedName(root.Path(), "/usr/bin/tool", 4096);
    ASSERT_EQ(4096u, longest.size());
    const std::string elf = Sha256(kElf) + " 33261";  // mode 0100755
    // the names in the event, then the alarm's path, hash and mode
    const std::vector<std::pair<Strings, std::string>> rows = {
        {{longest}, "/usr/bin/tool " + elf},
        {{root / "usr/bin/alias"}, "/usr/bin/tool " + elf},
        {{tool, root / "script"}, "/usr/bin/tool " + elf},
        {{root / "usr/bin/owner"}, "/usr/bin/owner " + Sha256(kElf) + " 33252"},
        {{root / "usr/bin/escape"}, "/evil " + elf},
        {{root / "six"}, "/six " + Sha256(root / "six") + " 33261"},
        {{root / "exact"}, "/exact " + Sha256(root / "exact") + " 33261"},
        {{root / "over"}, "/over Oversize:10485761 33261"},
    };
    for (const auto& [names, want] : rows) {
        SCOPED_TRACE(names[0].substr(0, 80));
        Logs().Clear();
        Audit("cid:c-elf", names);
        const Json::Value file = Alarm(1)["file_info"][0];
        EXPECT_EQ(want, file["file_path"].asString() + " " + file["file_sha256"].asString() + " " +
                            file["file_attr"].asString());
        EXPECT_EQ(1u, Logs().Find(ReceiveLine(names[0]).substr(2)).size());
    }
}

// Each filter drops the event with its own line, and only the first failing one speaks: the
// file is judged before the access kind, the access kind before the key. The receive line comes
// once the path resolved.
TEST_F(RootFsAlarmTest, DroppedEventsSayWhy) {
    const std::string script = root / "script";
    ASSERT_TRUE(Put(script, 0755, "#!/bin/sh\necho hi\n"));
    ASSERT_TRUE(Put(root / "elf0011", 0011));
    ASSERT_EQ(0, mkfifo((root / "fifo").c_str(), 0755));
    ASSERT_EQ(0, chmod((root / "fifo").c_str(), 0755));
    ASSERT_EQ(0, symlink(script.c_str(), (root / "usr/bin/elf-looking").c_str()));
    const std::string tooLong = PaddedName(root.Path(), "/usr/bin/tool", 4097);
    ASSERT_EQ(4097u, tooLong.size());
    const std::string notFile = "D Docker file audit not file or not executable: ";
    const auto notElf = [](const std::string& file) {
        return "D Docker file audit file is not elf " + file + ".";
    };
    // Fewer than six bytes, or no magic in front, is no ELF file.
    ASSERT_TRUE(Put(root / "four", 0755,
                    std::string("\x7f"
                                "ELF",
                                4)));
    ASSERT_TRUE(Put(root / "five", 0755,
                    std::string("\x7f"
                                "ELF\x02",
                                5)));
    const std::string badPath = "W Docker file audit receive invalid file path: ";
    const std::string badKey = "W Docker file audit get invalid module info: ";
    const std::string noContainer = "W Docker file audit get container info failed, cid:";
    // the names in the event, its key (a write unless "bogus"), the line that says why
    const std::vector<std::tuple<Strings, std::string, std::string>> rows = {
        {{}, "cid:c-elf", "W Docker file receive invalid audit message."},
        {{root / "usr/bin/gone"}, "cid:c-elf", badPath + (root / "usr/bin/gone")},
        {{""}, "cid:c-elf", badPath},
        {{tooLong}, "cid:c-elf", badPath + tooLong},
        {{root / "four"}, "cid:c-elf", notElf(root / "four")},
        {{root / "five"}, "cid:c-elf", notElf(root / "five")},
        {{root / "usr/bin/elf-looking"}, "cid:c-elf", notElf(script)},
        {{script, tool}, "cid:c-elf", notElf(script)},
        {{script}, "bogus", notElf(script)},
        {{root / "elf0011"}, "cid:c-elf", notFile + (root / "elf0011") + " "},
        {{root / "fifo"}, "cid:c-elf", notFile + (root / "fifo") + " "},
        {{root / "usr/bin"}, "cid:c-elf", notFile + (root / "usr/bin") + " "},
        {{tool}, "bogus", "W Docker file audit receive invalid event. " + tool},
        {{tool}, "x-cid:c-elf", badKey + "x-cid:c-elf"},
        {{tool}, "CID:c-elf", badKey + "CID:c-elf"},
        {{tool}, "", badKey},
        {{tool}, "cid:", noContainer},
        {{tool}, "cid:c-elfx", noContainer + "c-elfx"},
    };
    for (const auto& [names, key, line] : rows) {
        SCOPED_TRACE(line);
        Logs().Clear();
        Audit(key, names, key != "bogus");
        Strings expected = {line};
        if (!names.empty() && line.rfind(badPath, 0) != 0) {
            expected.insert(expected.begin(), ReceiveLine(names[0], key != "bogus"));
        }
        EXPECT_EQ(expected, Timeline());
    }
}

// The key names the container, whatever its rule says; an exited one is no longer known.
TEST_F(RootFsAlarmTest, TheKeyNamesACachedContainer) {
    TestSupport::TempDir other;
    ASSERT_TRUE(Put(other / "tool", 0755));
    Container("c-allow", "free", "sha256:allow", "alpine", other.Path());
    EXPECT_TRUE(Sent<Engine::AuditFileSystemCtrlMessage>().empty()) << "no audit rule for it";
    Audit("cid:c-allow", {other / "tool"});
    const Json::Value doc = Alarm(1);
    EXPECT_EQ("free /tool",
              doc["container_name"].asString() + " " + doc["file_info"][0]["file_path"].asString());

    Container("c-elf", "box", "sha256:elf", "busybox:1", root.Path(), false);
    Logs().Clear();
    Audit("cid:c-elf", {tool});
    EXPECT_EQ(
        (Strings{ReceiveLine(tool), "W Docker file audit get container info failed, cid:c-elf"}),
        Timeline());
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
    const auto threw = Logs().Find("threw", true);
    ASSERT_EQ(1u, threw.size()) << Logs().Dump();
    EXPECT_EQ("framework", threw[0].logger);
    EXPECT_EQ(Poco::Message::PRIO_ERROR, threw[0].priority);
    EXPECT_NE(std::string::npos, threw[0].text.find("dockerfile_task"));
    EXPECT_NE(std::string::npos, threw[0].text.find("AuditEventMessage"));
    EXPECT_TRUE(Sent<Framework::DataMessage>().empty());

    Audit("cid:c-elf", {tool});
    EXPECT_EQ("/usr/bin/tool", Alarm(1)["file_info"][0]["file_path"].asString());
}

}  // namespace
}  // namespace DockerFileTest
