// File-notify events on protected files: attribution by index and root, classification and the
// "dockerfile_001" alarm document.

#include <gtest/gtest.h>

#include <cstdio>
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
    Json::Value doc = WaitAlarm(1);
    const int64_t after = static_cast<int64_t>(time(nullptr));
    ASSERT_TRUE(doc.isObject());

    const std::vector<std::string> keys = {
        "attack_phase",   "attack_tag",    "confidence",  "container_name", "detect_module",
        "event_category", "event_classid", "event_count", "event_id",       "event_name",
        "event_type",     "file_info",     "image_name",  "occur_time",     "resource_info",
        "serverity",      "type"};
    EXPECT_EQ(keys, doc.getMemberNames());

    ASSERT_TRUE(doc["event_id"].isString());
    EXPECT_FALSE(doc["event_id"].asString().empty());
    EXPECT_EQ("Container file exception", doc["event_name"].asString());
    EXPECT_EQ("dockerfile_001", doc["event_classid"].asString());
    EXPECT_EQ("container_user_file_violation", doc["type"].asString());
    EXPECT_EQ("web", doc["container_name"].asString());
    EXPECT_EQ("myapp:1", doc["image_name"].asString());
    ASSERT_TRUE(doc["occur_time"].isIntegral()) << "a number, not a string";
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
    ASSERT_TRUE(doc["detect_module"].isString());
    EXPECT_EQ("dockerfile_module", doc["detect_module"].asString());

    const Json::Value& resource = doc["resource_info"];
    ASSERT_TRUE(resource.isObject());
    EXPECT_EQ((std::vector<std::string>{"container_id", "image_id"}), resource.getMemberNames());
    EXPECT_EQ("cid-1", resource["container_id"].asString());
    EXPECT_EQ("sha256:img", resource["image_id"].asString());

    const Json::Value& files = doc["file_info"];
    ASSERT_TRUE(files.isArray());
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ((std::vector<std::string>{"file_operation", "file_path"}), files[0].getMemberNames());
    EXPECT_EQ("/etc/passwd", files[0]["file_path"].asString());
    ASSERT_TRUE(files[0]["file_operation"].isInt());
    EXPECT_EQ(2, files[0]["file_operation"].asInt());

    auto sent = Logs().Exactly(
        "Docker file send user file monitor alarm, container(web), image(myapp:1), "
        "file(/etc/passwd)");
    ASSERT_EQ(1u, sent.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_INFORMATION, sent[0].priority);
    EXPECT_EQ("dockerfile_module", sent[0].logger);
    EXPECT_LT(sent[0].seq, Sent().To(kReportTask)[0].seq) << "logged before it is sent";
    auto matched = Logs().Exactly("Docker file matched docker by index, index=0, name=web.");
    ASSERT_EQ(1u, matched.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, matched[0].priority);
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

struct MaskCase {
    uint32_t mask;
    int operation;
    const char* word;
};

class MaskClassificationTest : public UserFileAlarmTest,
                               public ::testing::WithParamInterface<MaskCase> {};

TEST_P(MaskClassificationTest, FirstMatchingBitDecidesTheOperation) {
    const MaskCase c = GetParam();
    const std::string path = kRoot + "/etc/shadow";
    harness.SendFileEvent(path, c.mask, 0);
    Json::Value doc = WaitAlarm(1);
    EXPECT_EQ(c.operation, doc["file_info"][0]["file_operation"].asInt());
    EXPECT_EQ("/etc/shadow", doc["file_info"][0]["file_path"].asString());
    auto line =
        Logs().Exactly(std::string("Docker file module receive ") + c.word +
                       " message, FilePath=" + path + ", eventMask=" + std::to_string(c.mask));
    ASSERT_EQ(1u, line.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, line[0].priority);
}

INSTANTIATE_TEST_SUITE_P(
    Masks, MaskClassificationTest,
    ::testing::Values(MaskCase{0x100, 0, "create"}, MaskCase{0x40000100, 0, "create"},
                      MaskCase{0x102, 0, "create"}, MaskCase{0x2, 2, "modify"},
                      MaskCase{0x6, 2, "modify"}, MaskCase{0xC2, 2, "modify"},
                      MaskCase{0x40, 4, "move"}, MaskCase{0x80, 4, "move"},
                      MaskCase{0x280, 4, "move"}, MaskCase{0xC4, 4, "move"},
                      MaskCase{0x200, 3, "delete"}, MaskCase{0x400, 3, "delete"},
                      MaskCase{0x604, 3, "delete"}, MaskCase{0x4, 1, "change status"},
                      MaskCase{0x804, 1, "change status"}, MaskCase{0x800, 2, "other"},
                      MaskCase{0x8000, 2, "other"}, MaskCase{0x0, 2, "other"},
                      MaskCase{0x1, 2, "other"}, MaskCase{0xFFFFFFFF, 0, "create"}),
    [](const ::testing::TestParamInfo<MaskCase>& info) {
        char name[32];
        snprintf(name, sizeof(name), "mask_%x", info.param.mask);
        return std::string(name);
    });

