// The alarm file output: the sink on its own, and fed from its spool by its worker.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "TestFiles.h"
#include "framework/Counters.h"
#include "report/FileSink.h"
#include "report/SinkWorker.h"
#include "sdk/JsonUtils.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

using ReportTest::Doc;
using ReportTest::Docs;
using ReportTest::Lines;
using TestSupport::FileText;
using TestSupport::WaitUntil;

class FileSinkTest : public ::testing::Test {
protected:
    std::unique_ptr<Report::SinkWorker> StartWorker(const std::string& path, uint64_t spoolBytes) {
        auto worker = std::make_unique<Report::SinkWorker>(
            std::make_unique<Report::FileSink>(path),
            ReportTest::OpenSpool(tmp_.Path() + "/spool", spoolBytes));
        worker->Start();
        return worker;
    }
    uint64_t Count(const std::string& name) { return Framework::Counters::Instance().Value(name); }

    TestSupport::TempDir tmp_;
    std::string path_ = tmp_.Path() + "/log/tarnwick/alarms.jsonl";
};

TEST_F(FileSinkTest, AFullDiskLeavesOnlyWholeLinesAndTheRestFollowsLater) {
    Report::FileSink sink(path_);  // its directories are made
    ASSERT_EQ(sink.Deliver({Doc(0, 100)}).delivered, 1u);
    Report::DeliveryResult cut;
    {
        // Room for one more line and a half.
        ReportTest::FileSizeCap cap(FileText::Read(path_).size() + 170);
        cut = sink.Deliver(Docs(1, 4, 100));
        // No half line stands in the file, even while it is full.
        EXPECT_EQ(FileText::Read(path_).back(), '\n');
        for (const auto& line : FileText::Lines(path_)) {
            EXPECT_TRUE(SDK::JsonUtils::IsJsonObject(line)) << line;
        }
        EXPECT_FALSE(sink.Deliver({Doc(2, 100)}).error.empty());
    }
    EXPECT_EQ(cut.delivered, 1u);
    EXPECT_FALSE(cut.error.empty());
    EXPECT_EQ(sink.Deliver(Docs(2, 4, 100)).delivered, 2u);
    EXPECT_EQ(FileText::Lines(path_), Docs(0, 4, 100));
}

// Replaced by rename (what editors and log shippers do), without a SIGHUP: the new file gets
// the next lines.
TEST_F(FileSinkTest, AReplacedFileIsOpenedAnewWithoutBeingTold) {
    Report::FileSink sink(path_);
    sink.Deliver({Doc(1)});
    ASSERT_TRUE(FileText::Write(path_ + ".new", Doc(100) + "\n"));
    ASSERT_EQ(::rename((path_ + ".new").c_str(), path_.c_str()), 0);
    sink.Poll();
    sink.Deliver({Doc(2)});
    EXPECT_EQ(FileText::Lines(path_), (Lines{Doc(100), Doc(2)}));
}

// A pipe nobody reads yet (the output is down, its open must not block), then a reader taking
// what the pipe holds now and then, so that attempts take part of a batch, or half a line.
TEST_F(FileSinkTest, AnOutageAndPartialTakesBackOffAndNeitherLoseNorReorderNorDuplicate) {
    const std::string fifo = tmp_.Path() + "/alarms.fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const uint64_t failedBefore = Count("report.file.attempts_failed");
    const uint64_t writtenBefore = Count("report.alarms.written");
    auto worker = StartWorker(fifo, 1 << 20);
    const auto start = std::chrono::steady_clock::now();
    const Lines sent = Docs(0, 100, 997);  // 100 KiB into a 64 KiB pipe
    EXPECT_EQ(worker->Offer(sent), sent.size());
    // Retries 100, 200 and 400 ms apart, not back to back.
    ASSERT_TRUE(
        WaitUntil([&] { return Count("report.file.attempts_failed") >= failedBefore + 4; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(650));

    const int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    std::string expected;
    for (const auto& line : sent) expected += line + "\n";
    std::string all;
    EXPECT_TRUE(WaitUntil([&] {
        char buf[65536];
        for (ssize_t n; (n = ::read(reader, buf, sizeof(buf))) > 0;) all.append(buf, n);
        return all.size() >= expected.size();
    }));
    ::close(reader);
    EXPECT_EQ(all, expected);
    EXPECT_TRUE(WaitUntil([&] { return Count("report.alarms.written") == writtenBefore + 100; }));
}

TEST_F(FileSinkTest, WhatOverflowsTheSpoolIsCountedAndTheRestArrives) {
    const std::string blocker = tmp_.File("blocked", "x");  // the output is down
    const uint64_t overflowBefore = Count("report.file.spool.overflow");
    auto worker = StartWorker(blocker + "/alarms.jsonl", 16 * 1024);
    Lines kept;
    for (const auto& doc : Docs(0, 400, 100)) {
        if (worker->Offer(doc)) kept.push_back(doc);
    }
    EXPECT_LT(kept.size(), 400u);
    EXPECT_EQ(Count("report.file.spool.overflow"), overflowBefore + 400 - kept.size());
    ASSERT_EQ(::unlink(blocker.c_str()), 0);
    EXPECT_TRUE(WaitUntil([&] { return FileText::Lines(blocker + "/alarms.jsonl") == kept; }));
}

}  // namespace
