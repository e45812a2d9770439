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
    /// The event is dropped with exactly this log line (text and priority) and no alarm beyond
    /// the `alarmsBefore` raised earlier in the test.
    void ExpectDropped(const std::string& line, int priority, size_t alarmsBefore = 0) {
        ASSERT_TRUE(harness.Sync());
        EXPECT_EQ(alarmsBefore, Alarms().size());
        auto hits = Logs().Exactly(line);
        ASSERT_EQ(1u, hits.size()) << "missing: " << line << "\n" << Logs().Dump();
        EXPECT_EQ(priority, hits[0].priority);
        EXPECT_EQ("dockerfile_module", hits[0].logger);
    }

    TempDir root;
};

TEST_F(RootFsAlarmTest, ExecutableWrittenIntoTheRootRaisesAFullAlarm) {
    const int64_t before = static_cast<int64_t>(time(nullptr));
    Write(Host("/usr/bin/tool"));
    Json::Value doc = WaitAlarm(1);
    const int64_t after = static_cast<int64_t>(time(nullptr));
    ASSERT_TRUE(doc.isObject());

    const std::vector<std::string> keys = {
        "attack_phase",   "attack_tag",    "confidence",  "container_name", "detect_module",
        "event_category", "event_classid", "event_count", "event_id",       "event_name",
        "event_type",     "file_info",     "image_name",  "occur_time",     "process_info",
        "resource_info",  "serverity",     "type"};
    EXPECT_EQ(keys, doc.getMemberNames());
    ASSERT_TRUE(doc["event_id"].isString());
    EXPECT_FALSE(doc["event_id"].asString().empty());
    EXPECT_EQ("Container rootFs exception", doc["event_name"].asString());
    EXPECT_EQ("dockerfile_002", doc["event_classid"].asString());
    EXPECT_EQ("container_root_fs_modification", doc["type"].asString());
    EXPECT_EQ("box", doc["container_name"].asString());
    EXPECT_EQ("busybox:1", doc["image_name"].asString());
    ASSERT_TRUE(doc["occur_time"].isIntegral());
    EXPECT_GE(doc["occur_time"].asInt64(), before);
    EXPECT_LE(doc["occur_time"].asInt64(), after);
    const std::pair<const char*, int> numbers[] = {
        {"event_category", 3000}, {"event_type", 3021}, {"serverity", 2},  {"event_count", 1},
        {"attack_phase", 4},      {"attack_tag", 4},    {"confidence", 60}};
    for (const auto& n : numbers) {
        SCOPED_TRACE(n.first);
        ASSERT_TRUE(doc[n.first].isInt());
        EXPECT_EQ(n.second, doc[n.first].asInt());
    }
    EXPECT_EQ("dockerfile_module", doc["detect_module"].asString());

    const Json::Value& resource = doc["resource_info"];
    EXPECT_EQ((std::vector<std::string>{"container_id", "image_id"}), resource.getMemberNames());
    EXPECT_EQ("c-elf", resource["container_id"].asString());
    EXPECT_EQ("sha256:elf", resource["image_id"].asString());

    const Json::Value& files = doc["file_info"];
    ASSERT_TRUE(files.isArray());
    ASSERT_EQ(1u, files.size());
    const Json::Value& file = files[0];
    EXPECT_EQ((std::vector<std::string>{"file_attr", "file_operation", "file_path", "file_sha256",
                                        "file_type"}),
              file.getMemberNames());
    EXPECT_EQ("/usr/bin/tool", file["file_path"].asString());
    EXPECT_EQ(Sha256OfFile(SystemElf()), file["file_sha256"].asString());
    EXPECT_EQ(64u, file["file_sha256"].asString().size());
    EXPECT_EQ("elf", file["file_type"].asString());
    ASSERT_TRUE(file["file_attr"].isIntegral());
    EXPECT_EQ(33261u, file["file_attr"].asUInt()) << "regular file, mode 0755";
    ASSERT_TRUE(file["file_operation"].isInt());
    EXPECT_EQ(2, file["file_operation"].asInt());

    const Json::Value& procs = doc["process_info"];
    ASSERT_TRUE(procs.isArray());
    ASSERT_EQ(1u, procs.size());
    const Json::Value& proc = procs[0];
    EXPECT_EQ((std::vector<std::string>{"parent_process_pid", "process_container_id",
                                        "process_name", "process_pid"}),
              proc.getMemberNames());
    EXPECT_EQ("cp", proc["process_name"].asString());
    ASSERT_TRUE(proc["process_pid"].isInt());
    EXPECT_EQ(getpid(), proc["process_pid"].asInt());
    ASSERT_TRUE(proc["parent_process_pid"].isInt());
    EXPECT_EQ(getppid(), proc["parent_process_pid"].asInt());
    ASSERT_TRUE(proc["process_container_id"].isString());
    EXPECT_EQ("", proc["process_container_id"].asString()) << "the test runs on the host";

    auto received = Logs().Exactly(
        "Docker file rootFs receive audit message. write(1), attr(0), "
        "file(" +
        Host("/usr/bin/tool") + ")");
    ASSERT_EQ(1u, received.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, received[0].priority);
    auto sent = Logs().Exactly(
        "Docker file send rootFs monitor alarm, container(box), "
        "image(busybox:1), file(/usr/bin/tool), event(2)");
    ASSERT_EQ(1u, sent.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_INFORMATION, sent[0].priority);
    EXPECT_LT(sent[0].seq, Sent().To(kReportTask)[0].seq) << "logged before it is sent";
}

