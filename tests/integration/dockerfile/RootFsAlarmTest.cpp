// Audit events under a protected container's root: real files in a temporary directory stand in
// for the container's root filesystem; only executables that are ELF files raise
// "dockerfile_002".

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <fstream>

#include "HarnessFixture.h"
#include "framework/Counters.h"
#include "framework/DataMessage.h"

namespace DockerFileHarness {
namespace {

constexpr long kTenMiB = 10485760;

bool CopyFile(const std::string& from, const std::string& to, mode_t mode) {
    std::ifstream in(from, std::ios::binary);
    std::ofstream out(to, std::ios::binary | std::ios::trunc);
    if (!in || !out) return false;
    out << in.rdbuf();
    out.close();
    return chmod(to.c_str(), mode) == 0;
}

bool WriteFile(const std::string& path, const std::string& content, mode_t mode) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) return false;
    out << content;
    out.close();
    return chmod(path.c_str(), mode) == 0;
}

/// An ELF header followed by zeros up to `size` bytes (sparse).
bool WriteSizedElf(const std::string& path, off_t size) {
    if (!WriteFile(path,
                   std::string("\x7f"
                               "ELF\x02\x01\x01",
                               7),
                   0755))
        return false;
    return truncate(path.c_str(), size) == 0;
}

/// The executable the tests copy into container roots.
std::string SystemElf() { return "/bin/true"; }

/// `inContainer` named through a host path of exactly `length` characters, padded with "/."
/// (and one doubled slash for odd lengths), which all resolve away.
std::string PaddedName(const std::string& root, const std::string& inContainer, size_t length) {
    std::string pad;
    const size_t fixed = root.size() + inContainer.size();
    while (fixed + pad.size() + 2 <= length) pad += "/.";
    if (fixed + pad.size() < length) pad += "/";
    return root + pad + inContainer;
}

class RootFsAlarmTest : public ModuleFixture {
protected:
    void SetUp() override {
        ModuleFixture::SetUp();
        ASSERT_FALSE(root.Path().empty());
        ASSERT_EQ(0, mkdir((root.Path() + "/usr").c_str(), 0755));
        ASSERT_EQ(0, mkdir((root.Path() + "/usr/bin").c_str(), 0755));
        ASSERT_TRUE(CopyFile(SystemElf(), Host("/usr/bin/tool"), 0755));
        Policy(PolicyDocument({IdRule("sha256:elf", {}, true), IdRule("sha256:allow", {}, false)}));
        Notify(MakeContainer("c-elf", "box", "sha256:elf", "busybox:1", root.Path()));
        ASSERT_EQ(1u, AuditRules().size());
        Sent().Clear();
        Logs().Clear();
    }

    std::string Host(const std::string& inContainer) const { return root.Path() + inContainer; }

    /// A write event by this test process for a file named as the audit service would.
    void Write(const std::string& name, const std::string& key = "cid:c-elf") {
        harness.SendAuditEvent(key, {name}, true, false, std::to_string(getpid()),
                               std::to_string(getppid()), "cp");
    }
    TempDir root;
};

