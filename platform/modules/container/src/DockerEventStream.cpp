#include "container/DockerEventStream.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Timespan.h>
#include <Poco/URI.h>

#include <algorithm>
#include <chrono>
#include <exception>

#include "container/ContainerModule.h"
#include "framework/DegradedCounter.h"
#include "sdk/Log.h"

namespace Engine {

namespace {
constexpr int kConnectTimeoutMs = 5000;
constexpr int kFirstBackoffMs = 250;
constexpr int kMaxBackoffMs = 16000;
constexpr uint64_t kWarnIntervalMs = 5000;

Framework::DegradedCounter gMalformed("container.events.malformed", kWarnIntervalMs);
// Told every time: the reconnect backoff already bounds how often.
Framework::DegradedCounter gReconnects("container.engine.reconnects", 0);

std::string EventsUri() {
    std::string encoded;
    Poco::URI::encode(ContainerEventFilters(), "?#/:;+@&=", encoded);
    return "/events?filters=" + encoded;
}
}  // namespace

DockerEventStream::DockerEventStream(const std::string& socketPath, Callbacks callbacks)
    : socketPath_(socketPath), callbacks_(std::move(callbacks)) {}

DockerEventStream::~DockerEventStream() { Stop(); }

bool DockerEventStream::Start() {
    if (thread_.joinable()) return false;
    stop_ = false;
    thread_ = std::thread([this] { Loop(); });
    return true;
}

void DockerEventStream::Stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
        if (haveSocket_) {
            try {
                // Wakes the reader blocked in recv; the socket itself is closed by its owner.
                socket_.shutdown();
            } catch (const Poco::Exception&) {
                // Not connected (any more): nothing to wake.
            }
        }
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

bool DockerEventStream::ReadLine(std::istream& in, std::string& line, size_t maxBytes,
                                 bool& tooLong) {
    line.clear();
    tooLong = false;
    std::streambuf* buf = in.rdbuf();
    bool any = false;
    for (;;) {
        const int c = buf->sbumpc();
        if (c == std::char_traits<char>::eof()) return any;
        any = true;
        if (c == '\n') return true;
        if (line.size() < maxBytes) {
            line.push_back(static_cast<char>(c));
        } else {
            tooLong = true;
        }
    }
}

void DockerEventStream::Loop() {
    Poco::Logger* log = ContainerModule::GetLoggerPtr();
    int delayMs = kFirstBackoffMs;
    while (!stop_) {
        if (FollowOnce()) delayMs = kFirstBackoffMs;
        if (stop_) break;
        TW_DEGRADED(gReconnects, 1, log, PRIO_WARNING,
                    "Docker monitor lost the engine's event stream on %s; reconnecting in %d ms",
                    socketPath_, delayMs);
        if (!WaitBackoff(delayMs)) break;
        delayMs = std::min(delayMs * 2, kMaxBackoffMs);
    }
}

bool DockerEventStream::WaitBackoff(int delayMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait_for(lock, std::chrono::milliseconds(delayMs), [this] { return stop_.load(); });
    return !stop_;
}

bool DockerEventStream::FollowOnce() {
    Poco::Logger* log = ContainerModule::GetLoggerPtr();
    bool reading = false;
    try {
        Poco::Net::StreamSocket socket;
        socket.connect(
            Poco::Net::SocketAddress(Poco::Net::SocketAddress::UNIX_LOCAL, socketPath_),
            Poco::Timespan(static_cast<Poco::Timespan::TimeDiff>(kConnectTimeoutMs) * 1000));
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stop_) return false;
            socket_ = socket;
            haveSocket_ = true;
        }
        Poco::Net::HTTPClientSession session(socket);
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, EventsUri(),
                                       Poco::Net::HTTPMessage::HTTP_1_1);
        request.setHost("localhost");
        session.sendRequest(request);
        Poco::Net::HTTPResponse response;
        std::istream& in = session.receiveResponse(response);
        if (response.getStatus() != Poco::Net::HTTPResponse::HTTP_OK) {
            TW_LOG(log, PRIO_ERROR, "Docker monitor event stream refused: HTTP %d %s",
                   static_cast<int>(response.getStatus()), response.getReason());
        } else {
            reading = true;
            TW_LOG(log, PRIO_INFORMATION, "Docker monitor following container events on %s",
                   socketPath_);
            if (callbacks_.onConnected) callbacks_.onConnected();
            std::string line;
            bool tooLong = false;
            while (!stop_ && ReadLine(in, line, kMaxLineBytes, tooLong)) {
                if (tooLong) {
                    TW_DEGRADED(gMalformed, 1, log, PRIO_WARNING,
                                "Docker monitor skipped an event line over %z bytes",
                                kMaxLineBytes);
                    continue;
                }
                HandleLine(line);
            }
        }
    } catch (const Poco::Exception& e) {
        if (!stop_) {
            TW_LOG(log, PRIO_WARNING, "Docker monitor event stream on %s failed: %s", socketPath_,
                   e.displayText());
        }
    } catch (const std::exception& e) {
        if (!stop_) {
            TW_LOG(log, PRIO_WARNING, "Docker monitor event stream on %s failed: %s", socketPath_,
                   std::string(e.what()));
        }
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        haveSocket_ = false;
        socket_ = Poco::Net::StreamSocket();
    }
    if (reading && callbacks_.onDisconnected) callbacks_.onDisconnected();
    return reading;
}

void DockerEventStream::HandleLine(const std::string& line) {
    if (line.empty() || line == "\r") return;
    ContainerEvent event;
    std::string error;
    switch (ParseContainerEvent(line, event, error)) {
        case EventLineResult::kEvent:
            if (callbacks_.onEvent) callbacks_.onEvent(event);
            return;
        case EventLineResult::kIgnored:
            return;
        case EventLineResult::kMalformed:
            break;
    }
    TW_DEGRADED(gMalformed, 1, ContainerModule::GetLoggerPtr(), PRIO_WARNING,
                "Docker monitor dropped a malformed event (%s): %s", error, line.substr(0, 200));
}

}  // namespace Engine
