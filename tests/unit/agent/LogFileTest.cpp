// The agent's log file: records gathered and written in batches, never out of order, never
// held back past a short delay, written to the file they were logged for, and formatted as
// they always were.
#include <Poco/AutoPtr.h>
#include <Poco/FileChannel.h>
#include <Poco/Message.h>
#include <Poco/PatternFormatter.h>
#include <Poco/Timestamp.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "agent/LogLineFormatter.h"
#include "agent/ReopenableFileChannel.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

using TestSupport::FileText;
using TestSupport::WaitUntil;

class ReopenableFileChannelTest : public ::testing::Test {
protected:
    void SetUp() override {
        Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(path_));
        file->setProperty("flush", "true");
        channel_ = new Agent::ReopenableFileChannel(file);
        channel_->open();
    }
    void Log(const std::string& text, Poco::Message::Priority prio) {
        channel_->log(Poco::Message("test", text, prio));
    }

    TestSupport::TempDir tmp_;
    std::string path_ = tmp_.Path() + "/agent.log";
    Poco::AutoPtr<Agent::ReopenableFileChannel> channel_;
};

TEST_F(ReopenableFileChannelTest, GatheredRecordsReachTheFileByThemselvesAndANoticeAtOnce) {
    std::vector<std::string> expected;
    for (int i = 0; i < 1000; ++i) {
        expected.push_back("info " + std::to_string(i));
        Log(expected.back(), Poco::Message::PRIO_INFORMATION);
    }
    ASSERT_TRUE(WaitUntil([&] { return FileText::Lines(path_) == expected; }));
    Log("first", Poco::Message::PRIO_DEBUG);
    Log("second", Poco::Message::PRIO_INFORMATION);
    Log("stopping", Poco::Message::PRIO_NOTICE);
    // No wait: the notice and everything gathered before it are in the file when log() returns.
    expected.insert(expected.end(), {"first", "second", "stopping"});
    EXPECT_EQ(FileText::Lines(path_), expected);
}

TEST_F(ReopenableFileChannelTest, RecordsGatheredBeforeAReopenStayWithTheOldFile) {
    Log("before rotation", Poco::Message::PRIO_INFORMATION);
    ASSERT_EQ(::rename(path_.c_str(), (path_ + ".1").c_str()), 0);
    std::string error;
    ASSERT_TRUE(channel_->Reopen(error)) << error;
    Log("after rotation", Poco::Message::PRIO_WARNING);
    EXPECT_EQ(FileText::Lines(path_ + ".1"), std::vector<std::string>{"before rotation"});
    EXPECT_EQ(FileText::Lines(path_), std::vector<std::string>{"after rotation"});
}

TEST(LogLineFormatter, WritesWhatThePatternFormatterWrote) {
    Poco::AutoPtr<Poco::PatternFormatter> pattern(
        new Poco::PatternFormatter("%Y-%m-%d %H:%M:%S.%i [%p] %s %U:%u: %t"));
    Poco::AutoPtr<Agent::LogLineFormatter> lines(new Agent::LogLineFormatter());
    const Poco::Timestamp::TimeVal times[] = {0, 1700000000123456, 1700000000999999,
                                              1700000001000000, 4102444799999000};
    for (const auto micros : times) {
        for (int prio = Poco::Message::PRIO_FATAL; prio <= Poco::Message::PRIO_TRACE; ++prio) {
            for (const bool located : {true, false}) {  // with the logging source line or not
                Poco::Message msg("dockerfile_module", "Docker file text: 100%",
                                  static_cast<Poco::Message::Priority>(prio));
                if (located) msg.setSourceFile("UserFileMonitor.cpp");
                if (located) msg.setSourceLine(142);
                msg.setTime(Poco::Timestamp(micros));
                std::string expected;
                std::string got;
                pattern->format(msg, expected);
                lines->format(msg, got);
                EXPECT_EQ(got, expected);
            }
        }
    }
}

}  // namespace
