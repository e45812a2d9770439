#pragma once

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/URI.h>

#include <memory>
#include <string>

#include "report/Sink.h"

namespace Report {

/// HTTP(S) POST of alarm batches as JSON Lines (application/x-ndjson), one keep-alive session.
/// 2xx: the batch is delivered. 408, 429, 5xx and network failures: retried later (the output's
/// task backs off). Any other status: the receiver refuses the batch for good; it is dropped and
/// counted rather than retried forever. Every request is bounded by the timeout.
class HttpSink : public Sink {
public:
    struct Settings {
        std::string url;
        int timeoutMs = 5000;
        std::size_t batchLines = 500;
        int maxBackoffMs = 30000;
        std::string caFile;      // https: CA bundle; empty: the system's CAs
        bool verifyPeer = true;  // https: check the certificate and host name
    };

    /// false with `error` when the URL is not http:// or https:// with a host.
    static bool Validate(const std::string& url, std::string& error);
    /// What a status means for the batch: 0 delivered, 1 retry, 2 refused for good.
    static int Classify(int status);

    explicit HttpSink(const Settings& settings);
    ~HttpSink() override;

    std::string Name() const override { return "http"; }
    std::string Target() const override { return settings_.url; }
    DeliveryResult Deliver(const std::vector<std::string>& lines) override;
    std::size_t BatchLines() const override { return settings_.batchLines; }
    int MaxBackoffMs() const override { return settings_.maxBackoffMs; }

private:
    bool EnsureSession(std::string& error);

    const Settings settings_;
    const Poco::URI uri_;
    Poco::Net::Context::Ptr context_;  // https only
    std::string contextError_;
    std::unique_ptr<Poco::Net::HTTPClientSession> session_;
};

}  // namespace Report
