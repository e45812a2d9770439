#include "report/Spool.h"

#include <dirent.h>
#include <fcntl.h>
#include <json/json.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"

namespace Report {

namespace {
constexpr const char* kCursorFile = "cursor";
constexpr const char* kSegmentSuffix = ".seg";
constexpr uint64_t kMaxSegmentBytes = 16u << 20;
constexpr uint64_t kMinSegmentBytes = 4096;
constexpr std::size_t kReadChunk = 64 * 1024;
// Longer lines are refused at append; on read, that much without a newline is corruption.
constexpr std::size_t kMaxLineBytes = 1u << 20;
// A caught-up spool is emptied once its segment holds this much: each truncation also records
// the cursor (open, write, rename), which at every 256 KiB cost a storm more than its appends.
constexpr uint64_t kTruncateAtBytes = 4u << 20;
constexpr auto kCursorSaveEvery = std::chrono::milliseconds(200);

using SDK::FileUtils;

bool ParseSegmentName(const char* name, uint64_t& seq) {
    const std::size_t len = std::strlen(name);
    const std::size_t suffix = std::strlen(kSegmentSuffix);
    if (len != 20 + suffix || std::strcmp(name + 20, kSegmentSuffix) != 0) return false;
    seq = 0;
    for (std::size_t i = 0; i < 20; ++i) {
        if (name[i] < '0' || name[i] > '9') return false;
        seq = seq * 10 + static_cast<uint64_t>(name[i] - '0');
    }
    return true;
}

// Lines were checked as JSON documents before they were spooled; what can go wrong on disk
// since is a crash leaving zeroed blocks or a torn line, which this catches without a parse.
bool LooksWhole(const std::string& line) {
    return line.size() >= 2 && line.front() == '{' && line.back() == '}' &&
           line.find('\0') == std::string::npos;
}
}  // namespace

Spool::Spool(const std::string& dir, uint64_t maxBytes)
    : dir_(dir),
      maxBytes_(maxBytes),
      segmentBytes_(std::min(kMaxSegmentBytes, std::max(kMinSegmentBytes, maxBytes / 8))) {}

Spool::~Spool() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (cursorDirty_) SaveCursor();
    CloseFd(tailFd_);
    CloseFd(readFd_);
    CloseFd(lockFd_);
}

// Two agents appending to and committing one spool would corrupt it: the first one owns it.
bool Spool::Lock(std::string& error) {
    if (lockFd_ >= 0) return true;
    const std::string path = dir_ + "/lock";
    lockFd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    if (lockFd_ < 0) {
        error = FileUtils::ErrnoText("cannot open " + path);
        return false;
    }
    if (::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
        error = "spool " + dir_ + " is in use by another process";
        CloseFd(lockFd_);
        return false;
    }
    return true;
}

void Spool::CloseFd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

std::string Spool::SegmentPath(uint64_t seq) const {
    char name[32];
    std::snprintf(name, sizeof(name), "%020" PRIu64 "%s", seq, kSegmentSuffix);
    return dir_ + "/" + name;
}

bool Spool::Open(std::string& error) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!FileUtils::MakeDirs(dir_)) {
        error = FileUtils::ErrnoText("cannot create spool directory " + dir_);
        lastError_ = error;
        return false;
    }
    if (!Lock(error) || !Recover(error) || !OpenTail(error)) {
        lastError_ = error;
        return false;
    }
    return true;
}

bool Spool::Recover(std::string& error) {
    DIR* dir = ::opendir(dir_.c_str());
    if (dir == nullptr) {
        error = FileUtils::ErrnoText("cannot read spool directory " + dir_);
        return false;
    }
    std::vector<Segment> found;
    while (const dirent* entry = ::readdir(dir)) {
        uint64_t seq = 0;
        if (!ParseSegmentName(entry->d_name, seq)) continue;
        struct stat st;
        if (::stat(SegmentPath(seq).c_str(), &st) != 0) continue;
        found.push_back({seq, static_cast<uint64_t>(st.st_size)});
    }
    ::closedir(dir);
    std::sort(found.begin(), found.end(),
              [](const Segment& a, const Segment& b) { return a.seq < b.seq; });
    segments_.assign(found.begin(), found.end());
    if (segments_.empty()) segments_.push_back({0, 0});

    Position cursor{segments_.front().seq, 0};
    if (FILE* in = std::fopen((dir_ + "/" + kCursorFile).c_str(), "r")) {
        uint64_t seq = 0;
        uint64_t offset = 0;
        if (std::fscanf(in, "%" SCNu64 " %" SCNu64, &seq, &offset) == 2) cursor = {seq, offset};
        std::fclose(in);
    }
    // Segments before the cursor were delivered; one whose removal was cut short goes now.
    while (segments_.size() > 1 && segments_.front().seq < cursor.seq) {
        ::unlink(SegmentPath(segments_.front().seq).c_str());
        segments_.pop_front();
    }
    if (cursor.seq != segments_.front().seq) cursor = {segments_.front().seq, 0};
    read_ = cursor;
    if (!CutPartialTail()) {
        error = FileUtils::ErrnoText("cannot repair spool segment " +
                                     SegmentPath(segments_.back().seq));
        return false;
    }
    if (read_.seq == segments_.back().seq)
        read_.offset = std::min(read_.offset, segments_.back().size);
    return true;
}

