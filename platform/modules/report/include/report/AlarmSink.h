#pragma once

#include <cstddef>
#include <string>

namespace Report {

/// The alarm sink: a JSON Lines file (or standard output for "-") written without ever
/// blocking. A line that cannot be written at once waits in a bounded backlog; when the backlog
/// is full the oldest waiting lines are dropped and counted. Used by one thread only.
class AlarmSink {
public:
    /// backlogLimit: bytes that may wait for a slow sink before lines are dropped.
    AlarmSink(const std::string& path, std::size_t backlogLimit);
    ~AlarmSink();
    AlarmSink(const AlarmSink&) = delete;
    AlarmSink& operator=(const AlarmSink&) = delete;

    /// Queues one line (a newline is added) and writes as much as the sink takes now.
    /// false when the line, or older waiting lines, had to be dropped.
    bool WriteLine(const std::string& line);
    /// Writes waiting lines; called again on every turn of the owning task's loop.
    void Flush();
    /// Closes and opens the path again (log rotation); the backlog is kept.
    bool Reopen();

    bool IsOpen() const { return fd_ >= 0; }
    std::size_t Pending() const { return backlog_.size() - backlogStart_; }
    const std::string& Path() const { return path_; }
    /// The last open or write failure, for the owner's log line; empty when none.
    const std::string& LastError() const { return lastError_; }

private:
    bool Open();
    void Close();
    void DropOldestLines(std::size_t needed);

    std::string path_;
    std::size_t backlogLimit_;
    int fd_ = -1;
    bool ownsFd_ = false;
    std::string backlog_;          // lines not yet written, each ending in '\n'
    std::size_t backlogStart_ = 0;  // bytes of backlog_ already written
    std::string lastError_;
};

/// One alarm document as one line: control line breaks become spaces so that a reader of the
/// JSON Lines file never sees a document split in two.
std::string ToSingleLine(const std::string& document);

}  // namespace Report
