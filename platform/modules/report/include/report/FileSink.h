#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>

#include "report/Sink.h"

namespace Report {

/// The JSON Lines alarm file ("-": standard output). Only whole lines ever stay in a regular
/// file: a write cut short (disk full) is taken back with ftruncate and retried later. A file
/// deleted, moved or replaced under the agent is noticed at the next Poll and opened anew at
/// its path. Alarms reaching the file are counted in report.alarms.written.
class FileSink : public Sink {
public:
    explicit FileSink(const std::string& path);
    ~FileSink() override;
    FileSink(const FileSink&) = delete;
    FileSink& operator=(const FileSink&) = delete;

    std::string Name() const override { return "file"; }
    std::string Target() const override { return path_; }
    DeliveryResult Deliver(const std::vector<std::string>& lines) override;
    void Poll() override;
    void RequestReopen() override { reopen_.store(true); }
    int MaxBackoffMs() const override { return 1000; }
    std::string DeliveredCounter() const override { return "report.alarms.written"; }

    bool IsOpen() const { return fd_ >= 0; }

private:
    bool Open(std::string& error);
    void Close();
    bool Replaced() const;
    DeliveryResult WriteRegular(const std::string& data, std::size_t lines);
    DeliveryResult WriteStream(const std::string& data, std::size_t lines);
    bool FlushStreamRest(std::string& error);

    const std::string path_;
    std::atomic<bool> reopen_{false};
    int fd_ = -1;
    bool regular_ = false;
    dev_t dev_ = 0;
    ino_t ino_ = 0;
    std::string streamRest_;  // rest of a line begun on a pipe; must follow before anything else
};

}  // namespace Report
