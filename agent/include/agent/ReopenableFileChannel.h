#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/FileChannel.h>

#include <mutex>
#include <string>

namespace Agent {

/// The agent's log file: a Poco FileChannel (with its size rotation) that can also be closed
/// and opened again at its path, after logrotate moved the file away. Every logging thread
/// goes through log(); Reopen may be called from any thread.
class ReopenableFileChannel : public Poco::Channel {
public:
    explicit ReopenableFileChannel(Poco::AutoPtr<Poco::FileChannel> file);

    void open() override;
    void close() override;
    void log(const Poco::Message& message) override;
    /// Closes the file and opens whatever is at its path now (creating it when it is gone);
    /// false with `error` set when it cannot be opened (the next log line tries again).
    bool Reopen(std::string& error);

protected:
    ~ReopenableFileChannel() override = default;

private:
    // Guards file_: Poco's FileChannel must not be closed while another thread writes to it.
    std::mutex mutex_;
    Poco::AutoPtr<Poco::FileChannel> file_;
};

}  // namespace Agent
