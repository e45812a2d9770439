#pragma once

#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framework/Message.h"
#include "sdk/LoggerUtils.h"

namespace DockerFileTest {

/// A log record, or a message a stand-in service was handed (then `msg` is set and `text` names
/// the recipient).
struct Entry {
    std::string logger;
    int priority = 0;
    std::string text;
    std::shared_ptr<Framework::Message> msg;
};

/// The agent's root channel at debug level for the whole process, so every logger writes here.
/// The stand-ins of the integration tests add what they are sent, on the sender's thread, so
/// records and messages keep the one order they happened in.
class Capture : public Poco::Channel {
public:
    void log(const Poco::Message& m) override {
        Add({m.getSource(), m.getPriority(), m.getText(), nullptr});
    }
    void Add(Entry entry) {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(std::move(entry));
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.clear();
    }
    std::vector<Entry> Entries() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_;
    }
    /// How many records have exactly the text `text`.
    size_t Count(const std::string& text) const {
        size_t n = 0;
        for (const auto& e : Entries()) n += !e.msg && e.text == text;
        return n;
    }
    std::string Dump() const {
        std::string all;
        for (const auto& e : Entries()) all += e.logger + ": " + e.text + "\n";
        return all;
    }

private:
    mutable std::mutex mutex_;  // guards entries_: the module logs from its task thread
    std::vector<Entry> entries_;
};

inline Capture& Logs() {
    static Capture* capture = [] {
        auto* channel = new Capture();  // its first reference is never dropped
        SDK::LoggerUtils::GetInstance()->Configure(channel, Poco::Message::PRIO_DEBUG);
        SDK::LoggerUtils::GetInstance()->GetModuleLogger("dockerfile_module", true);
        return channel;
    }();
    return *capture;
}

}  // namespace DockerFileTest
