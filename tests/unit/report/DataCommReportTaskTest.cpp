#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "TestFiles.h"
#include "framework/Counters.h"
#include "framework/DataMessage.h"
#include "report/DataCommModule.h"
#include "report/DataCommReportTask.h"
#include "sdk/ConfigUtils.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/ServiceModule.h"
#include "support/TempDir.h"

namespace {

using ReportTest::Doc;
using ReportTest::Docs;
using ReportTest::Lines;
using TestSupport::FileText;
using TestSupport::WaitUntil;

class DataCommModuleTest : public ::testing::Test {
protected:
    void SetUp() override {
        UseFile(tmp_.Path() + "/alarms.jsonl");
        SDK::ConfigUtils::Set("report.spool.dir", tmp_.Path() + "/spool");
    }
    void TearDown() override {
        Stop();
        SDK::ConfigUtils::Clear();
    }
    void UseFile(const std::string& path) {
        sink_ = path;
        SDK::ConfigUtils::Set("report.file", sink_);
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
    bool WaitForLines(std::size_t n) {
        return WaitUntil([&] { return FileText::Lines(sink_).size() == n; });
    }
    uint64_t Alarms(const std::string& counter) {
        return Framework::Counters::Instance().Value("report.alarms." + counter);
    }

    TestSupport::TempDir tmp_;
    std::string sink_;
    TestSupport::ServiceModule module_;
    Framework::Task* task_ = nullptr;
};

TEST_F(DataCommModuleTest, EveryValidAlarmBecomesOneLineInArrivalOrderCountedByClass) {
    Start();
    const uint64_t invalid = Alarms("invalid");
    const uint64_t known = Alarms("class.dockerfile_002");
    const uint64_t other = Alarms("class.other");
    Lines expected = Docs(0, 100);
    for (const auto& doc : expected) Send(doc);
    // Not one strict JSON object each: dropped (the checker has its own tests).
    for (const char* bad :
         {"not json", "{\"cut\":", R"({"event_classid":"dockerfile_001"} {"x":1})"}) {
        Send(bad);
    }
    Send("{\n  \"pretty\": true\n}");  // a document over several lines stays one line
    expected.push_back("{   \"pretty\": true }");
    // Only a class the agent raises, at the top level, is counted by name: a sender cannot grow
    // the set of counters.
    for (const char* doc :
         {R"({"event_classid":"dockerfile_002","file_info":[{"a":1}]})",
          R"({"resource_info":{"event_classid":"dockerfile_001"}})",
          R"({"event_classid":["dockerfile_001"]})",
          R"({"event_classid":"made_up_by_a_sender","n":2})", R"({"event_classid":7,"n":3})"}) {
        Send(doc);
        expected.push_back(doc);
    }
    ASSERT_TRUE(WaitForLines(expected.size()));
    EXPECT_EQ(FileText::Lines(sink_), expected);
    EXPECT_EQ(Alarms("invalid"), invalid + 3);
    EXPECT_EQ(Alarms("class.dockerfile_002"), known + 1);
    EXPECT_EQ(Alarms("class.other"), other + expected.size() - 1);
    EXPECT_EQ(Alarms("class.dockerfile_001"), 0u);
    EXPECT_EQ(Alarms("class.made_up_by_a_sender"), 0u);
}

std::atomic<int> gEarlierHangups{0};
void CountHangup(int) { gEarlierHangups.fetch_add(1); }

// The host process may hook SIGHUP before the module (the agent reopens its log on it): its
// handler keeps getting the signal, and gets it back when the module stops.
TEST_F(DataCommModuleTest, SighupReopensTheFileAfterRotationAndStillReachesAnEarlierHandler) {
    struct sigaction saved {};
    ASSERT_EQ(::sigaction(SIGHUP, nullptr, &saved), 0);
    for (const bool hooked : {false, true}) {
        SCOPED_TRACE(hooked ? "hooked before the module" : "not hooked before");
        if (hooked) {
            struct sigaction earlier {};
            earlier.sa_handler = CountHangup;
            sigemptyset(&earlier.sa_mask);
            ASSERT_EQ(::sigaction(SIGHUP, &earlier, nullptr), 0);
        }
        UseFile(tmp_.Path() + (hooked ? "/hooked.jsonl" : "/alarms.jsonl"));
        Start();
        Send(Doc(1));
        ASSERT_TRUE(WaitForLines(1));
        ASSERT_EQ(::rename(sink_.c_str(), (sink_ + ".1").c_str()), 0);
        ASSERT_EQ(::raise(SIGHUP), 0);  // hooked by the module: must not end the process
        EXPECT_EQ(gEarlierHangups.load(), hooked ? 1 : 0);
        Send(Doc(2));
        ASSERT_TRUE(WaitForLines(1));
        EXPECT_EQ(FileText::Lines(sink_ + ".1"), Lines{Doc(1)});
        EXPECT_EQ(FileText::Lines(sink_), Lines{Doc(2)});
        Stop();
    }
    ASSERT_EQ(::raise(SIGHUP), 0);
    EXPECT_EQ(gEarlierHangups.load(), 2);
    ::sigaction(SIGHUP, &saved, nullptr);
}

// The alarm file's directory is blocked by a plain file: nothing can be written, across a
// restart too, until it is unblocked while the module runs. What is still queued when the
// module stops is written before it goes.
TEST_F(DataCommModuleTest, AlarmsTheFileCouldNotTakeSurviveARestartAndQueuedOnesAStop) {
    const std::string blocker = tmp_.File("out", "x");
    UseFile(blocker + "/alarms.jsonl");
    Start();
    for (int i = 0; i < 25; ++i) Send(Doc(i));
    Stop();
    Start();
    for (int i = 25; i < 50; ++i) Send(Doc(i));
    ASSERT_EQ(::unlink(blocker.c_str()), 0);
    ASSERT_TRUE(WaitForLines(50));
    for (int i = 50; i < 500; ++i) Send(Doc(i));
    Stop();
    EXPECT_EQ(FileText::Lines(sink_), Docs(0, 500));
}

TEST_F(DataCommModuleTest, WithoutAFileOutputNothingIsWrittenAndTheLossIsCounted) {
    SDK::ConfigUtils::Set("report.file", "");
    Start();
    const uint64_t before = Alarms("no_output");
    Send(Doc(0));
    ASSERT_TRUE(WaitUntil([&] { return Alarms("no_output") == before + 1; }));
    EXPECT_NE(::access(sink_.c_str(), F_OK), 0);
}

}  // namespace