TEST_F(RootFsAlarmTest, AccessKindDecidesTheOperation) {
    harness.SendAuditEvent("cid:c-elf", {Host("/usr/bin/tool")}, false, true);
    EXPECT_EQ(1, WaitAlarm(1)["file_info"][0]["file_operation"].asInt());
    harness.SendAuditEvent("cid:c-elf", {Host("/usr/bin/tool")}, true, true);
    EXPECT_EQ(2, WaitAlarm(2)["file_info"][0]["file_operation"].asInt());
    EXPECT_EQ(1u, Logs()
                      .Exactly("Docker file send rootFs monitor alarm, container(box), "
                               "image(busybox:1), file(/usr/bin/tool), event(1)")
                      .size());

    harness.SendAuditEvent("cid:c-elf", {Host("/usr/bin/tool")}, false, false);
    ASSERT_TRUE(harness.Sync());
    EXPECT_EQ(2u, Alarms().size());
    auto invalid =
        Logs().Exactly("Docker file audit receive invalid event. " + Host("/usr/bin/tool"));
    ASSERT_EQ(1u, invalid.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_WARNING, invalid[0].priority);
}

TEST_F(RootFsAlarmTest, OwnerExecuteBitIsWhatCounts) {
    ASSERT_TRUE(CopyFile(SystemElf(), Host("/usr/bin/owner"), 0744));
    Write(Host("/usr/bin/owner"));
    Json::Value doc = WaitAlarm(1);
    EXPECT_EQ(0100744u, doc["file_info"][0]["file_attr"].asUInt());

    for (mode_t mode : {0644, 0655, 0011}) {
        SCOPED_TRACE(mode);
        Logs().Clear();
        const std::string path = Host("/usr/bin/m" + std::to_string(mode));
        ASSERT_TRUE(CopyFile(SystemElf(), path, mode));
        Write(path);
        ASSERT_TRUE(harness.Sync());
        EXPECT_EQ(1u, Alarms().size());
        EXPECT_EQ(
            1u,
            Logs().Exactly("Docker file audit not file or not executable: " + path + " ").size())
            << Logs().Dump();
    }
}

