#include "report/AlarmSink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "framework/Counters.h"

namespace Report {

namespace {
constexpr const char* kStdout = "-";

// Creates the missing directories above `path` (mode 0750), like mkdir -p of its parent.
void MakeParentDirs(const std::string& path) {
    for (std::size_t pos = path.find('/', 1); pos != std::string::npos;
         pos = path.find('/', pos + 1)) {
        ::mkdir(path.substr(0, pos).c_str(), 0750);
    }
}
}  // namespace

std::string ToSingleLine(const std::string& document) {
    std::string line = document;
    for (char& c : line) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    return line;
}

AlarmSink::AlarmSink(const std::string& path, std::size_t backlogLimit)
    : path_(path), backlogLimit_(backlogLimit) {
    Open();
}

AlarmSink::~AlarmSink() {
    Flush();
    Close();
}

bool AlarmSink::Open() {
    if (path_ == kStdout) {
        // A duplicate, so that making it non-blocking and closing it leaves the agent's own
        // standard output alone.
        fd_ = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    } else {
        MakeParentDirs(path_);
        // O_NONBLOCK: a FIFO without a reader must not stall the task at open.
        fd_ = ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0640);
    }
    if (fd_ < 0) {
        lastError_ = "cannot open " + path_ + ": " + std::strerror(errno);
        return false;
    }
    const int flags = ::fcntl(fd_, F_GETFL);
    if (flags >= 0) ::fcntl(fd_, F_SETFL, flags | O_NONBLOCK);
    ownsFd_ = true;
    lastError_.clear();
    return true;
}

void AlarmSink::Close() {
    if (fd_ >= 0 && ownsFd_) ::close(fd_);
    fd_ = -1;
    ownsFd_ = false;
}

bool AlarmSink::Reopen() {
    Close();
    const bool opened = Open();
    Flush();
    return opened;
}

void AlarmSink::DropOldestLines(std::size_t needed) {
    std::size_t dropped = 0;
    while (Pending() > 0 && Pending() + needed > backlogLimit_) {
        // A line partly written already stays: cutting it would corrupt the file.
        std::size_t from = backlogStart_;
        if (from > 0 && backlog_[from - 1] != '\n') {
            const std::size_t rest = backlog_.find('\n', from);
            if (rest == std::string::npos) break;
            from = rest + 1;
        }
        const std::size_t end = backlog_.find('\n', from);
        if (end == std::string::npos) break;
        backlog_.erase(from, end + 1 - from);
        ++dropped;
    }
    if (dropped > 0) Framework::Counters::Instance().Add("report.sink.dropped", dropped);
}

bool AlarmSink::WriteLine(const std::string& line) {
    const std::size_t needed = line.size() + 1;
    bool kept = true;
    if (Pending() + needed > backlogLimit_) {
        DropOldestLines(needed);
        kept = false;
    }
    if (Pending() + needed > backlogLimit_) {
        Framework::Counters::Instance().Add("report.sink.dropped");
        return false;
    }
    backlog_.append(line).push_back('\n');
    Flush();
    return kept;
}

void AlarmSink::Flush() {
    if (fd_ < 0 && Pending() > 0 && !Open()) return;
    while (Pending() > 0) {
        const ssize_t n = ::write(fd_, backlog_.data() + backlogStart_, Pending());
        if (n > 0) {
            backlogStart_ += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno != EAGAIN) {
            lastError_ = "cannot write " + path_ + ": " + std::strerror(errno);
            Framework::Counters::Instance().Add("report.sink.write_failed");
            Close();  // opened again on the next flush
        }
        break;
    }
    if (backlogStart_ > 0 && (Pending() == 0 || backlogStart_ > backlog_.size() / 2)) {
        backlog_.erase(0, backlogStart_);
        backlogStart_ = 0;
    }
}

}  // namespace Report
