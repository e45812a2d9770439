#include "report/FileSink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "framework/DegradedCounter.h"
#include "report/ReportLog.h"
#include "sdk/FileUtils.h"
#include "sdk/Log.h"

namespace Report {

namespace {
constexpr const char* kStdout = "-";
// How long the rest of a line begun on a pipe may take before it is left for the next turn.
constexpr int kStreamLineWaitMs = 200;

Framework::DegradedCounter gPartialLost("report.file.lost.partial_line", 0);
Framework::DegradedCounter gReopened("report.file.reopened", 0);
Framework::DegradedCounter gPartialLeft("report.file.partial_line_left");

using SDK::FileUtils;
}  // namespace

FileSink::FileSink(const std::string& path) : path_(path) {
    std::string error;
    if (!Open(error)) TW_LOG(ReportLogger(), PRIO_ERROR, "Alarm file: %s; alarms wait", error);
}

FileSink::~FileSink() {
    if (!streamRest_.empty()) {
        TW_DEGRADED(gPartialLost, 1, ReportLogger(), PRIO_ERROR,
                    "Alarm file %s: the end of one alarm not written", path_);
    }
    Close();
}

bool FileSink::Open(std::string& error) {
    if (path_ == kStdout) {
        // A duplicate, so that making it non-blocking leaves the agent's own stdout alone.
        fd_ = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    } else {
        FileUtils::MakeParentDirs(path_);
        // O_NONBLOCK: a FIFO without a reader must not stall the open.
        fd_ = ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0640);
    }
    if (fd_ < 0) {
        error = FileUtils::ErrnoText("cannot open " + path_);
        return false;
    }
    const int flags = ::fcntl(fd_, F_GETFL);
    if (flags >= 0) ::fcntl(fd_, F_SETFL, flags | O_NONBLOCK);
    struct stat st;
    regular_ = ::fstat(fd_, &st) == 0 && S_ISREG(st.st_mode);
    dev_ = st.st_dev;
    ino_ = st.st_ino;
    return true;
}

void FileSink::Close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

bool FileSink::Replaced() const {
    // Standard output has no path to follow, even when it is redirected into a file.
    if (fd_ < 0 || !regular_ || path_ == kStdout) return false;
    struct stat st;
    if (::stat(path_.c_str(), &st) != 0) return true;
    return st.st_dev != dev_ || st.st_ino != ino_;
}

void FileSink::Poll() {
    const bool requested = reopen_.exchange(false);
    const bool replaced = !requested && Replaced();
    if (!requested && !replaced) return;
    Close();
    std::string error;
    if (!Open(error)) {
        TW_LOG(ReportLogger(), PRIO_ERROR, "Alarm file: %s; alarms wait", error);
        return;
    }
    if (replaced) {
        TW_DEGRADED(gReopened, 1, ReportLogger(), PRIO_WARNING,
                    "Alarm file %s was deleted, moved or replaced; opened it anew", path_);
    } else {
        TW_LOG(ReportLogger(), PRIO_INFORMATION, "Alarm file %s reopened", path_);
    }
}

DeliveryResult FileSink::Deliver(const std::vector<std::string>& lines) {
    Poll();
    DeliveryResult result;
    if (fd_ < 0 && !Open(result.error)) return result;
    if (!streamRest_.empty() && !FlushStreamRest(result.error)) return result;
    std::string data;
    for (const std::string& line : lines) data.append(line).push_back('\n');
    return regular_ ? WriteRegular(data, lines.size()) : WriteStream(data, lines.size());
}

DeliveryResult FileSink::WriteRegular(const std::string& data, std::size_t lines) {
    DeliveryResult result;
    struct stat st;
    if (::fstat(fd_, &st) != 0) {
        result.error = FileUtils::ErrnoText("cannot stat " + path_);
        Close();
        return result;
    }
    ssize_t n;
    do {
        n = ::write(fd_, data.data(), data.size());
    } while (n < 0 && errno == EINTR);
    if (n == static_cast<ssize_t>(data.size())) {
        result.delivered = lines;
        return result;
    }
    result.error = n < 0 ? FileUtils::ErrnoText("cannot write " + path_)
                         : "short write to " + path_ + " (file system full?)";
    // Keep the whole lines a short write got in, take back the piece of the next one.
    const std::size_t written = n > 0 ? static_cast<std::size_t>(n) : 0;
    const std::size_t lastNl = written == 0 ? std::string::npos : data.rfind('\n', written - 1);
    const std::size_t keep = lastNl == std::string::npos ? 0 : lastNl + 1;
    result.delivered =
        static_cast<std::size_t>(std::count(data.begin(), data.begin() + keep, '\n'));
    if (written > keep && ::ftruncate(fd_, st.st_size + static_cast<off_t>(keep)) != 0) {
        result.error += "; " + FileUtils::ErrnoText("cannot take back the partial line");
        gPartialLeft.Add();
    }
    return result;
}

DeliveryResult FileSink::WriteStream(const std::string& data, std::size_t lines) {
    DeliveryResult result;
    ssize_t n;
    do {
        n = ::write(fd_, data.data(), data.size());
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        if (errno != EAGAIN) {
            result.error = FileUtils::ErrnoText("cannot write " + path_);
            Close();
        } else {
            result.error = path_ + " is not reading";
        }
        return result;
    }
    const std::size_t written = static_cast<std::size_t>(n);
    if (written == data.size()) {
        result.delivered = lines;
        return result;
    }
    // A line begun on a pipe cannot be taken back: its rest goes out before anything else.
    const std::size_t lineEnd = data.find('\n', written);
    const std::size_t lastNl = written == 0 ? std::string::npos : data.rfind('\n', written - 1);
    const std::size_t lineStart = lastNl == std::string::npos ? 0 : lastNl + 1;
    result.delivered =
        static_cast<std::size_t>(std::count(data.begin(), data.begin() + lineStart, '\n'));
    if (written > lineStart) {
        streamRest_ = data.substr(written, lineEnd + 1 - written);
        ++result.delivered;
        FlushStreamRest(result.error);
    }
    if (result.error.empty()) result.error = path_ + " is not reading fast enough";
    return result;
}

bool FileSink::FlushStreamRest(std::string& error) {
    const auto deadline = kStreamLineWaitMs;
    int waited = 0;
    while (!streamRest_.empty()) {
        const ssize_t n = ::write(fd_, streamRest_.data(), streamRest_.size());
        if (n > 0) {
            streamRest_.erase(0, static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if ((n < 0 && errno != EAGAIN) || waited >= deadline) {
            error = n < 0 && errno != EAGAIN ? FileUtils::ErrnoText("cannot write " + path_)
                                             : path_ + " is not reading";
            return false;
        }
        pollfd pfd{fd_, POLLOUT, 0};
        ::poll(&pfd, 1, 20);
        waited += 20;
    }
    return true;
}

}  // namespace Report
