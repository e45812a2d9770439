#include "process_collect/AuditReader.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "framework/DegradedCounter.h"
#include "process_collect/AuditRecord.h"
#include "sdk/LoggerUtils.h"

namespace Engine {

namespace {
constexpr int kMaxDatagramsPerWake = 512;
constexpr uint64_t kWarnIntervalMs = 5000;

Framework::DegradedCounter gOverrun("audit.socket_overrun", kWarnIntervalMs);
Framework::DegradedCounter gDropped("audit.records.dropped", kWarnIntervalMs);

Poco::Logger* Logger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("process_collect_module", true);
}
}  // namespace

AuditReader::AuditReader(std::size_t maxRecords)
    : maxRecords_(maxRecords == 0 ? 1 : maxRecords),
      wake_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      stop_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

AuditReader::~AuditReader() { Stop(); }

bool AuditReader::Wanted(int type) {
    return type == AuditRecordType::kSyscall || type == AuditRecordType::kPath ||
           type == AuditRecordType::kCwd || type == AuditRecordType::kEoe ||
           type == AuditRecordType::kProctitle || type == AuditRecordType::kOpenat2;
}

bool AuditReader::Start(int receiveBuffer, std::string& error) {
    if (thread_.joinable()) return true;
    if (!wake_.Valid() || !stop_.Valid()) {
        error = std::string("eventfd: ") + std::strerror(errno);
        return false;
    }
    if (!socket_.Open(receiveBuffer, error)) return false;
    thread_ = std::thread([this] { Loop(); });
    return true;
}

void AuditReader::Stop() {
    if (thread_.joinable()) {
        Signal(stop_.Get());
        thread_.join();
    }
    socket_.Close();
}

void AuditReader::Signal(int fd) {
    const uint64_t one = 1;
    // A full counter already wakes the reader: nothing is lost when this write fails.
    (void)!::write(fd, &one, sizeof(one));
}

void AuditReader::Loop() {
    std::vector<Record> batch;
    for (;;) {
        pollfd fds[2] = {{socket_.Fd(), POLLIN, 0}, {stop_.Get(), POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            TW_LOG(Logger(), PRIO_ERROR, "Audit reader stops: poll failed: %s",
                   std::string(std::strerror(errno)));
            return;
        }
        if ((fds[1].revents & POLLIN) != 0) return;
        uint64_t overruns = 0;
        socket_.ReadAvailable(
            kMaxDatagramsPerWake,
            [&batch](int type, const char* text, std::size_t len) {
                if (Wanted(type)) batch.push_back(Record{type, std::string(text, len)});
            },
            overruns);
        if (overruns > 0) {
            TW_DEGRADED(gOverrun, overruns, Logger(), PRIO_WARNING,
                        "Audit socket overrun: records lost before the reader read them");
        }
        if (!batch.empty()) Keep(batch);
    }
}

void AuditReader::Keep(std::vector<Record>& batch) {
    std::size_t dropped = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& record : batch) {
            if (waiting_.size() >= maxRecords_) {
                ++dropped;
                continue;
            }
            waiting_.push_back(std::move(record));
        }
    }
    batch.clear();
    Signal(wake_.Get());
    if (dropped > 0) {
        TW_DEGRADED(gDropped, dropped, Logger(), PRIO_WARNING,
                    "Audit reader dropped %z records: the audit task is %z records behind", dropped,
                    maxRecords_);
    }
}

std::size_t AuditReader::Take(std::vector<Record>& out, std::size_t max) {
    uint64_t ignored = 0;
    (void)!::read(wake_.Get(), &ignored, sizeof(ignored));
    std::lock_guard<std::mutex> lock(mutex_);
    const std::size_t n = std::min(max, waiting_.size());
    for (std::size_t i = 0; i < n; ++i) {
        out.push_back(std::move(waiting_.front()));
        waiting_.pop_front();
    }
    if (!waiting_.empty()) Signal(wake_.Get());  // more wait: the consumer comes back at once
    return n;
}

}  // namespace Engine