// A crash in the middle of an append leaves part of a line without its newline: cut it.
bool Spool::CutPartialTail() {
    Segment& tail = segments_.back();
    if (tail.size == 0) return true;
    const int fd = ::open(SegmentPath(tail.seq).c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    uint64_t keep = tail.size;
    char buf[4096];
    while (keep > 0) {
        const uint64_t from = keep > sizeof(buf) ? keep - sizeof(buf) : 0;
        const ssize_t n = ::pread(fd, buf, keep - from, static_cast<off_t>(from));
        if (n <= 0) break;
        const char* nl = static_cast<const char*>(::memrchr(buf, '\n', static_cast<size_t>(n)));
        if (nl != nullptr) {
            keep = from + static_cast<uint64_t>(nl - buf) + 1;
            break;
        }
        keep = from;
    }
    bool ok = true;
    if (keep != tail.size) {
        ok = ::ftruncate(fd, static_cast<off_t>(keep)) == 0;
        if (ok) {
            cutAtOpen_ += tail.size - keep;
            tail.size = keep;
        }
    }
    ::close(fd);
    return ok;
}

bool Spool::OpenTail(std::string& error) {
    CloseFd(tailFd_);
    const std::string path = SegmentPath(segments_.back().seq);
    tailFd_ = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (tailFd_ < 0) {
        error = FileUtils::ErrnoText("cannot open spool segment " + path);
        return false;
    }
    return true;
}

uint64_t Spool::PendingLocked() const {
    uint64_t total = 0;
    for (const Segment& s : segments_) total += s.size;
    return total - read_.offset;
}

uint64_t Spool::PendingBytes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return PendingLocked();
}

std::string Spool::LastError() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastError_;
}

Spool::AppendResult Spool::Append(const std::string& line) {
    const BatchResult result = AppendBatch({line});
    if (result.kept == 1) return AppendResult::kOk;
    return result.overflow == 1 ? AppendResult::kOverflow : AppendResult::kFailed;
}

// The segment that takes appends, a new one when the last is full; false with lastError_ set.
bool Spool::ReadyTail() {
    std::string error;
    if (segments_.back().size >= segmentBytes_) {
        segments_.push_back({segments_.back().seq + 1, 0});
        if (!OpenTail(error)) {
            segments_.pop_back();
            lastError_ = error;
            OpenTail(error);
            return false;
        }
    }
    if (tailFd_ < 0 && !OpenTail(error)) {
        lastError_ = error;
        return false;
    }
    return true;
}

Spool::BatchResult Spool::AppendBatch(const std::vector<std::string>& lines) {
    std::lock_guard<std::mutex> lock(mutex_);
    BatchResult result;
    if (segments_.empty()) {
        if (lastError_.empty()) lastError_ = "spool " + dir_ + " is not open";
        result.failed = lines.size();
        return result;
    }
    std::string record;
    uint64_t used = PendingLocked() + read_.offset;
    std::size_t carried = 0;
    for (const std::string& line : lines) {
        const uint64_t needed = line.size() + 1;
        if (line.size() > kMaxLineBytes || used + needed > maxBytes_) {
            ++result.overflow;
            continue;
        }
        record.append(line).push_back('\n');
        used += needed;
        ++carried;
    }
    if (carried == 0) return result;
    if (!ReadyTail()) {
        result.failed = carried;
        return result;
    }
    Segment& tail = segments_.back();
    const ssize_t n = ::write(tailFd_, record.data(), record.size());
    if (n == static_cast<ssize_t>(record.size())) {
        tail.size += record.size();
        result.kept = carried;
        return result;
    }
    lastError_ = n < 0 ? FileUtils::ErrnoText("cannot append to " + SegmentPath(tail.seq))
                       : "short write to " + SegmentPath(tail.seq) + " (disk full?)";
    // Take back a short write so that the segment keeps whole lines only.
    if (n > 0 && ::ftruncate(tailFd_, static_cast<off_t>(tail.size)) != 0) {
        lastError_ += "; " + FileUtils::ErrnoText("cannot cut the partial line");
    }
    result.failed = carried;
    return result;
}

