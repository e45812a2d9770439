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
    uint64_t Count(const std::string& name) { return Framework::Counters::Instance().Value(name); }

    TestSupport::TempDir tmp_;
    std::string path_ = tmp_.Path() + "/log/tarnwick/alarms.jsonl";
};

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

// A pipe nobody reads yet (the output is down, its open must not block): what does not fit in
// the spool meanwhile is counted as lost. Then a reader takes what the pipe holds now and then,
// so that attempts take part of a batch, or half a line.
TEST_F(FileSinkTest, AnOutageBacksOffOverflowIsCountedAndPartialTakesLoseNothing) {
    const std::string fifo = tmp_.Path() + "/alarms.fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const uint64_t failedBefore = Count("report.file.attempts_failed");
    const uint64_t overflowBefore = Count("report.file.spool.overflow");
    const uint64_t writtenBefore = Count("report.alarms.written");
    Report::SinkWorker worker(std::make_unique<Report::FileSink>(fifo),
                              ReportTest::OpenSpool(tmp_.Path() + "/spool", 128 * 1024));
    worker.Start();
    const auto start = std::chrono::steady_clock::now();
    std::string expected;
    std::size_t kept = 0;
    for (const auto& doc : Docs(0, 200, 997)) {  // 200 KiB offered, 64 KiB fit in the pipe
        if (!worker.Offer(doc)) continue;
        expected += doc + "\n";
        ++kept;
    }
    EXPECT_LT(kept, 200u);
    EXPECT_GT(expected.size(), 100u * 1024);  // more than the pipe holds
    EXPECT_EQ(Count("report.file.spool.overflow"), overflowBefore + 200 - kept);
    // Retries 100, 200 and 400 ms apart, not back to back.
    ASSERT_TRUE(
        WaitUntil([&] { return Count("report.file.attempts_failed") >= failedBefore + 4; }));
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
    EXPECT_TRUE(WaitUntil([&] { return Count("report.alarms.written") == writtenBefore + kept; }));
}

}  // namespace
