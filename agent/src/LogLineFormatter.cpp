#include "agent/LogLineFormatter.h"

#include <Poco/Timestamp.h>

#include <charconv>
#include <cstdint>
#include <ctime>

namespace Agent {

namespace {
const char* PriorityName(Poco::Message::Priority prio) {
    static const char* const kNames[] = {"",       "Fatal",       "Critical", "Error", "Warning",
                                         "Notice", "Information", "Debug",    "Trace"};
    const int index = static_cast<int>(prio);
    return index >= 1 && index <= 8 ? kNames[index] : "";
}

template <typename Integer>
void AppendInteger(std::string& out, Integer value) {
    char digits[24];
    const auto result = std::to_chars(digits, digits + sizeof(digits), value);
    out.append(digits, result.ptr);
}

// "YYYY-mm-dd HH:MM:SS" of a second since the epoch, remembered for the next record of the
// same second on this thread.
const std::string& SecondText(int64_t second) {
    thread_local int64_t cachedSecond = -1;
    thread_local std::string cachedText;
    if (second == cachedSecond) return cachedText;
    const std::time_t t = static_cast<std::time_t>(second);
    std::tm utc{};
    gmtime_r(&t, &utc);
    char buffer[32];
    const std::size_t n = std::strftime(buffer, sizeof(buffer), "%Y-%m-%d %H:%M:%S", &utc);
    cachedText.assign(buffer, n);
    cachedSecond = second;
    return cachedText;
}
}  // namespace

void LogLineFormatter::format(const Poco::Message& msg, std::string& text) {
    const Poco::Timestamp::TimeVal micros = msg.getTime().epochMicroseconds();
    const int64_t second = micros >= 0 ? micros / 1000000 : (micros - 999999) / 1000000;
    const auto millis = static_cast<unsigned>((micros - second * 1000000) / 1000);
    text.reserve(text.size() + 64 + msg.getSource().size() + msg.getText().size());
    text += SecondText(second);
    text += '.';
    text += static_cast<char>('0' + millis / 100);
    text += static_cast<char>('0' + millis / 10 % 10);
    text += static_cast<char>('0' + millis % 10);
    text += " [";
    text += PriorityName(msg.getPriority());
    text += "] ";
    text += msg.getSource();
    text += ' ';
    if (msg.getSourceFile() != nullptr) text += msg.getSourceFile();
    text += ':';
    AppendInteger(text, msg.getSourceLine());
    text += ": ";
    text += msg.getText();
}

}  // namespace Agent
