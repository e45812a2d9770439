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

// The index picks the container and its root must lead the path, as plain text; the alarm names
// the path without the root. An index that is unknown, or whose container left, drops the event,
// and so does a path outside the root; each is warned, then the mismatch.
TEST_F(UserFileAttributionTest, IndexThenRootDecide) {
    Notify(MakeContainer("cid-2", "db", "sha256:x", "myapp:2", "/r/abc"));  // index 1
    Notify(MakeContainer("cid-3", "rootless", "sha256:x", "myapp:2", ""));  // index 2
    Notify(MakeContainer("cid-4", "back", "sha256:x", "myapp:2", "/g"));    // index 3
    Notify(MakeContainer("cid-4", "back", "sha256:x", "myapp:2", "/g", false));
    Notify(MakeContainer("cid-4", "back", "sha256:x", "myapp:2", "/g"));  // index 4
    const std::string path = kRoot + "/etc/passwd";
    const std::string noIndex = "Docker file not match cache index. index=";
    const std::string outside = "Docker file root path match failed. container=db, file=";
    const struct {
        std::string path;
        uint64_t index;
        std::string alarm;  ///< container and in-container path, or empty
        std::string dropped;
    } rows[] = {
        {kRoot + "/etc/passwd.d/child", 0, "web /etc/passwd.d/child", ""},
        {kRoot, 0, "web ", ""},
        {"/r/abcdef/x", 1, "db def/x", ""},
        {"/anything/at/all", 2, "rootless /anything/at/all", ""},
        {"/g/x", 4, "back /x", ""},
        {"/x/r/abc/y", 1, "", outside + "/x/r/abc/y, root=/r/abc"},
        {path, 1, "", outside + path + ", root=/r/abc"},
        {path, 3, "", noIndex + "3, path=" + path},
        {path, 7, "", noIndex + "7, path=" + path},
        {path, UINT64_MAX, "", noIndex + "18446744073709551615, path=" + path},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path + " " + std::to_string(row.index));
        Sent().Clear();
        Logs().Clear();
        harness.SendFileEvent(row.path, 0x2, row.index);
        if (!row.alarm.empty()) {
            Json::Value doc = WaitAlarm(1);
            EXPECT_EQ(row.alarm, doc["container_name"].asString() + " " +
                                     doc["file_info"][0]["file_path"].asString());
            continue;
        }
        ASSERT_TRUE(harness.Sync());
        EXPECT_EQ(
            (std::vector<std::string>{"W " + row.dropped,
                                      "W Docker file module inotify message not match container."}),
            Timeline());
    }
}

TEST_F(UserFileAttributionTest, PolicyChangesDoNotStopAlarmsOfCachedContainers) {
    Policy(R"({"content":{"rules":[]}})");
    harness.SendFileEvent(kRoot + "/etc/passwd", 0x200, 0);
    EXPECT_EQ(3, WaitAlarm(1)["file_info"][0]["file_operation"].asInt());
}

}  // namespace
}  // namespace DockerFileHarness