TEST_F(RootFsAlarmTest, ScriptsAndDataFilesAreNotElf) {
    ASSERT_TRUE(WriteFile(Host("/usr/bin/script"), "#!/bin/sh\necho hi\n", 0755));
    Write(Host("/usr/bin/script"));
    ExpectDropped("Docker file audit file is not elf " + Host("/usr/bin/script") + ".",
                  Poco::Message::PRIO_DEBUG);

    ASSERT_TRUE(WriteFile(Host("/data.bin"), std::string(4096, '\x01'), 0755));
    Write(Host("/data.bin"));
    ExpectDropped("Docker file audit file is not elf " + Host("/data.bin") + ".",
                  Poco::Message::PRIO_DEBUG);

    ASSERT_TRUE(WriteFile(Host("/notes.txt"), "plain data\n", 0644));
    Write(Host("/notes.txt"));
    ExpectDropped("Docker file audit not file or not executable: " + Host("/notes.txt") + " ",
                  Poco::Message::PRIO_DEBUG);
}

TEST_F(RootFsAlarmTest, ElfMagicNeedsSixReadableBytes) {
    ASSERT_TRUE(WriteFile(Host("/empty"), "", 0755));
    Write(Host("/empty"));
    ExpectDropped("Docker file audit file is not elf " + Host("/empty") + ".",
                  Poco::Message::PRIO_DEBUG);

    ASSERT_TRUE(WriteFile(Host("/magic4"),
                          "\x7f"
                          "ELF",
                          0755));
    Write(Host("/magic4"));
    ExpectDropped("Docker file audit file is not elf " + Host("/magic4") + ".",
                  Poco::Message::PRIO_DEBUG);

    ASSERT_TRUE(WriteFile(Host("/magic5"),
                          "\x7f"
                          "ELFx",
                          0755));
    Write(Host("/magic5"));
    ExpectDropped("Docker file audit file is not elf " + Host("/magic5") + ".",
                  Poco::Message::PRIO_DEBUG);

    // Magic plus any two bytes is enough: class, type and machine are not looked at.
    ASSERT_TRUE(WriteFile(Host("/magic6"),
                          std::string("\x7f"
                                      "ELF\xff\x00",
                                      6),
                          0755));
    Write(Host("/magic6"));
    Json::Value doc = WaitAlarm(1);
    EXPECT_EQ("/magic6", doc["file_info"][0]["file_path"].asString());
    EXPECT_EQ(Sha256OfFile(Host("/magic6")), doc["file_info"][0]["file_sha256"].asString());
}

TEST_F(RootFsAlarmTest, NonRegularFilesAreRejectedWithoutBeingOpened) {
    ASSERT_EQ(0, mkfifo(Host("/fifo").c_str(), 0755));
    ASSERT_EQ(0, chmod(Host("/fifo").c_str(), 0755));
    Write(Host("/fifo"));
    ExpectDropped("Docker file audit not file or not executable: " + Host("/fifo") + " ",
                  Poco::Message::PRIO_DEBUG);

    Write(Host("/usr/bin"));
    ExpectDropped("Docker file audit not file or not executable: " + Host("/usr/bin") + " ",
                  Poco::Message::PRIO_DEBUG);

    Write("/dev/null");
    ExpectDropped("Docker file audit not file or not executable: /dev/null ",
                  Poco::Message::PRIO_DEBUG);
}

TEST_F(RootFsAlarmTest, UnresolvablePathsAreRejected) {
    Write(Host("/usr/bin/gone"));
    ExpectDropped("Docker file audit receive invalid file path: " + Host("/usr/bin/gone"),
                  Poco::Message::PRIO_WARNING);
    Write(Host("/no/such/dir/tool"));
    ExpectDropped("Docker file audit receive invalid file path: " + Host("/no/such/dir/tool"),
                  Poco::Message::PRIO_WARNING);
    Write("");
    ExpectDropped("Docker file audit receive invalid file path: ", Poco::Message::PRIO_WARNING);
    EXPECT_TRUE(Logs().Containing("rootFs receive audit message").empty())
        << "the receive line comes only after the path resolved";
}

