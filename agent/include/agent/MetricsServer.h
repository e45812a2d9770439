#pragma once

#include <Poco/Net/HTTPServer.h>
#include <Poco/ThreadPool.h>

#include <cstdint>
#include <memory>
#include <string>

namespace Agent {

/// The agent's local HTTP endpoint: GET /metrics answers the Prometheus text of AgentMetrics,
/// GET /healthz "ok" (200) or "degraded: <reasons>" (503). Owns its listening socket and its
/// threads: Start opens them, Stop (and the destructor) closes them and waits for requests in
/// progress. Start and Stop are called from one thread; requests are served on the server's.
class MetricsServer {
public:
    MetricsServer();
    ~MetricsServer();
    MetricsServer(const MetricsServer&) = delete;
    MetricsServer& operator=(const MetricsServer&) = delete;

    /// Listens on `address` (an IP address) and `port` (0: any free port). false with `error`
    /// set when the address is not one or the socket cannot be bound.
    bool Start(const std::string& address, uint16_t port, std::string& error);
    void Stop();
    /// The port it listens on (the one chosen for port 0), or 0 when it does not run.
    uint16_t Port() const;

    static constexpr int kMaxThreads = 2;
    static constexpr int kMaxQueued = 16;
    static constexpr int kTimeoutS = 5;

private:
    // Declared before the server, which uses it until it is destroyed.
    std::unique_ptr<Poco::ThreadPool> pool_;
    std::unique_ptr<Poco::Net::HTTPServer> server_;
};

}  // namespace Agent
