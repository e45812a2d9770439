// The alarm outputs' own parts: the spool each output keeps on disk, the worker that feeds an
// output from it, and the report module that takes the alarms.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "framework/Counters.h"
#include "framework/DataMessage.h"
#include "report/DataCommModule.h"
#include "report/DataCommReportTask.h"
#include "report/FileSink.h"
#include "report/SinkTask.h"
#include "report/Spool.h"
#include "sdk/ConfigUtils.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/ServiceModule.h"
#include "support/TaskHost.h"
#include "support/TempDir.h"

namespace {

using Report::Spool;
using TestSupport::FileText;
using TestSupport::WaitUntil;
using Lines = std::vector<std::string>;
constexpr auto kOk = Spool::AppendResult::kOk;

// A small alarm-like JSON document numbered n.
std::string Doc(int n, std::size_t pad = 0) {
    return "{\"n\":" + std::to_string(n) + ",\"pad\":\"" + std::string(pad, 'x') + "\"}";
}

// Doc(from, pad) .. Doc(to - 1, pad).
Lines Docs(int from, int to, std::size_t pad = 0) {
    Lines docs;
    for (int n = from; n < to; ++n) docs.push_back(Doc(n, pad));
    return docs;
}

// A spool opened in `dir`; the test fails when it cannot be opened.
std::unique_ptr<Spool> OpenSpool(const std::string& dir, uint64_t maxBytes = 1 << 20) {
    auto spool = std::make_unique<Spool>(dir, maxBytes);
    std::string error;
    EXPECT_TRUE(spool->Open(error)) << error;
    return spool;
}

// The segment files, oldest first.
Lines Segments(const std::string& dir) {
    Lines paths;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().extension() == ".seg") paths.push_back(entry.path().string());
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

// One Append per line, as single alarms arrive.
void Fill(Spool& spool, const Lines& lines) {
    for (const auto& line : lines) ASSERT_EQ(spool.Append(line), kOk) << line;
}

// Reads and commits everything, `batch` lines at a time.
Lines DrainAll(Spool& spool, std::size_t batch, uint64_t* corrupt = nullptr) {
    Lines all;
    uint64_t bad = 0;
    for (Lines lines; !(lines = spool.Peek(batch, 1 << 20, bad)).empty();) {
        all.insert(all.end(), lines.begin(), lines.end());
        spool.Commit(lines.size());
    }
    if (corrupt != nullptr) *corrupt = bad;
    return all;
}

class SpoolTest : public ::testing::Test {
protected:
    std::unique_ptr<Spool> Open(uint64_t maxBytes = 1 << 20) { return OpenSpool(dir_, maxBytes); }

    TestSupport::TempDir tmp_;
    std::string dir_ = tmp_.Path() + "/spool/file";
};

// The sink may take part of what it read; what it took stays gone across a restart, what it
// did not take (or only read) comes back, in order and across segments.
TEST_F(SpoolTest, OnlyCommittedLinesGoAndARestartResumesAtTheFirstOneNotCommitted) {
    uint64_t corrupt = 0;
    {
        auto spool = Open(64 * 1024);  // 8 KiB segments: several
        Fill(*spool, Docs(0, 300, 50));
        EXPECT_GT(Segments(dir_).size(), 2u);
        EXPECT_EQ(spool->Peek(4, 1 << 20, corrupt).size(), 4u);
        spool->Commit(2);
        spool->Commit(spool->Peek(150, 1 << 20, corrupt).size());  // into the second segment
        spool->Peek(30, 1 << 20, corrupt);  // read but never committed: must come back
    }
    auto spool = Open(64 * 1024);
    Fill(*spool, Docs(300, 320, 50));
    EXPECT_EQ(DrainAll(*spool, 7, &corrupt), Docs(152, 320, 50));
    EXPECT_EQ(corrupt, 0u);
    EXPECT_TRUE(spool->Empty());
    EXPECT_LE(Segments(dir_).size(), 1u);
}

// A process that dies without closing the spool (no destructor, cursor maybe not recorded):
// the next start may deliver the last lines again, but never skips or garbles one, also right
// after the spool emptied itself.
TEST_F(SpoolTest, ACrashRepeatsTheLastLinesButNeverSkipsOne) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        Spool* spool = new Spool(dir_, 64 << 20);  // never deleted: the crash
        std::string error;
        if (!spool->Open(error)) ::_exit(2);
        uint64_t corrupt = 0;
        for (int i = 0; i < 40000; ++i) spool->Append(Doc(i, 100));  // past the truncation size
        while (!spool->Peek(500, 1 << 20, corrupt).empty()) spool->Commit(500);
        for (int i = 40000; i < 40010; ++i) spool->Append(Doc(i, 100));
        spool->Peek(4, 1 << 20, corrupt);
        spool->Commit(4);
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    auto spool = Open(64 << 20);
    uint64_t corrupt = 0;
    const Lines lines = DrainAll(*spool, 100, &corrupt);
    EXPECT_EQ(corrupt, 0u);
    ASSERT_GE(lines.size(), 6u);
    ASSERT_LE(lines.size(), 10u);
    EXPECT_EQ(lines, Docs(static_cast<int>(40010 - lines.size()), 40010, 100));
}

