#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/FileChannel.h>

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>

namespace Agent {

/// The agent's log file: a Poco FileChannel (with its size rotation) that can also be closed
/// and opened again at its path, after logrotate moved the file away. Every logging thread
/// goes through log(); Reopen may be called from any thread.
///
/// Records of information and debug priority are gathered and written together, at the latest
/// kFlushMs after the first of them, so that a storm of per-alarm records costs one write per
/// batch instead of a write, a flush and a seek per record. A record of notice priority or
/// more severe is written at once, behind everything gathered before it; close, Reopen and the
/// destructor write what is gathered.
class ReopenableFileChannel : public Poco::Channel {
public:
    static constexpr int kFlushMs = 50;
    static constexpr std::size_t kFlushBytes = 16 * 1024;

    explicit ReopenableFileChannel(Poco::AutoPtr<Poco::FileChannel> file);

    void open() override;
    void close() override;
    void log(const Poco::Message& message) override;
    /// Closes the file and opens whatever is at its path now (creating it when it is gone);
    /// false with `error` set when it cannot be opened (the next log line tries again).
    bool Reopen(std::string& error);
    /// Writes what is gathered now.
    void Flush();

protected:
    ~ReopenableFileChannel() override;

private:
    void FlushLoop();
    void WriteGathered();  // with fileMutex_ held

    // Guards file_: Poco's FileChannel must not be closed while another thread writes to it.
    // Taken before bufferMutex_ where both are held.
    std::mutex fileMutex_;
    Poco::AutoPtr<Poco::FileChannel> file_;
    std::mutex bufferMutex_;  // guards gathered_, stop_ and the flusher's condition variable
    std::condition_variable wake_;
    std::string gathered_;  // records not yet written, each followed by a newline
    std::string writing_;   // what WriteGathered writes; kept, with its room, under fileMutex_
    bool stop_ = false;
    std::thread flusher_;
};

}  // namespace Agent