TEST_F(RootFsAlarmTest, EventWithoutPathsIsRejected) {
    harness.SendAuditEvent("cid:c-elf", {}, true, false);
    ExpectDropped("Docker file receive invalid audit message.", Poco::Message::PRIO_WARNING);
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

TEST_F(RootFsAlarmTest, PathLengthLimitIsFourThousandNinetySixCharacters) {
    const std::string longest = PaddedName(root.Path(), "/usr/bin/tool", 4096);
    ASSERT_EQ(4096u, longest.size());
    Write(longest);
    Json::Value doc = WaitAlarm(1);
    EXPECT_EQ("/usr/bin/tool", doc["file_info"][0]["file_path"].asString());
    EXPECT_EQ(1u,
              Logs()
                  .Exactly("Docker file rootFs receive audit message. write(1), attr(0), file(" +
                           longest + ")")
                  .size())
        << "the name is logged as received";

    const std::string tooLong = PaddedName(root.Path(), "/usr/bin/tool", 4097);
    ASSERT_EQ(4097u, tooLong.size());
    Write(tooLong);
    ExpectDropped("Docker file audit receive invalid file path: " + tooLong,
                  Poco::Message::PRIO_WARNING, 1);
    EXPECT_EQ(1u, Alarms().size());
}

TEST_F(RootFsAlarmTest, SymbolicLinksAreJudgedByTheirTarget) {
    ASSERT_EQ(0, symlink(Host("/usr/bin/tool").c_str(), Host("/usr/bin/alias").c_str()));
    Write(Host("/usr/bin/alias"));
    Json::Value doc = WaitAlarm(1);
    EXPECT_EQ("/usr/bin/tool", doc["file_info"][0]["file_path"].asString());
    EXPECT_EQ(1u,
              Logs()
                  .Exactly("Docker file rootFs receive audit message. write(1), attr(0), file(" +
                           Host("/usr/bin/alias") + ")")
                  .size());

    ASSERT_TRUE(WriteFile(Host("/script"), "#!/bin/sh\n", 0755));
    ASSERT_EQ(0, symlink(Host("/script").c_str(), Host("/usr/bin/elf-looking").c_str()));
    Write(Host("/usr/bin/elf-looking"));
    ExpectDropped("Docker file audit file is not elf " + Host("/script") + ".",
                  Poco::Message::PRIO_DEBUG, 1);
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

TEST_F(RootFsAlarmTest, OnlyTheFirstPathItemIsExamined) {
    ASSERT_TRUE(WriteFile(Host("/script"), "#!/bin/sh\n", 0755));
    harness.SendAuditEvent("cid:c-elf", {Host("/script"), Host("/usr/bin/tool")}, true, false);
    ExpectDropped("Docker file audit file is not elf " + Host("/script") + ".",
                  Poco::Message::PRIO_DEBUG);
    harness.SendAuditEvent("cid:c-elf", {Host("/usr/bin/tool"), Host("/script")}, true, false);
    EXPECT_EQ("/usr/bin/tool", WaitAlarm(1)["file_info"][0]["file_path"].asString());
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

class RootFsKeyTest : public RootFsAlarmTest {};

TEST_F(RootFsKeyTest, KeyMustStartWithCid) {
    for (const std::string key : {"x-cid:c-elf", "", "CID:c-elf", " cid:c-elf"}) {
        SCOPED_TRACE(key);
        Logs().Clear();
        Write(Host("/usr/bin/tool"), key);
        ExpectDropped("Docker file audit get invalid module info: " + key,
                      Poco::Message::PRIO_WARNING);
    }
}

TEST_F(RootFsKeyTest, ContainerMustBeCached) {
    Write(Host("/usr/bin/tool"), "cid:");
    ExpectDropped("Docker file audit get container info failed, cid:", Poco::Message::PRIO_WARNING);
    Write(Host("/usr/bin/tool"), "cid:c-elfx");
    ExpectDropped("Docker file audit get container info failed, cid:c-elfx",
                  Poco::Message::PRIO_WARNING);
    Write(Host("/usr/bin/tool"), "cid:cid:c-elf");
    ExpectDropped("Docker file audit get container info failed, cid:cid:c-elf",
                  Poco::Message::PRIO_WARNING);

    Notify(MakeContainer("c-elf", "box", "sha256:elf", "busybox:1", root.Path(), false));
    Logs().Clear();
    Write(Host("/usr/bin/tool"));
    ExpectDropped("Docker file audit get container info failed, cid:c-elf",
                  Poco::Message::PRIO_WARNING);
}

TEST_F(RootFsKeyTest, FileFiltersComeBeforeTheAccessKindAndTheKey) {
    ASSERT_TRUE(WriteFile(Host("/script"), "#!/bin/sh\n", 0755));
    harness.SendAuditEvent("bogus", {Host("/script")}, false, false);
    ExpectDropped("Docker file audit file is not elf " + Host("/script") + ".",
                  Poco::Message::PRIO_DEBUG);
    EXPECT_TRUE(Logs().Containing("invalid event").empty());
    EXPECT_TRUE(Logs().Containing("invalid module info").empty());

    // With a valid file, the access kind is judged before the key.
    harness.SendAuditEvent("bogus", {Host("/usr/bin/tool")}, false, false);
    ExpectDropped("Docker file audit receive invalid event. " + Host("/usr/bin/tool"),
                  Poco::Message::PRIO_WARNING);
    EXPECT_TRUE(Logs().Containing("invalid module info").empty());
}

TEST_F(RootFsKeyTest, CachedContainerWithoutTheExecutableBanStillAlarms) {
    TempDir other;
    ASSERT_TRUE(CopyFile(SystemElf(), other.Path() + "/tool", 0755));
    Notify(MakeContainer("c-allow", "free", "sha256:allow", "alpine", other.Path()));
    EXPECT_TRUE(AuditRules().empty()) << "no audit rule for it";
    Write(other.Path() + "/tool", "cid:c-allow");
    Json::Value doc = WaitAlarm(1);
    EXPECT_EQ("free", doc["container_name"].asString());
    EXPECT_EQ("/tool", doc["file_info"][0]["file_path"].asString());
}

class RootFsProcessTest : public RootFsAlarmTest {
protected:
    Json::Value ProcessOf(const std::string& pid, const std::string& ppid, size_t n) {
        harness.SendAuditEvent("cid:c-elf", {Host("/usr/bin/tool")}, true, false, pid, ppid, "sh");
        return WaitAlarm(n)["process_info"][0];
    }
};

TEST_F(RootFsProcessTest, ProcessIdsAreDecimalTextNarrowedToThirtyTwoBits) {
    Json::Value p = ProcessOf("0", "1", 1);
    EXPECT_EQ(0, p["process_pid"].asInt());
    EXPECT_EQ(1, p["parent_process_pid"].asInt());
    EXPECT_EQ("", p["process_container_id"].asString());

    p = ProcessOf("abc", "", 2);
    EXPECT_EQ(0, p["process_pid"].asInt());
    EXPECT_EQ(0, p["parent_process_pid"].asInt());

    p = ProcessOf("4294967297", "4294967295", 3);
    EXPECT_EQ(1, p["process_pid"].asInt());
    EXPECT_EQ(-1, p["parent_process_pid"].asInt());

    p = ProcessOf("12x", "-5", 4);
    EXPECT_EQ(12, p["process_pid"].asInt());
    EXPECT_EQ(-5, p["parent_process_pid"].asInt());
    EXPECT_EQ("sh", p["process_name"].asString());
}

class EscapedErrorTest : public RootFsAlarmTest {};

TEST_F(EscapedErrorTest, ARootLongerThanTheResolvedPathIsCaughtByTheFrameworkLoop) {
    const std::string longRoot = root.Path() + "/" + std::string(300, 'x');
    Notify(MakeContainer("c-long", "long", "sha256:elf", "busybox:1", longRoot));
    Sent().Clear();
    Logs().Clear();
    auto& counter = Framework::Counters::Instance();
    const uint64_t before = counter.Value(Framework::CounterNames::kHandlerException);
    ASSERT_STREQ("framework.handler.exception", Framework::CounterNames::kHandlerException);

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
