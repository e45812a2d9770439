// File-notify events on protected files: attribution by index and root, classification and the
// "dockerfile_001" alarm document.

#include <gtest/gtest.h>

#include <ctime>

#include "HarnessFixture.h"
#include "framework/DataMessage.h"

namespace DockerFileHarness {
namespace {

const std::string kRoot = "/var/lib/docker/overlay2/abc/merged";

class UserFileAlarmTest : public ModuleFixture {
protected:
    void SetUp() override {
        ModuleFixture::SetUp();
        Policy(PolicyDocument({NameRule("myapp", {"/etc/passwd", "/etc/shadow"}, true)}));
        Notify(MakeContainer("cid-1", "web", "sha256:img", "myapp:1", kRoot));
        Sent().Clear();
        Logs().Clear();
    }

    /// Sends an event that must not raise an alarm, and checks that none came.
    void ExpectNoAlarm(const std::string& path, uint32_t mask, uint64_t index) {
        const size_t before = Alarms().size();
        harness.SendFileEvent(path, mask, index);
        ASSERT_TRUE(harness.Sync());
        EXPECT_EQ(before, Alarms().size());
    }
};

TEST_F(UserFileAlarmTest, AlarmDocumentCarriesEveryMemberWithItsTypeAndValue) {
    const int64_t before = static_cast<int64_t>(time(nullptr));
    harness.SendFileEvent(kRoot + "/etc/passwd", 0x2, 0);
    ExpectAlarm(WaitAlarm(1), FromText(R"({
        "attack_phase": 4, "attack_tag": 4, "confidence": 60, "container_name": "web",
        "detect_module": "dockerfile_module", "event_category": 3000,
        "event_classid": "dockerfile_001", "event_count": 1,
        "event_name": "Container file exception", "event_type": 3021,
        "file_info": [{"file_operation": 2, "file_path": "/etc/passwd"}],
        "image_name": "myapp:1",
        "resource_info": {"container_id": "cid-1", "image_id": "sha256:img"},
        "serverity": 2, "type": "container_user_file_violation"})"),
                before);

    EXPECT_EQ((std::vector<std::string>{
                  "D Docker file matched docker by index, index=0, name=web.",
                  "D Docker file module receive modify message, FilePath=" + kRoot +
                      "/etc/passwd, eventMask=2",
                  "I Docker file send user file monitor alarm, container(web), image(myapp:1), "
                  "file(/etc/passwd)",
                  "to data_comm_report_task: alarm type 2"}),
              Timeline());
}

TEST_F(UserFileAlarmTest, EveryEventIsItsOwnAlarmWithItsOwnId) {
    harness.SendFileEvent(kRoot + "/etc/passwd", 0x2, 0);
    harness.SendFileEvent(kRoot + "/etc/passwd", 0x2, 0);
    Json::Value first = WaitAlarm(1);
    Json::Value second = WaitAlarm(2);
    EXPECT_NE(first["event_id"].asString(), second["event_id"].asString());
    Json::Value a = first, b = second;
    for (auto* d : {&a, &b}) {
        d->removeMember("event_id");
        d->removeMember("occur_time");
    }
    EXPECT_EQ(a, b);
    EXPECT_EQ(1, second["event_count"].asInt()) << "nothing is aggregated";
}

// The first matching bit in the order create, modify, move, delete, change of status decides;
// anything else is "other" and reported as a modification.
TEST_F(UserFileAlarmTest, FirstMatchingBitDecidesTheOperation) {
    const struct {
        uint32_t mask;
        int operation;
        const char* word;
    } rows[] = {
        {0x100, 0, "create"}, {0x40000100, 0, "create"}, {0x102, 0, "create"},
        {0x2, 2, "modify"},   {0x6, 2, "modify"},        {0xC2, 2, "modify"},
        {0x40, 4, "move"},    {0x80, 4, "move"},         {0x280, 4, "move"},
        {0xC4, 4, "move"},    {0x200, 3, "delete"},      {0x400, 3, "delete"},
        {0x604, 3, "delete"}, {0x4, 1, "change status"}, {0x804, 1, "change status"},
        {0x800, 2, "other"},  {0x8000, 2, "other"},      {0x0, 2, "other"},
        {0x1, 2, "other"},    {0xFFFFFFFF, 0, "create"},
    };
    const std::string path = kRoot + "/etc/shadow";
    size_t n = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.mask);
        Logs().Clear();
        harness.SendFileEvent(path, row.mask, 0);
        Json::Value doc = WaitAlarm(++n);
        EXPECT_EQ(row.operation, doc["file_info"][0]["file_operation"].asInt());
        EXPECT_EQ("/etc/shadow", doc["file_info"][0]["file_path"].asString());
        auto line = Logs().Exactly(std::string("Docker file module receive ") + row.word +
                                   " message, FilePath=" + path +
                                   ", eventMask=" + std::to_string(row.mask));
        ASSERT_EQ(1u, line.size()) << Logs().Dump();
        EXPECT_EQ(Poco::Message::PRIO_DEBUG, line[0].priority);
    }
}

