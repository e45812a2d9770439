#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include "TestFiles.h"
#include "framework/Counters.h"
#include "framework/DataMessage.h"
#include "framework/Module.h"
#include "report/AlarmDocument.h"
#include "report/DataCommModule.h"
#include "report/DataCommReportTask.h"
#include "sdk/ConfigUtils.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/ServiceModule.h"
#include "support/TempDir.h"

namespace {

using ReportTest::Doc;
using TestSupport::FileText;
using TestSupport::WaitUntil;

class DataCommModuleTest : public ::testing::Test {
protected:
    void SetUp() override {
        sink_ = tmp_.Path() + "/alarms.jsonl";
        SDK::ConfigUtils::Set("report.file", sink_);
        SDK::ConfigUtils::Set("report.spool.dir", tmp_.Path() + "/spool");
    }
    void TearDown() override {
        Stop();
        SDK::ConfigUtils::Clear();
    }
    void Start() {
        ASSERT_TRUE(module_.Start(new Report::DataCommModule())) << module_.Error();
        task_ = module_.Get()->FindTask(Report::DataCommReportTask::kTaskName);
        ASSERT_NE(task_, nullptr);
    }
    void Stop() {
        module_.Stop();
        task_ = nullptr;
    }
    void Send(const std::string& text) {
        ASSERT_EQ(task_->SendDirectMsg(Report::DataCommReportTask::kTaskName,
                                       new Framework::DataMessage("2", text)),
                  0);
    }
    uint64_t Count(const std::string& name) { return Framework::Counters::Instance().Value(name); }

