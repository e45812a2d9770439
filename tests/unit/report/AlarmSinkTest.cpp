#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "framework/Counters.h"
#include "report/AlarmSink.h"

namespace {

class TempDir {
public:
    TempDir() {
        char templ[] = "/tmp/tarnwick-sink-XXXXXX";
        path_ = ::mkdtemp(templ);
    }
    ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

std::vector<std::string> ReadLines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

TEST(AlarmSinkFile, AppendsOneLinePerAlarmAndCreatesTheDirectory) {
    TempDir dir;
    const std::string path = dir.Path() + "/log/tarnwick/alarms.jsonl";
    {
        Report::AlarmSink sink(path, 1 << 20);
        ASSERT_TRUE(sink.IsOpen()) << sink.LastError();
        EXPECT_TRUE(sink.WriteLine(R"({"event_id":"a"})"));
        EXPECT_TRUE(sink.WriteLine(R"({"event_id":"b"})"));
        // Written at once, not at close: a reader tailing the file sees each alarm.
        EXPECT_EQ(ReadLines(path).size(), 2u);
    }
    {
        Report::AlarmSink again(path, 1 << 20);
        again.WriteLine("third");
    }
    EXPECT_EQ(ReadLines(path), (std::vector<std::string>{R"({"event_id":"a"})",
                                                       R"({"event_id":"b"})", "third"}));
}

TEST(AlarmSinkFile, LineBreaksInsideADocumentNeverSplitIt) {
    EXPECT_EQ(Report::ToSingleLine("{\"a\":\n1,\r\n\"b\":2}"), "{\"a\": 1,  \"b\":2}");
}

TEST(AlarmSinkFile, ReopenFollowsARotatedFile) {
    TempDir dir;
    const std::string path = dir.Path() + "/alarms.jsonl";
    Report::AlarmSink sink(path, 1 << 20);
    sink.WriteLine("before");
    ASSERT_EQ(::rename(path.c_str(), (path + ".1").c_str()), 0);
    sink.WriteLine("still old");  // the old file stays open until told otherwise
    ASSERT_TRUE(sink.Reopen());
    sink.WriteLine("after");
    EXPECT_EQ(ReadLines(path + ".1"), (std::vector<std::string>{"before", "still old"}));
    EXPECT_EQ(ReadLines(path), (std::vector<std::string>{"after"}));
}

TEST(AlarmSinkFile, UnopenablePathKeepsAlarmsUntilItCanBeOpened) {
    TempDir dir;
    const std::string blocker = dir.Path() + "/notadir";
    std::ofstream(blocker) << "x";
    Report::AlarmSink sink(blocker + "/alarms.jsonl", 1 << 20);
    EXPECT_FALSE(sink.IsOpen());
    EXPECT_FALSE(sink.LastError().empty());
    sink.WriteLine("kept");
    EXPECT_EQ(sink.Pending(), 5u);
}

class AlarmSinkFifo : public ::testing::Test {
protected:
    void SetUp() override {
        fifo_ = dir_.Path() + "/sink.fifo";
        ASSERT_EQ(::mkfifo(fifo_.c_str(), 0600), 0);
    }
    TempDir dir_;
    std::string fifo_;
};

TEST_F(AlarmSinkFifo, NoReaderNeitherBlocksNorLosesAlarms) {
    Report::AlarmSink sink(fifo_, 1 << 20);  // would hang here with a blocking open
    EXPECT_FALSE(sink.IsOpen());
    sink.WriteLine("waiting");
    const int reader = ::open(fifo_.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    sink.Flush();
    char buf[64] = {};
    const ssize_t n = ::read(reader, buf, sizeof(buf));
    ::close(reader);
    EXPECT_EQ(std::string(buf, n > 0 ? n : 0), "waiting\n");
}

TEST_F(AlarmSinkFifo, StalledReaderDropsOldestWholeLinesAndCountsThem) {
    const int reader = ::open(fifo_.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    const std::size_t limit = 4096;
    Report::AlarmSink sink(fifo_, limit);
    ASSERT_TRUE(sink.IsOpen());
    const uint64_t droppedBefore = Framework::Counters::Instance().Value("report.sink.dropped");
    const std::string line(999, 'x');
    int written = 0;
    // The pipe takes 64 KiB and then refuses; every later line must return at once.
    for (int i = 0; i < 200; ++i) written += sink.WriteLine(line) ? 1 : 0;
    EXPECT_LE(sink.Pending(), limit);
    EXPECT_LT(written, 200);
    EXPECT_GT(Framework::Counters::Instance().Value("report.sink.dropped"), droppedBefore);

    // What reaches the reader is whole lines only, even across the dropping.
    std::string all;
    char buf[65536];
    for (ssize_t n; (n = ::read(reader, buf, sizeof(buf))) > 0;) all.append(buf, n);
    sink.Flush();
    for (ssize_t n; (n = ::read(reader, buf, sizeof(buf))) > 0;) all.append(buf, n);
    ::close(reader);
    std::istringstream in(all);
    for (std::string got; std::getline(in, got);) ASSERT_EQ(got, line);
}

}  // namespace
