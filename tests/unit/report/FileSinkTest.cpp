#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "TestFiles.h"
#include "report/FileSink.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

using ReportTest::Doc;
using TestSupport::FileText;
using TestSupport::TempDir;
using Lines = std::vector<std::string>;

bool AllValidJson(const std::string& path) {
    const std::string all = FileText::Read(path);
    if (!all.empty() && all.back() != '\n') return false;
    for (const std::string& line : FileText::Lines(path)) {
        Json::Value root;
        Json::CharReaderBuilder builder;
        std::string errors;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        if (!reader->parse(line.data(), line.data() + line.size(), &root, &errors)) return false;
    }
    return true;
}

class FileSinkTest : public ::testing::Test {
protected:
    TempDir tmp_;
    std::string path_ = tmp_.Path() + "/log/tarnwick/alarms.jsonl";
};

TEST_F(FileSinkTest, LinesAreAppendedInOrderAndTheDirectoryIsCreated) {
    Report::FileSink sink(path_);
    ASSERT_TRUE(sink.IsOpen());
    EXPECT_EQ(sink.Deliver({Doc(0), Doc(1)}).delivered, 2u);
    EXPECT_EQ(sink.Deliver({Doc(2)}).delivered, 1u);
    EXPECT_EQ(FileText::Lines(path_), (Lines{Doc(0), Doc(1), Doc(2)}));
}

TEST_F(FileSinkTest, AFullDiskLeavesOnlyWholeLinesAndTheRestFollowsLater) {
    Report::FileSink sink(path_);
    ASSERT_EQ(sink.Deliver({Doc(0, 100)}).delivered, 1u);
    struct stat st;
    ASSERT_EQ(::stat(path_.c_str(), &st), 0);
    const Lines batch = {Doc(1, 100), Doc(2, 100), Doc(3, 100)};
    Report::DeliveryResult cut;
    {
        // Room for one more line and a half.
        ReportTest::FileSizeCap cap(static_cast<rlim_t>(st.st_size) + 170);
        cut = sink.Deliver(batch);
        EXPECT_TRUE(AllValidJson(path_));  // no half line stands in the file, even while full
        EXPECT_FALSE(sink.Deliver({Doc(2, 100)}).error.empty());
    }
    EXPECT_EQ(cut.delivered, 1u);
    EXPECT_FALSE(cut.error.empty());
    EXPECT_EQ(sink.Deliver({Doc(2, 100), Doc(3, 100)}).delivered, 2u);
    EXPECT_EQ(FileText::Lines(path_), (Lines{Doc(0, 100), Doc(1, 100), Doc(2, 100), Doc(3, 100)}));
}

TEST_F(FileSinkTest, ADeletedMovedOrReplacedFileIsOpenedAnewWithoutBeingTold) {
    Report::FileSink sink(path_);
    sink.Deliver({Doc(0)});
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    sink.Poll();
    sink.Deliver({Doc(1)});
    EXPECT_EQ(FileText::Lines(path_), (Lines{Doc(1)}));

    ASSERT_EQ(::rename(path_.c_str(), (path_ + ".1").c_str()), 0);  // rotation without SIGHUP
    sink.Deliver({Doc(2)});
    EXPECT_EQ(FileText::Lines(path_ + ".1"), (Lines{Doc(1)}));
    EXPECT_EQ(FileText::Lines(path_), (Lines{Doc(2)}));

    // Replaced by rename (what editors and log shippers do): the new file gets the next lines.
    std::ofstream(path_ + ".new") << Doc(100) << "\n";
    ASSERT_EQ(::rename((path_ + ".new").c_str(), path_.c_str()), 0);
    sink.Poll();
    sink.Deliver({Doc(3)});
    EXPECT_EQ(FileText::Lines(path_), (Lines{Doc(100), Doc(3)}));
}

TEST_F(FileSinkTest, AnUnopenablePathFailsTheAttemptAndRecoversWhenItCanBeOpened) {
    const std::string blocker = tmp_.Path() + "/blocked";
    std::ofstream(blocker) << "x";
    Report::FileSink sink(blocker + "/alarms.jsonl");
    EXPECT_FALSE(sink.IsOpen());
    const auto failed = sink.Deliver({Doc(0)});
    EXPECT_EQ(failed.delivered, 0u);
    EXPECT_NE(failed.error.find("blocked"), std::string::npos) << failed.error;
    ASSERT_EQ(::unlink(blocker.c_str()), 0);
    EXPECT_EQ(sink.Deliver({Doc(0)}).delivered, 1u);
    EXPECT_EQ(FileText::Lines(blocker + "/alarms.jsonl"), (Lines{Doc(0)}));
}

class FileSinkFifo : public FileSinkTest {
protected:
    void SetUp() override { ASSERT_EQ(::mkfifo(fifo_.c_str(), 0600), 0); }
    std::string fifo_ = tmp_.Path() + "/alarms.fifo";
};

TEST_F(FileSinkFifo, NoReaderNeitherBlocksNorCountsAnythingDelivered) {
    Report::FileSink sink(fifo_);  // a blocking open would hang here
    EXPECT_EQ(sink.Deliver({Doc(0)}).delivered, 0u);
    const int reader = ::open(fifo_.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    EXPECT_EQ(sink.Deliver({Doc(0)}).delivered, 1u);
    char buf[64] = {};
    const ssize_t n = ::read(reader, buf, sizeof(buf));
    ::close(reader);
    EXPECT_EQ(std::string(buf, n > 0 ? static_cast<std::size_t>(n) : 0), Doc(0) + "\n");
}

TEST_F(FileSinkFifo, AStalledReaderGetsWholeLinesOnly) {
    const int reader = ::open(fifo_.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    Report::FileSink sink(fifo_);
    const Lines batch(100, Doc(0, 997));  // 100 KiB into a 64 KiB pipe
    const auto first = sink.Deliver(batch);
    EXPECT_LT(first.delivered, batch.size());
    EXPECT_FALSE(first.error.empty());
    std::string all;
    char buf[65536];
    const auto drain = [&] {
        for (ssize_t n; (n = ::read(reader, buf, sizeof(buf))) > 0;) all.append(buf, n);
    };
    drain();
    const auto second = sink.Deliver(Lines(batch.begin() + first.delivered, batch.end()));
    drain();
    ::close(reader);
    EXPECT_EQ(first.delivered + second.delivered, batch.size());
    std::string expected;
    for (const auto& line : batch) expected += line + "\n";
    EXPECT_EQ(all, expected);
}

}  // namespace