// Reads the line at `at` into `line`, moving `at` past it; false when no whole line is there.
bool Spool::ReadLine(Position& at, std::string& line, bool& corrupt) {
    corrupt = false;
    for (;;) {
        auto seg = std::find_if(segments_.begin(), segments_.end(),
                                [&](const Segment& s) { return s.seq == at.seq; });
        if (seg == segments_.end()) return false;
        if (at.offset < seg->size) break;
        if (std::next(seg) == segments_.end()) return false;
        at = {std::next(seg)->seq, 0};
    }
    if (readFd_ < 0 || readFdSeq_ != at.seq) {
        CloseFd(readFd_);
        readBuf_.clear();
        readFd_ = ::open(SegmentPath(at.seq).c_str(), O_RDONLY | O_CLOEXEC);
        readFdSeq_ = at.seq;
        if (readFd_ < 0) {
            lastError_ = FileUtils::ErrnoText("cannot read " + SegmentPath(at.seq));
            return false;
        }
    }
    if (at.offset < readBufAt_ || at.offset > readBufAt_ + readBuf_.size()) {
        readBuf_.clear();
        readBufAt_ = at.offset;
    }
    for (;;) {
        const std::size_t start = static_cast<std::size_t>(at.offset - readBufAt_);
        const std::size_t nl = readBuf_.find('\n', start);
        if (nl != std::string::npos) {
            line.assign(readBuf_, start, nl - start);
            at.offset = readBufAt_ + nl + 1;
            return true;
        }
        if (readBuf_.size() - start > kMaxLineBytes) {
            // Garbage without line ends: skip what was read and resume after it.
            corrupt = true;
            at.offset = readBufAt_ + readBuf_.size();
            line.clear();
            return true;
        }
        if (start > kReadChunk) {
            readBuf_.erase(0, start);
            readBufAt_ += start;
        }
        char chunk[kReadChunk];
        const ssize_t n = ::pread(readFd_, chunk, sizeof(chunk),
                                  static_cast<off_t>(readBufAt_ + readBuf_.size()));
        if (n <= 0) return false;
        readBuf_.append(chunk, static_cast<std::size_t>(n));
    }
}

std::vector<std::string> Spool::Peek(std::size_t maxLines, std::size_t maxBytes,
                                     uint64_t& corrupt) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> lines;
    peeked_.clear();
    std::size_t bytes = 0;
    Position at = read_;
    std::string line;
    while (lines.size() < maxLines && (lines.empty() || bytes < maxBytes)) {
        bool bad = false;
        if (!ReadLine(at, line, bad)) break;
        if (bad || !LooksWhole(line)) {
            // Skipped for good (and counted) when nothing precedes it in this batch; otherwise
            // it leads the next one.
            if (!lines.empty()) break;
            ++corrupt;
            AdvanceTo(at);
            continue;
        }
        bytes += line.size() + 1;
        lines.push_back(line);
        peeked_.push_back(at);
    }
    return lines;
}

void Spool::Commit(std::size_t lines) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lines == 0 || peeked_.empty()) return;
    AdvanceTo(peeked_[std::min(lines, peeked_.size()) - 1]);
    peeked_.clear();
}

void Spool::AdvanceTo(const Position& to) {
    read_ = to;
    if (segments_.empty()) return;
    while (segments_.size() > 1 && segments_.front().seq < read_.seq) {
        if (readFdSeq_ == segments_.front().seq) CloseFd(readFd_);
        ::unlink(SegmentPath(segments_.front().seq).c_str());
        segments_.pop_front();
    }
    // All caught up: empty the last segment so that delivered lines stop taking room. Not
    // after every line: a truncate costs more than the append it makes room for.
    Segment& tail = segments_.back();
    bool truncated = false;
    if (segments_.size() == 1 && read_.offset == tail.size && tail.size >= kTruncateAtBytes &&
        tailFd_ >= 0 && ::ftruncate(tailFd_, 0) == 0) {
        tail.size = 0;
        read_.offset = 0;
        readBuf_.clear();
        readBufAt_ = 0;
        truncated = true;
    }
    cursorDirty_ = true;
    // A cursor recorded late only means lines delivered again after a crash, while one that
    // points past a truncation would skip new lines: record that one at once.
    if (truncated || std::chrono::steady_clock::now() - cursorSavedAt_ >= kCursorSaveEvery) {
        SaveCursor();
    }
}

void Spool::SaveCursorIfDirty() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (cursorDirty_) SaveCursor();
}

void Spool::SaveCursor() {
    cursorDirty_ = false;
    cursorSavedAt_ = std::chrono::steady_clock::now();
    const std::string path = dir_ + "/" + kCursorFile;
    const std::string tmp = path + ".tmp";
    char text[64];
    const int len =
        std::snprintf(text, sizeof(text), "%" PRIu64 " %" PRIu64 "\n", read_.seq, read_.offset);
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
    if (fd < 0) {
        lastError_ = FileUtils::ErrnoText("cannot write " + tmp);
        return;
    }
    const bool written = ::write(fd, text, static_cast<size_t>(len)) == len;
    ::close(fd);
    if (!written || ::rename(tmp.c_str(), path.c_str()) != 0) {
        lastError_ = FileUtils::ErrnoText("cannot record the spool cursor in " + path);
    }
}

}  // namespace Report
