#pragma once

#include <Poco/Net/StreamSocket.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <istream>
#include <mutex>
#include <string>
#include <thread>

#include "container/DockerDocuments.h"

namespace Engine {

/// Follows the engine's container start/die events on a thread of its own. It connects,
/// reports each (re)connection, hands every event to a callback and, when the engine goes
/// away, reconnects with a growing delay. It waits on nothing but the socket: the callbacks
/// must return at once (they only queue work for another thread).
class DockerEventStream {
public:
    struct Callbacks {
        /// The stream is open again: events from now on arrive; earlier ones may be lost.
        std::function<void()> onConnected;
        std::function<void(const ContainerEvent&)> onEvent;
        /// A stream that was open has ended (engine gone, socket closed, stop).
        std::function<void()> onDisconnected;
    };

    /// Longest event line taken; longer lines are skipped and counted.
    static constexpr size_t kMaxLineBytes = 64 * 1024;

    DockerEventStream(const std::string& socketPath, Callbacks callbacks);
    ~DockerEventStream();  ///< Stops and joins the thread.
    DockerEventStream(const DockerEventStream&) = delete;
    DockerEventStream& operator=(const DockerEventStream&) = delete;

    /// Starts the thread; false when it already runs.
    bool Start();
    /// Wakes the thread out of a read or a back-off wait and joins it. Idempotent.
    void Stop();

    /// Reads one '\n'-terminated line of at most maxBytes into `line`. Returns false at end
    /// of stream; `tooLong` tells that the line was cut (its rest is consumed and dropped).
    static bool ReadLine(std::istream& in, std::string& line, size_t maxBytes, bool& tooLong);

private:
    void Loop();
    // One connection: true when it got as far as reading events.
    bool FollowOnce();
    void HandleLine(const std::string& line);
    bool WaitBackoff(int delayMs);

    std::string socketPath_;
    Callbacks callbacks_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;  // guards socket_ (shut down from Stop) and wakes the back-off wait
    std::condition_variable wake_;
    Poco::Net::StreamSocket socket_;
    bool haveSocket_ = false;
};

}  // namespace Engine
