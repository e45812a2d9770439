#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Format.h>
#include <Poco/Message.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "sdk/Log.h"
#include "sdk/LogEscapingChannel.h"
#include "sdk/LoggerUtils.h"

namespace {

using SDK::LogEscapingChannel;

class Recorder : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override {
        std::lock_guard<std::mutex> lock(mutex);
        records.push_back(msg);
    }
    std::mutex mutex;  // guards records
    std::vector<Poco::Message> records;
};

TEST(LogEscaping, EveryControlByteBecomesAnEscapeAndNothingElseChanges) {
    const char raw[] = "a\nb\rc\td\x1b[31m\x7f\0\x01\x1f";
    EXPECT_EQ(LogEscapingChannel::Escape(std::string(raw, sizeof raw - 1)),
              "a\\nb\\rc\\td\\x1b[31m\\x7f\\x00\\x01\\x1f");
    // Printable ASCII, backslashes and UTF-8 pass as they are.
    const std::string plain = "/etc/pass wd \\n ~ \xc3\xa9t\xc3\xa9 \xe2\x82\xac";
    EXPECT_EQ(LogEscapingChannel::Escape(plain), plain);
    for (int byte = 0; byte < 256; ++byte) {
        const std::string escaped = LogEscapingChannel::Escape(std::string(1, char(byte)));
        const bool control = byte < 0x20 || byte == 0x7f;
        EXPECT_EQ(escaped.size() > 1, control) << byte;
        for (char c : escaped) {
            EXPECT_FALSE(static_cast<unsigned char>(c) < 0x20 || c == 0x7f) << byte;
        }
    }
}

// Records are formatted without Poco::format where they can be; the text must be the one it
// gives, and whatever the plain formatter does not take must still reach Poco::format. The
// escaping of what a configured logger passes on is the end-to-end test's (a hostile file name).
TEST(LogRecordText, EqualsPocoFormatForEveryPlaceholderAndFallsBackForTheRest) {
    Poco::AutoPtr<Recorder> recorder(new Recorder());
    SDK::LoggerUtils::GetInstance()->Configure(recorder, Poco::Message::PRIO_DEBUG);
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("format_test", true);
    const std::string s = "a%sb";
    const std::size_t z = 18446744073709551615ul;
    std::vector<std::string> want;
    auto both = [&](const char* fmt, const auto&... args) {
        want.push_back(Poco::format(fmt, args...));
        TW_LOG(logger, PRIO_INFORMATION, fmt, args...);
    };
    both("plain %s|%d|%ld|%u|%lu|%z|%b|%b|100%%", s, -2147483647 - 1, -5l, 4294967295u, 7ul, z,
         true, false);
    both("%d", s);                             // wrong type
    both("%s %s", s);                          // an argument missing
    both("%5d|%-3s|%x|%?d|%[1]s%[0]d", 1, s);  // width, flag, other conversions, index
    both("trailing %l", 1l);
    both("extra", s);

    std::lock_guard<std::mutex> lock(recorder->mutex);
    ASSERT_EQ(recorder->records.size(), want.size());
    for (std::size_t i = 0; i < want.size(); ++i)
        EXPECT_EQ(recorder->records[i].getText(), want[i]);
    EXPECT_EQ(want[0], "plain a%sb|-2147483648|-5|4294967295|7|18446744073709551615|1|0|100%");
    EXPECT_EQ(recorder->records[0].getPid(), static_cast<long>(::getpid()));
    EXPECT_EQ(recorder->records[0].getSource(), "format_test");
    EXPECT_STREQ(recorder->records[0].getSourceFile(), "LogEscapingTest.cpp");
}

}  // namespace
