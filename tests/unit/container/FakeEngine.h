#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/TempDir.h"

namespace Engine {
namespace Testing {

/// A stand-in HTTP server on a Unix socket in its own temporary directory, for the answers a
/// real engine cannot be made to give (broken, truncated, oversized) and for dropping the
/// event stream at will. /events requests get a chunked 200 and stay open; every other
/// request is answered by the responder with raw HTTP text, then closed.
class FakeEngine {
public:
    using Responder = std::function<std::string(const std::string& path)>;

    explicit FakeEngine(Responder responder);
    ~FakeEngine();
    FakeEngine(const FakeEngine&) = delete;
    FakeEngine& operator=(const FakeEngine&) = delete;

    const std::string& SocketPath() const { return socketPath_; }
    /// Sends one event line as a chunk to every open event stream.
    void PushEvent(const std::string& line);
    /// Closes every open event stream (an engine restart, as the client sees it).
    void DropEventStreams();
    size_t OpenEventStreams();
    /// Paths of the requests seen so far, in order.
    std::vector<std::string> Requests();

    /// A complete answer with a Content-Length body.
    static std::string Answer(int status, const std::string& body);
    /// A complete answer with the body in chunks of at most chunkSize bytes.
    static std::string ChunkedAnswer(const std::string& body, size_t chunkSize);

private:
    void Serve();
    void HandleConnection(int fd);

    Responder responder_;
    TestSupport::TempDir dir_{"tarnwick-fake-engine"};
    std::string socketPath_;
    int listenFd_ = -1;
    int wakePipe_[2] = {-1, -1};
    std::thread thread_;
    std::mutex mutex_;  // guards streams_ and requests_
    std::vector<int> streams_;
    std::vector<std::string> requests_;
};

}  // namespace Testing
}  // namespace Engine