// What a crash can leave on disk is cut, skipped and counted, or clamped at the next open;
// none of it is ever delivered, and new lines follow.
TEST_F(SpoolTest, WhatACrashLeftOnDiskIsNeverDelivered) {
    const std::string zeroed = std::string(40, '\0') + "\n{\"n\":\n";
    const struct {
        const char* what;
        std::string segmentTail, cursor;
        uint64_t cut, corrupt;
        Lines lines;
    } cases[] = {
        {"a torn last line", "{\"n\":5,\"pad\":\"xx", "", 16, 0, {Doc(0), Doc(1)}},
        {"a zeroed block, then half a document", zeroed, "", 0, 2, {Doc(0), Doc(1)}},
        // The cursor is only ever recorded after a commit: what it passed was delivered.
        {"a cursor beyond the data", "", "0 999999\n", 0, 0, {Doc(1)}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(TestSupport::TempDir::RemoveTree(dir_));
        Fill(*Open(), {Doc(0)});
        ASSERT_TRUE(FileText::Append(Segments(dir_).back(), c.segmentTail));
        if (!c.cursor.empty()) {
            ASSERT_TRUE(FileText::Write(dir_ + "/cursor", c.cursor));
        }
        auto spool = Open();
        EXPECT_EQ(spool->CutAtOpen(), c.cut);
        Fill(*spool, {Doc(1)});
        uint64_t corrupt = 0;
        EXPECT_EQ(DrainAll(*spool, 100, &corrupt), c.lines);
        EXPECT_EQ(corrupt, c.corrupt);
    }
}

// Two agents on one spool would deliver its lines twice.
TEST_F(SpoolTest, ADirectoryInUseIsRefusedWithTheReason) {
    auto first = Open();
    Spool second(dir_, 1 << 20);
    std::string error;
    EXPECT_FALSE(second.Open(error));
    EXPECT_NE(error.find("in use"), std::string::npos) << error;
    first.reset();
    EXPECT_TRUE(second.Open(error)) << error;
}

// The report module as the agent runs it, writing alarms to sink_ (spooled under the scratch
// directory).
class DataCommModuleTest : public ::testing::Test {
protected:
    void SetUp() override { UseFile(tmp_ / "alarms.jsonl"); }
    void TearDown() override {
        Stop();
        SDK::ConfigUtils::Clear();
    }
    void UseFile(const std::string& path) {
        sink_ = path;
        SDK::ConfigUtils::Set("report.file", sink_);
        SDK::ConfigUtils::Set("report.spool.dir", tmp_ / "spool");
    }
    void Start() {
        ASSERT_TRUE(module_.Start(new Report::DataCommModule())) << module_.Error();
        task_ = module_.Get()->FindTask(Report::DataCommReportTask::kTaskName);
        ASSERT_NE(task_, nullptr);
        Mark();
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
    // The counters are the process's own: each test looks at what it added since Mark().
    void Mark() { base_ = Framework::Counters::Instance().Snapshot(); }
    uint64_t Added(const std::string& name) {
        return Framework::Counters::Instance().Value("report." + name) - base_["report." + name];
    }

    TestSupport::TempDir tmp_;
    std::string sink_;
    TestSupport::ServiceModule module_;
    Framework::Task* task_ = nullptr;
    std::map<std::string, uint64_t> base_;
};

// Every valid alarm is one line, in arrival order. Then rotation: the file moved away and SIGHUP
// (hooked by the module: it must not end the process) send the next alarm to a new file.
TEST_F(DataCommModuleTest, EveryValidAlarmBecomesOneLineCountedByClassAndSighupReopensTheFile) {
    Start();
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
    for (const char* doc : {R"({"event_classid":"dockerfile_002","file_info":[{"a":1}]})",
                            R"({"resource_info":{"event_classid":"dockerfile_001"}})",
                            R"({"event_classid":["dockerfile_001"]})",
                            R"({"event_classid":"made_up_by_a_sender"})"}) {
        Send(doc);
        expected.push_back(doc);
    }
    ASSERT_TRUE(WaitForLines(expected.size()));
    EXPECT_EQ(FileText::Lines(sink_), expected);
    EXPECT_EQ(Added("alarms.invalid"), 3u);
    EXPECT_EQ(Added("alarms.class.dockerfile_002"), 1u);
    EXPECT_EQ(Added("alarms.class.other"), expected.size() - 1);
    EXPECT_EQ(Added("alarms.class.dockerfile_001"), 0u);
    EXPECT_EQ(Added("alarms.class.made_up_by_a_sender"), 0u);

    ASSERT_EQ(::rename(sink_.c_str(), (sink_ + ".1").c_str()), 0);
    ASSERT_EQ(::raise(SIGHUP), 0);
    Send(Doc(100));
    ASSERT_TRUE(WaitForLines(1));
    EXPECT_EQ(FileText::Lines(sink_ + ".1"), expected);
    EXPECT_EQ(FileText::Lines(sink_), Lines{Doc(100)});
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

// A pipe nobody reads yet (the output is down, its open must not block): what does not fit in
// the spool meanwhile is counted as lost. Then a reader takes what the pipe holds now and then,
// so that attempts take part of a batch, or half a line.
TEST_F(DataCommModuleTest, AnOutageBacksOffOverflowIsCountedAndPartialTakesLoseNothing) {
    const std::string fifo = tmp_ / "alarms.fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    Mark();
    TestSupport::TaskHost host("outputs");
    auto* output = host.Add(new Report::SinkTask(std::make_unique<Report::FileSink>(fifo),
                                                 OpenSpool(tmp_ / "output-spool", 128 * 1024)));
    ASSERT_NE(output, nullptr);
    const auto start = std::chrono::steady_clock::now();
    Lines offered = Docs(0, 200, 997);  // 200 KiB offered, 64 KiB fit in the pipe
    // One alarm alone past the bound: refused without stopping the smaller ones after it.
    offered.insert(offered.begin() + 1, Doc(1000, 200000));
    const std::size_t kept = output->Offer(offered);
    EXPECT_EQ(Added("file.spool.overflow"), offered.size() - kept);
    offered.erase(offered.begin() + 1);
    std::string expected;  // the oldest kept, the newest refused
    for (std::size_t i = 0; i < kept; ++i) expected += offered[i] + "\n";
    EXPECT_LT(kept, 200u);
    EXPECT_GT(expected.size(), 100u * 1024);  // more than the pipe holds
    EXPECT_LE(expected.size(), 128u * 1024);
    // Retries 100, 200 and 400 ms apart, not back to back.
    ASSERT_TRUE(WaitUntil([&] { return Added("file.attempts_failed") >= 4; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(650));

    const int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    std::string all;
    EXPECT_TRUE(WaitUntil([&] {
        char buf[65536];
        for (ssize_t n; (n = ::read(reader, buf, sizeof(buf))) > 0;) all.append(buf, n);
        return all.size() >= expected.size();
    }));
    ::close(reader);
    EXPECT_EQ(all, expected);
    EXPECT_TRUE(WaitUntil([&] { return Added("alarms.written") == kept; }));
    EXPECT_TRUE(output->Offer(Doc(1001)));  // delivered lines made room again
}

}  // namespace