    TestSupport::TempDir tmp_;
    std::string sink_;
    TestSupport::ServiceModule module_;
    Framework::Task* task_ = nullptr;
};

TEST_F(DataCommModuleTest, EveryAlarmBecomesOneLineInArrivalOrder) {
    Start();
    const uint64_t written = Count("report.alarms.written");
    for (int i = 0; i < 100; ++i) Send(Doc(i));
    Send("{\n  \"pretty\": true\n}");  // a document over several lines stays one line
    ASSERT_TRUE(WaitUntil([&] { return FileText::Lines(sink_).size() == 101; }));
    const auto lines = FileText::Lines(sink_);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(lines[i], Doc(i));
    EXPECT_EQ(lines[100], "{   \"pretty\": true }");
    EXPECT_TRUE(WaitUntil([&] { return Count("report.alarms.written") == written + 101; }));
}

TEST_F(DataCommModuleTest, ADocumentThatIsNotJsonIsDroppedAndCounted) {
    Start();
    const uint64_t invalid = Count("report.alarms.invalid");
    Send("not json");
    Send("{\"cut\":");
    Send(Doc(1));
    ASSERT_TRUE(WaitUntil([&] { return FileText::Lines(sink_).size() == 1; }));
    EXPECT_EQ(FileText::Lines(sink_).front(), Doc(1));
    EXPECT_EQ(Count("report.alarms.invalid"), invalid + 2);
}

TEST_F(DataCommModuleTest, AlarmsQueuedAtShutdownAreStillWritten) {
    Start();
    for (int i = 0; i < 500; ++i) Send(Doc(i));
    Stop();
    EXPECT_EQ(FileText::Lines(sink_).size(), 500u);
}

TEST_F(DataCommModuleTest, SighupReopensTheFileAfterRotation) {
    Start();
    Send(Doc(1));
    ASSERT_TRUE(WaitUntil([&] { return FileText::Lines(sink_).size() == 1; }));
    ASSERT_EQ(::rename(sink_.c_str(), (sink_ + ".1").c_str()), 0);
    ASSERT_EQ(::raise(SIGHUP), 0);  // hooked by the module: must not end the process
    Send(Doc(2));
    ASSERT_TRUE(WaitUntil([&] { return FileText::Lines(sink_).size() == 1; }));
    EXPECT_EQ(FileText::Lines(sink_ + ".1"), std::vector<std::string>{Doc(1)});
    EXPECT_EQ(FileText::Lines(sink_).front(), Doc(2));
}

std::atomic<int> gEarlierHangups{0};
void CountHangup(int) { gEarlierHangups.fetch_add(1); }

TEST_F(DataCommModuleTest, SighupStillReachesTheHandlerInstalledBeforeTheModule) {
    struct sigaction earlier {};
    struct sigaction saved {};
    earlier.sa_handler = CountHangup;
    sigemptyset(&earlier.sa_mask);
    ASSERT_EQ(::sigaction(SIGHUP, &earlier, &saved), 0);
    Start();
    Send(Doc(1));
    ASSERT_TRUE(WaitUntil([&] { return FileText::Lines(sink_).size() == 1; }));
    ASSERT_EQ(::rename(sink_.c_str(), (sink_ + ".1").c_str()), 0);
    ASSERT_EQ(::raise(SIGHUP), 0);
    EXPECT_EQ(gEarlierHangups.load(), 1);  // the host process's own SIGHUP work still happens
    Send(Doc(2));
    EXPECT_TRUE(
        WaitUntil([&] { return FileText::Lines(sink_).size() == 1; }));  // and the file reopens
    Stop();
    // Stopping the module puts the earlier handler back.
    ASSERT_EQ(::raise(SIGHUP), 0);
    EXPECT_EQ(gEarlierHangups.load(), 2);
    ::sigaction(SIGHUP, &saved, nullptr);
}

TEST_F(DataCommModuleTest, ADeletedAlarmFileIsRecreatedWithinASecond) {
    Start();
    Send(Doc(1));
    ASSERT_TRUE(WaitUntil([&] { return FileText::Lines(sink_).size() == 1; }));
    ASSERT_EQ(::unlink(sink_.c_str()), 0);
    const auto deleted = std::chrono::steady_clock::now();
    ASSERT_TRUE(
        WaitUntil([&] { return ::access(sink_.c_str(), F_OK) == 0; }, std::chrono::seconds(5)));
    EXPECT_LT(std::chrono::steady_clock::now() - deleted, std::chrono::seconds(1));
    Send(Doc(2));
    ASSERT_TRUE(WaitUntil([&] { return FileText::Lines(sink_).size() == 1; }));
    EXPECT_EQ(FileText::Lines(sink_).front(), Doc(2));
}

TEST_F(DataCommModuleTest, AlarmsTheFileCouldNotTakeSurviveARestartInOrder) {
    // The alarm file's directory is blocked by a plain file: nothing can be written.
    const std::string blocker = tmp_.Path() + "/out";
    std::ofstream(blocker) << "x";
    sink_ = blocker + "/alarms.jsonl";
    SDK::ConfigUtils::Set("report.file", sink_);
    Start();
    for (int i = 0; i < 50; ++i) Send(Doc(i));
    Stop();
    ASSERT_EQ(::unlink(blocker.c_str()), 0);
    Start();
    Send(Doc(50));
    ASSERT_TRUE(WaitUntil([&] { return FileText::Lines(sink_).size() == 51; }));
    const auto lines = FileText::Lines(sink_);
    for (int i = 0; i <= 50; ++i) EXPECT_EQ(lines[i], Doc(i));
}

TEST_F(DataCommModuleTest, WithoutAFileOutputNothingIsWrittenAndTheLossIsCounted) {
    SDK::ConfigUtils::Set("report.file", "");
    Start();
    const uint64_t before = Count("report.alarms.no_output");
    Send(Doc(0));
    ASSERT_TRUE(WaitUntil([&] { return Count("report.alarms.no_output") == before + 1; }));
    EXPECT_NE(::access(sink_.c_str(), F_OK), 0);
}

TEST_F(DataCommModuleTest, AlarmsAreCountedByClassWithUnknownClassesAsOther) {
    Start();
    const uint64_t first = Count("report.alarms.class.dockerfile_001");
    const uint64_t other = Count("report.alarms.class.other");
    Send(R"({"event_classid":"dockerfile_001","n":1})");
    Send(R"({"event_classid":"made_up_by_a_sender","n":2})");
    Send(R"({"event_classid":7,"n":3})");
    Send("not json");
    ASSERT_TRUE(WaitUntil([&] { return Count("report.alarms.class.other") == other + 2; }));
    EXPECT_EQ(Count("report.alarms.class.dockerfile_001"), first + 1);
    EXPECT_EQ(Count("report.alarms.class.made_up_by_a_sender"), 0u);
}

TEST(AlarmDocument, OnlyOneStrictJsonObjectPassesAndOnlyItsOwnClassCounts) {
    struct Case {
        std::string text;
        bool valid;
        std::string alarmClass;
    };
    const std::string deep = std::string(100, '[') + std::string(100, ']');
    const Case cases[] = {
        {R"({"event_classid":"dockerfile_002","file_info":[{"a":1}]})", true, "dockerfile_002"},
        {R"({"resource_info":{"event_classid":"dockerfile_001"}})", true, "other"},
        {R"({"event_classid":["dockerfile_001"]})", true, "other"},
        {R"({"event_classid":"dockerfile_001"} {"x":1})", false, ""},
        {R"({"event_classid":"dockerfile_001",})", false, ""},
        {"{/* note */\"a\":1}", false, ""},
        {"{\"a\":\"tab\there\"}", false, ""},  // a raw control character in a string
        {R"(["dockerfile_001"])", false, ""},
        {"{\"a\":" + deep + "}", false, ""},
        {"", false, ""},
    };
    for (const Case& c : cases) {
        std::string alarmClass;
        EXPECT_EQ(Report::ReadAlarmClass(c.text, alarmClass), c.valid) << c.text;
        if (c.valid) {
            EXPECT_EQ(alarmClass, c.alarmClass) << c.text;
        }
    }
}

}  // namespace
