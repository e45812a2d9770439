#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Report {

/// What one delivery attempt achieved: the first `delivered` lines reached the sink, the next
/// `rejected` were refused for good by it (never to be retried); the rest waits. `error` says
/// why not everything was taken.
struct DeliveryResult {
    std::size_t delivered = 0;
    std::size_t rejected = 0;
    std::string error;
};

/// One output of the alarm documents (JSON Lines file, syslog, HTTP). Driven by its own
/// task (SinkTask): Deliver and Poll are called from its thread only, and may take as long
/// as one bounded attempt (a timeout per connection or request), never longer.
/// RequestReopen may be called from any thread.
class Sink {
public:
    virtual ~Sink() = default;

    /// Short name used in counters, spool directory and log lines: "file", "syslog", "http".
    virtual std::string Name() const = 0;
    /// Where the alarms go, for log lines.
    virtual std::string Target() const = 0;
    /// Delivers `lines` (JSON documents, no newline) in order, stopping at the first failure.
    virtual DeliveryResult Deliver(const std::vector<std::string>& lines) = 0;
    /// Called on the output's task thread at least every kPollMs, also while idle.
    virtual void Poll() {}
    /// Closes and opens the output again at the next Poll or Deliver (SIGHUP).
    virtual void RequestReopen() {}
    /// Lines per Deliver call.
    virtual std::size_t BatchLines() const { return 256; }
    /// The retry delay doubles after each failed attempt up to this.
    virtual int MaxBackoffMs() const { return 30000; }
    /// Counter of the alarms that reached this sink.
    virtual std::string DeliveredCounter() const { return "report." + Name() + ".delivered"; }

    static constexpr int kPollMs = 250;
};

}  // namespace Report