TEST_F(RootFsAlarmTest, ExecutableWrittenIntoTheRootRaisesAFullAlarm) {
    const int64_t before = static_cast<int64_t>(time(nullptr));
    Write(Host("/usr/bin/tool"));
    Json::Value doc = WaitAlarm(1);
    // An unsigned member: compared on its own, as parsed text cannot carry the type.
    Json::Value& file = doc["file_info"][0];
    ASSERT_TRUE(file["file_attr"].isIntegral());
    EXPECT_EQ(33261u, file["file_attr"].asUInt()) << "regular file, mode 0755";
    file.removeMember("file_attr");
    Json::Value want = FromText(R"({
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
    want["file_info"][0]["file_sha256"] = Sha256OfFile(SystemElf());
    want["process_info"][0]["parent_process_pid"] = getppid();
    want["process_info"][0]["process_pid"] = getpid();
    ExpectAlarm(doc, want, before);

    EXPECT_EQ((std::vector<std::string>{
                  "D Docker file rootFs receive audit message. write(1), attr(0), file(" +
                      Host("/usr/bin/tool") + ")",
                  "I Docker file send rootFs monitor alarm, container(box), image(busybox:1), "
                  "file(/usr/bin/tool), event(2)",
                  "to data_comm_report_task: alarm type 2"}),
              Timeline());
}

// The access kind gives the operation; process ids are decimal text narrowed to 32 bits.
TEST_F(RootFsAlarmTest, AccessKindAndProcessIds) {
    const struct {
        bool write;
        bool attr;
        const char* pid;
        const char* ppid;
        int operation;
        int pidOut;
        int ppidOut;
    } rows[] = {
        {false, true, "0", "1", 1, 0, 1},
        {true, true, "abc", "", 2, 0, 0},
        {true, false, "4294967297", "4294967295", 2, 1, -1},
        {true, false, "12x", "-5", 2, 12, -5},
    };
    size_t n = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.pid) + " " + row.ppid);
        Logs().Clear();
        harness.SendAuditEvent("cid:c-elf", {Host("/usr/bin/tool")}, row.write, row.attr, row.pid,
                               row.ppid, "sh");
        Json::Value doc = WaitAlarm(++n);
        EXPECT_EQ(row.operation, doc["file_info"][0]["file_operation"].asInt());
        EXPECT_EQ(1u, Logs()
                          .Exactly("Docker file send rootFs monitor alarm, container(box), "
                                   "image(busybox:1), file(/usr/bin/tool), event(" +
                                   std::to_string(row.operation) + ")")
                          .size());
        const Json::Value& p = doc["process_info"][0];
        EXPECT_EQ(row.pidOut, p["process_pid"].asInt());
        EXPECT_EQ(row.ppidOut, p["parent_process_pid"].asInt());
        EXPECT_EQ("", p["process_container_id"].asString());
        EXPECT_EQ("sh", p["process_name"].asString());
    }
}

TEST_F(RootFsAlarmTest, OwnerExecuteBitSuffices) {
    ASSERT_TRUE(CopyFile(SystemElf(), Host("/usr/bin/owner"), 0744));
    Write(Host("/usr/bin/owner"));
    EXPECT_EQ(0100744u, WaitAlarm(1)["file_info"][0]["file_attr"].asUInt());
}

