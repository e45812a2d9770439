#include "sdk/LoggerUtils.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/NumberParser.h>
#include <Poco/String.h>

#include <cstdlib>
#include <mutex>
#include <vector>

#include "sdk/LogEscapingChannel.h"

namespace SDK {

namespace {
// Guards configuration and the creation of module loggers against each other.
std::mutex gLoggerMutex;
}  // namespace

LoggerUtils* LoggerUtils::GetInstance() {
    static LoggerUtils instance;
    return &instance;
}

void LoggerUtils::Configure(Poco::Channel* channel, int level) {
    std::lock_guard<std::mutex> lock(gLoggerMutex);
    // Poco's setChannel/setLevel on "" reach every logger that exists already; the root logger
    // must be one of them, or loggers created later inherit no channel from it.
    Poco::Logger::root();
    // Every record passes here, so this one place keeps hostile text from forging records.
    Poco::AutoPtr<Poco::Channel> escaping(new LogEscapingChannel(channel));
    Poco::Logger::setChannel("", escaping);
    Poco::Logger::setLevel("", level);
    configured_ = true;
}

int LoggerUtils::ParseLevel(const std::string& text) {
    const std::string t = Poco::toLower(Poco::trim(text));
    static const char* const kNames[] = {"",       "fatal",       "critical", "error", "warning",
                                         "notice", "information", "debug",    "trace"};
    for (int i = 1; i <= 8; ++i) {
        if (t == kNames[i]) return i;
    }
    if (t == "info") return 6;
    if (t == "warn") return 4;
    int n = 0;
    if (Poco::NumberParser::tryParse(t, n) && n >= 1 && n <= 8) return n;
    return -1;
}

Poco::Logger* LoggerUtils::GetRootLogger() {
    std::lock_guard<std::mutex> lock(gLoggerMutex);
    if (!configured_) return nullptr;
    return &Poco::Logger::root();
}

Poco::Logger* LoggerUtils::GetModuleLogger(const std::string& name, bool create) {
    std::lock_guard<std::mutex> lock(gLoggerMutex);
    if (!create) return Poco::Logger::has(name);
    return &Poco::Logger::get(name);
}

}  // namespace SDK
