#include "agent/ReopenableFileChannel.h"

#include <Poco/Exception.h>

#include <utility>

namespace Agent {

ReopenableFileChannel::ReopenableFileChannel(Poco::AutoPtr<Poco::FileChannel> file)
    : file_(std::move(file)) {}

void ReopenableFileChannel::open() {
    std::lock_guard<std::mutex> lock(mutex_);
    file_->open();
}

void ReopenableFileChannel::close() {
    std::lock_guard<std::mutex> lock(mutex_);
    file_->close();
}

void ReopenableFileChannel::log(const Poco::Message& message) {
    std::lock_guard<std::mutex> lock(mutex_);
    file_->log(message);
}

bool ReopenableFileChannel::Reopen(std::string& error) {
    std::lock_guard<std::mutex> lock(mutex_);
    file_->close();
    try {
        file_->open();
    } catch (const Poco::Exception& e) {
        error = e.displayText();
        return false;
    }
    return true;
}

}  // namespace Agent
