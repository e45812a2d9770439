#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace Report {

/// A bounded on-disk queue of JSON lines for one sink, in a directory of its own: append-only
/// segment files (<20-digit sequence>.seg) of whole lines, and a cursor file with the committed
/// read position. It survives a restart: Open cuts a partial line left at the end of the last
/// segment and resumes at the cursor. A line read back that is not a whole document (a torn or
/// zeroed block after a crash) is skipped and counted, never delivered.
/// One thread appends (the report task), one reads and commits (the output's task); the
/// methods are thread-safe.
class Spool {
public:
    enum class AppendResult { kOk, kOverflow, kFailed };

    /// maxBytes bounds the lines not yet committed plus what committed lines still occupy.
    Spool(const std::string& dir, uint64_t maxBytes);
    ~Spool();
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;

    /// Creates the directory, recovers what an earlier run left. false with `error` set when the
    /// directory cannot be used; Append then fails.
    bool Open(std::string& error);

    /// Appends one line (without its newline). kOverflow: the bound would be exceeded, the line
    /// is not kept; kFailed: the disk refused it (error in LastError()).
    AppendResult Append(const std::string& line);

    /// What became of the lines of one AppendBatch.
    struct BatchResult {
        std::size_t kept = 0;
        std::size_t overflow = 0;  // not kept: the bound would have been exceeded
        std::size_t failed = 0;    // not kept: the disk refused them
    };
    /// Appends lines in order with one write: each line is kept, or refused as Append would
    /// refuse it alone; a failed write keeps none of those it carried.
    BatchResult AppendBatch(const std::vector<std::string>& lines);

    /// Up to maxLines lines from the read position, at least one if any is there, about maxBytes
    /// in all. Adds the number of corrupt lines it skipped to `corrupt`.
    std::vector<std::string> Peek(std::size_t maxLines, std::size_t maxBytes, uint64_t& corrupt);
    /// Moves the read position past the first `lines` lines of the last Peek. It is recorded on
    /// disk at most kCursorSaveEvery later, or by SaveCursorIfDirty, so a crash may deliver the
    /// last lines again but never skips one.
    void Commit(std::size_t lines);
    /// Records a read position not yet on disk (the output's task calls it when idle).
    void SaveCursorIfDirty();

    /// Bytes of lines appended and not yet committed.
    uint64_t PendingBytes() const;
    bool Empty() const { return PendingBytes() == 0; }
    /// Bytes cut from the end at Open (a partial line from a crash).
    uint64_t CutAtOpen() const { return cutAtOpen_; }
    std::string LastError() const;
    const std::string& Dir() const { return dir_; }

private:
    struct Segment {
        uint64_t seq;
        uint64_t size;
    };
    struct Position {
        uint64_t seq;
        uint64_t offset;
    };

    std::string SegmentPath(uint64_t seq) const;
    bool Lock(std::string& error);
    bool Recover(std::string& error);
    bool CutPartialTail();
    bool OpenTail(std::string& error);
    bool ReadyTail();
    void CloseFd(int& fd);
    void AdvanceTo(const Position& to);
    void SaveCursor();
    bool ReadLine(Position& at, std::string& line, bool& corrupt);
    uint64_t PendingLocked() const;

    const std::string dir_;
    const uint64_t maxBytes_;
    const uint64_t segmentBytes_;
    mutable std::mutex mutex_;      // guards everything below
    std::deque<Segment> segments_;  // oldest first; the last one takes appends
    Position read_{0, 0};
    std::vector<Position> peeked_;  // the position after each line of the last Peek
    int lockFd_ = -1;               // flock held while open
    int tailFd_ = -1;
    int readFd_ = -1;
    uint64_t readFdSeq_ = 0;
    std::string readBuf_;  // bytes read ahead from readFdSeq_ starting at readBufAt_
    uint64_t readBufAt_ = 0;
    uint64_t cutAtOpen_ = 0;
    bool cursorDirty_ = false;
    std::chrono::steady_clock::time_point cursorSavedAt_{};
    std::string lastError_;
};

}  // namespace Report