class UserFileAttributionTest : public UserFileAlarmTest {};

TEST_F(UserFileAttributionTest, InContainerPathIsTheEventPathWithoutTheRoot) {
    harness.SendFileEvent(kRoot + "/etc/passwd.d/child", 0x100, 0);
    EXPECT_EQ("/etc/passwd.d/child", WaitAlarm(1)["file_info"][0]["file_path"].asString());
    harness.SendFileEvent(kRoot, 0x400, 0);
    EXPECT_EQ("", WaitAlarm(2)["file_info"][0]["file_path"].asString());
}

TEST_F(UserFileAttributionTest, RootCheckIsAPlainLeadingSubstringTest) {
    Notify(MakeContainer("cid-2", "db", "sha256:x", "myapp:2", "/r/abc"));
    harness.SendFileEvent("/r/abcdef/x", 0x2, 1);
    Json::Value doc = WaitAlarm(1);
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
}

TEST_F(UserFileAttributionTest, AnotherContainersIndexDoesNotMatchThePath) {
    Notify(MakeContainer("cid-2", "db", "sha256:x", "myapp:2", "/rb"));
    ExpectNoAlarm(kRoot + "/etc/passwd", 0x2, 1);
    EXPECT_EQ(1u, Logs()
                      .Exactly("Docker file root path match failed. container=db, file=" + kRoot +
                               "/etc/passwd, root=/rb")
                      .size())
        << Logs().Dump();
}

TEST_F(UserFileAttributionTest, UnknownIndexIsWarnedTwiceAndDropped) {
    const std::string path = kRoot + "/etc/passwd";
    ExpectNoAlarm(path, 0x2, 7);
    auto index = Logs().Exactly("Docker file not match cache index. index=7, path=" + path);
    ASSERT_EQ(1u, index.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_WARNING, index[0].priority);
    auto notMatched = Logs().Exactly("Docker file module inotify message not match container.");
    ASSERT_EQ(1u, notMatched.size());
    EXPECT_LT(index[0].seq, notMatched[0].seq);

    ExpectNoAlarm(path, 0x2, UINT64_MAX);
    EXPECT_EQ(1u, Logs()
                      .Exactly("Docker file not match cache index. index=18446744073709551615, "
                               "path=" +
                               path)
                      .size());
}

TEST_F(UserFileAttributionTest, EventsOfAnExitedContainerAreDropped) {
    Notify(MakeContainer("cid-1", "web", "sha256:img", "myapp:1", kRoot, false));
    ExpectNoAlarm(kRoot + "/etc/passwd", 0x2, 0);
    EXPECT_EQ(1u, Logs()
                      .Exactly("Docker file not match cache index. index=0, path=" + kRoot +
                               "/etc/passwd")
                      .size())
        << Logs().Dump();
    // The container comes back with a new index; the old one stays dead.
    Notify(MakeContainer("cid-1", "web", "sha256:img", "myapp:1", kRoot));
    ExpectNoAlarm(kRoot + "/etc/passwd", 0x2, 0);
    harness.SendFileEvent(kRoot + "/etc/passwd", 0x2, 1);
    EXPECT_EQ("web", WaitAlarm(1)["container_name"].asString());
}

TEST_F(UserFileAttributionTest, EmptyRootMatchesEveryPath) {
    Notify(MakeContainer("cid-2", "rootless", "sha256:x", "myapp:2", ""));
    harness.SendFileEvent("/anything/at/all", 0x4, 1);
    Json::Value doc = WaitAlarm(1);
    EXPECT_EQ("/anything/at/all", doc["file_info"][0]["file_path"].asString());
    EXPECT_EQ(1, doc["file_info"][0]["file_operation"].asInt());
}

TEST_F(UserFileAttributionTest, PolicyChangesDoNotStopAlarmsOfCachedContainers) {
    Policy(R"({"content":{"rules":[]}})");
    harness.SendFileEvent(kRoot + "/etc/passwd", 0x200, 0);
    EXPECT_EQ(3, WaitAlarm(1)["file_info"][0]["file_operation"].asInt());
}

}  // namespace
}  // namespace DockerFileHarness