class UserFileAttributionTest : public UserFileAlarmTest {};

// The index picks the container; its root must then lead the path, as plain text, and is cut.
TEST_F(UserFileAttributionTest, RootIsCutFromThePathAfterAPlainLeadingSubstringCheck) {
    // The alarm names the event path without the root, even when nothing is left of it.
    harness.SendFileEvent(kRoot + "/etc/passwd.d/child", 0x100, 0);
    EXPECT_EQ("/etc/passwd.d/child", WaitAlarm(1)["file_info"][0]["file_path"].asString());
    harness.SendFileEvent(kRoot, 0x400, 0);
    EXPECT_EQ("", WaitAlarm(2)["file_info"][0]["file_path"].asString());

    Notify(MakeContainer("cid-2", "db", "sha256:x", "myapp:2", "/r/abc"));
    harness.SendFileEvent("/r/abcdef/x", 0x2, 1);
    Json::Value doc = WaitAlarm(3);
    EXPECT_EQ("def/x", doc["file_info"][0]["file_path"].asString());
    EXPECT_EQ("db", doc["container_name"].asString());
    EXPECT_EQ("cid-2", doc["resource_info"]["container_id"].asString());

    ExpectNoAlarm("/x/r/abc/y", 0x2, 1);
    auto failed = Logs().Exactly(
        "Docker file root path match failed. container=db, file=/x/r/abc/y, root=/r/abc");
    ASSERT_EQ(1u, failed.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_WARNING, failed[0].priority);
    auto notMatched = Logs().Exactly("Docker file module inotify message not match container.");
    ASSERT_EQ(1u, notMatched.size());
    EXPECT_EQ(Poco::Message::PRIO_WARNING, notMatched[0].priority);
    EXPECT_LT(failed[0].seq, notMatched[0].seq);

    // An empty root leads every path.
    Notify(MakeContainer("cid-3", "rootless", "sha256:x", "myapp:2", ""));
    harness.SendFileEvent("/anything/at/all", 0x4, 2);
    doc = WaitAlarm(4);
    EXPECT_EQ("/anything/at/all", doc["file_info"][0]["file_path"].asString());
    EXPECT_EQ("rootless", doc["container_name"].asString());
}

// An index never handed out, one of a container that exited, and the largest one.
TEST_F(UserFileAttributionTest, EventsWithoutALiveIndexAreDropped) {
    const std::string path = kRoot + "/etc/passwd";
    Notify(MakeContainer("cid-1", "web", "sha256:img", "myapp:1", kRoot, false));
    for (const uint64_t index : {uint64_t{7}, uint64_t{0}, UINT64_MAX}) {
        SCOPED_TRACE(index);
        Logs().Clear();
        ExpectNoAlarm(path, 0x2, index);
        auto warning = Logs().Exactly(
            "Docker file not match cache index. index=" + std::to_string(index) + ", path=" + path);
        ASSERT_EQ(1u, warning.size()) << Logs().Dump();
        EXPECT_EQ(Poco::Message::PRIO_WARNING, warning[0].priority);
        auto notMatched = Logs().Exactly("Docker file module inotify message not match container.");
        ASSERT_EQ(1u, notMatched.size());
        EXPECT_LT(warning[0].seq, notMatched[0].seq);
    }
    // The container comes back with a new index; the old one stays dead.
    Notify(MakeContainer("cid-1", "web", "sha256:img", "myapp:1", kRoot));
    ExpectNoAlarm(path, 0x2, 0);
    harness.SendFileEvent(path, 0x2, 1);
    EXPECT_EQ("web", WaitAlarm(1)["container_name"].asString());
}

TEST_F(UserFileAttributionTest, PolicyChangesDoNotStopAlarmsOfCachedContainers) {
    Policy(R"({"content":{"rules":[]}})");
    harness.SendFileEvent(kRoot + "/etc/passwd", 0x200, 0);
    EXPECT_EQ(3, WaitAlarm(1)["file_info"][0]["file_operation"].asInt());
}

}  // namespace
}  // namespace DockerFileHarness
