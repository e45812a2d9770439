#include "agent/ReopenableFileChannel.h"

#include <Poco/Exception.h>
#include <Poco/Message.h>

#include <chrono>
#include <utility>

namespace Agent {

ReopenableFileChannel::ReopenableFileChannel(Poco::AutoPtr<Poco::FileChannel> file)
    : file_(std::move(file)) {
    gathered_.reserve(2 * kFlushBytes);
    writing_.reserve(2 * kFlushBytes);
    flusher_ = std::thread([this] { FlushLoop(); });
}

ReopenableFileChannel::~ReopenableFileChannel() {
    {
        std::lock_guard<std::mutex> lock(bufferMutex_);
        stop_ = true;
    }
    wake_.notify_all();
    if (flusher_.joinable()) flusher_.join();
    Flush();
}

void ReopenableFileChannel::open() {
    std::lock_guard<std::mutex> lock(fileMutex_);
    file_->open();
}

void ReopenableFileChannel::close() {
    std::lock_guard<std::mutex> lock(fileMutex_);
    WriteGathered();
    file_->close();
}

void ReopenableFileChannel::log(const Poco::Message& message) {
    bool now = message.getPriority() <= Poco::Message::PRIO_NOTICE;
    bool first = false;
    {
        std::lock_guard<std::mutex> lock(bufferMutex_);
        first = gathered_.empty();
        gathered_ += message.getText();
        gathered_ += '\n';
        now = now || gathered_.size() >= kFlushBytes;
    }
    if (now) {
        Flush();
    } else if (first) {
        wake_.notify_one();
    }
}

void ReopenableFileChannel::Flush() {
    std::lock_guard<std::mutex> lock(fileMutex_);
    WriteGathered();
}

void ReopenableFileChannel::WriteGathered() {
    // The two buffers trade places and keep their room: a storm's records are gathered and
    // written without a buffer growing again each time.
    writing_.clear();
    {
        std::lock_guard<std::mutex> lock(bufferMutex_);
        writing_.swap(gathered_);
    }
    if (writing_.empty()) return;
    writing_.pop_back();  // the file channel ends what it writes with a newline of its own
    try {
        file_->log(Poco::Message("", writing_, Poco::Message::PRIO_INFORMATION));
    } catch (const std::exception&) {
        // A full disk or a vanished directory: these records are lost, as unbuffered writes
        // would have lost them; logging goes on.
    }
}

void ReopenableFileChannel::FlushLoop() {
    std::unique_lock<std::mutex> lock(bufferMutex_);
    while (!stop_) {
        wake_.wait(lock, [this] { return stop_ || !gathered_.empty(); });
        if (stop_) break;
        // Let a batch gather; a stop cuts the wait short.
        wake_.wait_for(lock, std::chrono::milliseconds(kFlushMs), [this] { return stop_; });
        lock.unlock();
        Flush();
        lock.lock();
    }
}

bool ReopenableFileChannel::Reopen(std::string& error) {
    std::lock_guard<std::mutex> lock(fileMutex_);
    WriteGathered();  // what was gathered before the signal belongs to the old file
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