// Each filter drops the event with its own line, and only the first failing one speaks: the
// file is judged before the access kind, the access kind before the key.
TEST_F(RootFsAlarmTest, DroppedEventsSayWhy) {
    const std::string tool = Host("/usr/bin/tool");
    ASSERT_TRUE(WriteFile(Host("/script"), "#!/bin/sh\necho hi\n", 0755));
    ASSERT_TRUE(CopyFile(SystemElf(), Host("/elf0644"), 0644));
    ASSERT_TRUE(CopyFile(SystemElf(), Host("/elf0011"), 0011));
    ASSERT_EQ(0, mkfifo(Host("/fifo").c_str(), 0755));
    ASSERT_EQ(0, chmod(Host("/fifo").c_str(), 0755));
    ASSERT_EQ(0, symlink(Host("/script").c_str(), Host("/usr/bin/elf-looking").c_str()));
    const std::string tooLong = PaddedName(root.Path(), "/usr/bin/tool", 4097);
    ASSERT_EQ(4097u, tooLong.size());
    const std::string notFile = "D Docker file audit not file or not executable: ";
    const std::string notElf = "D Docker file audit file is not elf ";
    const std::string badPath = "W Docker file audit receive invalid file path: ";
    const std::string badKey = "W Docker file audit get invalid module info: ";
    const std::string noContainer = "W Docker file audit get container info failed, cid:";
    const std::string ok = "cid:c-elf";
    const struct {
        std::vector<std::string> paths;
        std::string key;
        bool write;
        std::string line;
    } rows[] = {
        {{}, ok, true, "W Docker file receive invalid audit message."},
        {{Host("/usr/bin/gone")}, ok, true, badPath + Host("/usr/bin/gone")},
        {{""}, ok, true, badPath},
        {{tooLong}, ok, true, badPath + tooLong},
        {{Host("/usr/bin/elf-looking")}, ok, true, notElf + Host("/script") + "."},
        {{Host("/script"), tool}, ok, true, notElf + Host("/script") + "."},
        {{Host("/script")}, "bogus", false, notElf + Host("/script") + "."},
        {{Host("/elf0644")}, ok, true, notFile + Host("/elf0644") + " "},
        {{Host("/elf0011")}, ok, true, notFile + Host("/elf0011") + " "},
        {{Host("/fifo")}, ok, true, notFile + Host("/fifo") + " "},
        {{Host("/usr/bin")}, ok, true, notFile + Host("/usr/bin") + " "},
        {{"/dev/null"}, ok, true, notFile + "/dev/null "},
        {{tool}, "bogus", false, "W Docker file audit receive invalid event. " + tool},
        {{tool}, "x-cid:c-elf", true, badKey + "x-cid:c-elf"},
        {{tool}, "", true, badKey},
        {{tool}, "CID:c-elf", true, badKey + "CID:c-elf"},
        {{tool}, " cid:c-elf", true, badKey + " cid:c-elf"},
        {{tool}, "cid:", true, noContainer},
        {{tool}, "cid:c-elfx", true, noContainer + "c-elfx"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        Logs().Clear();
        harness.SendAuditEvent(row.key, row.paths, row.write, false, "1", "0", "cp");
        ASSERT_TRUE(harness.Sync());
        // Only the first failing filter speaks; the receive line comes once the path resolved.
        std::vector<std::string> expected;
        if (!row.paths.empty() && row.line.rfind(badPath, 0) != 0) {
            expected.push_back("D Docker file rootFs receive audit message. write(" +
                               std::string(row.write ? "1" : "0") + "), attr(0), file(" +
                               row.paths[0] + ")");
        }
        expected.push_back(row.line);
        EXPECT_EQ(expected, Timeline());
    }
}

// A name of the longest length, a link and a first path item all lead to the tool; the name is
// logged as received.
TEST_F(RootFsAlarmTest, NamesResolvingToTheToolAlarmForIt) {
    ASSERT_EQ(0, symlink(Host("/usr/bin/tool").c_str(), Host("/usr/bin/alias").c_str()));
    ASSERT_TRUE(WriteFile(Host("/script"), "#!/bin/sh\n", 0755));
    const std::string longest = PaddedName(root.Path(), "/usr/bin/tool", 4096);
    ASSERT_EQ(4096u, longest.size());
    const std::vector<std::vector<std::string>> names = {
        {longest}, {Host("/usr/bin/alias")}, {Host("/usr/bin/tool"), Host("/script")}};
    size_t n = 0;
    for (const auto& paths : names) {
        SCOPED_TRACE(paths[0].substr(0, 80));
        Logs().Clear();
        harness.SendAuditEvent("cid:c-elf", paths, true, false);
        EXPECT_EQ("/usr/bin/tool", WaitAlarm(++n)["file_info"][0]["file_path"].asString());
        EXPECT_EQ(
            1u, Logs()
                    .Exactly("Docker file rootFs receive audit message. write(1), attr(0), file(" +
                             paths[0] + ")")
                    .size());
    }
}

TEST_F(RootFsAlarmTest, ALinkOutOfTheRootIsCutByTheRootLengthAlone) {
    TempDir outside;
    ASSERT_EQ(root.Path().size(), outside.Path().size());
    ASSERT_TRUE(CopyFile(SystemElf(), outside.Path() + "/evil", 0755));
    ASSERT_EQ(0, symlink((outside.Path() + "/evil").c_str(), Host("/usr/bin/escape").c_str()));
    Write(Host("/usr/bin/escape"));
    Json::Value doc = WaitAlarm(1);
    EXPECT_EQ("/evil", doc["file_info"][0]["file_path"].asString());
    EXPECT_EQ(Sha256OfFile(SystemElf()), doc["file_info"][0]["file_sha256"].asString());
}

TEST_F(RootFsAlarmTest, HashUpToTenMiBThenTheSizeStandsIn) {
    ASSERT_TRUE(WriteSizedElf(Host("/exact"), kTenMiB));
    Write(Host("/exact"));
    Json::Value exact = WaitAlarm(1);
    EXPECT_EQ(Sha256OfFile(Host("/exact")), exact["file_info"][0]["file_sha256"].asString());

    ASSERT_TRUE(WriteSizedElf(Host("/over"), kTenMiB + 1));
    Write(Host("/over"));
    Json::Value over = WaitAlarm(2);
    EXPECT_EQ("Oversize:10485761", over["file_info"][0]["file_sha256"].asString());
    EXPECT_EQ("/over", over["file_info"][0]["file_path"].asString());
}

// The key names the container, whatever its rule says; an exited one is no longer known.
TEST_F(RootFsAlarmTest, TheKeyNamesACachedContainer) {
    TempDir other;
    ASSERT_TRUE(CopyFile(SystemElf(), other.Path() + "/tool", 0755));
    Notify(MakeContainer("c-allow", "free", "sha256:allow", "alpine", other.Path()));
    EXPECT_TRUE(AuditRules().empty()) << "no audit rule for it";
    Write(other.Path() + "/tool", "cid:c-allow");
    Json::Value doc = WaitAlarm(1);
    EXPECT_EQ("free", doc["container_name"].asString());
    EXPECT_EQ("/tool", doc["file_info"][0]["file_path"].asString());

    Notify(MakeContainer("c-elf", "box", "sha256:elf", "busybox:1", root.Path(), false));
    Logs().Clear();
    Write(Host("/usr/bin/tool"));
    ASSERT_TRUE(harness.Sync());
    EXPECT_EQ(1u, Alarms().size());
    EXPECT_EQ(1u, Logs().Exactly("Docker file audit get container info failed, cid:c-elf").size());
}

class EscapedErrorTest : public RootFsAlarmTest {};

TEST_F(EscapedErrorTest, ARootLongerThanTheResolvedPathIsCaughtByTheFrameworkLoop) {
    const std::string longRoot = root.Path() + "/" + std::string(300, 'x');
    Notify(MakeContainer("c-long", "long", "sha256:elf", "busybox:1", longRoot));
    Sent().Clear();
    Logs().Clear();
    auto& counter = Framework::Counters::Instance();
    const uint64_t before = counter.Value(Framework::CounterNames::kHandlerException);

    Write(Host("/usr/bin/tool"), "cid:c-long");
    ASSERT_TRUE(harness.Sync()) << "the task goes on after the error";
    EXPECT_EQ(before + 1, counter.Value(Framework::CounterNames::kHandlerException));
    auto threw = Logs().Containing("threw");
    ASSERT_EQ(1u, threw.size()) << Logs().Dump();
    EXPECT_EQ("framework", threw[0].logger);
    EXPECT_EQ(Poco::Message::PRIO_ERROR, threw[0].priority);
    EXPECT_NE(std::string::npos, threw[0].text.find("dockerfile_task"));
    EXPECT_NE(std::string::npos, threw[0].text.find("AuditEventMessage"));
    EXPECT_TRUE(Alarms().empty());

    // The next message is handled normally.
    Write(Host("/usr/bin/tool"));
    EXPECT_EQ("/usr/bin/tool", WaitAlarm(1)["file_info"][0]["file_path"].asString());
}

}  // namespace
}  // namespace DockerFileHarness
