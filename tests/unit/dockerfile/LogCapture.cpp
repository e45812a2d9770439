#include "LogCapture.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <mutex>
#include <vector>

#include "sdk/LoggerUtils.h"

namespace DockerFileUnit {

namespace {
class RecordingChannel : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override {
        std::lock_guard<std::mutex> lock(mutex);
        texts.push_back(msg.getText());
    }
    std::mutex mutex;  // guards texts: the module may log from its task thread
    std::vector<std::string> texts;
};

RecordingChannel& Channel() {
    static Poco::AutoPtr<RecordingChannel> channel(new RecordingChannel());
    return *channel;
}
}  // namespace

LogCapture::LogCapture() {
    SDK::LoggerUtils::GetInstance()->Configure(&Channel(), Poco::Message::PRIO_DEBUG);
    SDK::LoggerUtils::GetInstance()->GetModuleLogger("dockerfile_module", true);
}

LogCapture& LogCapture::Instance() {
    static LogCapture capture;
    return capture;
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(Channel().mutex);
    Channel().texts.clear();
}

int LogCapture::Count(const std::string& text) const {
    std::lock_guard<std::mutex> lock(Channel().mutex);
    int n = 0;
    for (const auto& t : Channel().texts) n += t == text ? 1 : 0;
    return n;
}

std::string LogCapture::Dump() const {
    std::lock_guard<std::mutex> lock(Channel().mutex);
    std::string all;
    for (const auto& t : Channel().texts) all += t + "\n";
    return all;
}

}  // namespace DockerFileUnit
