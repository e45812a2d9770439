#pragma once

#include <cstddef>
#include <string>

namespace Engine {

/// Plain GET requests to the Docker Engine API over its Unix socket, one connection per
/// request, with a deadline on connect, send and receive. Stateless: any thread.
class DockerApiClient {
public:
    /// timeoutMs bounds each connect/send/receive step; maxBody bounds an answer's size.
    DockerApiClient(const std::string& socketPath, int timeoutMs, size_t maxBody);

    /// GETs `uri` ("/containers/json"). Returns the HTTP status with the whole body (chunked
    /// or not), or -1 with `error` set when the engine cannot be reached, breaks off, or the
    /// answer exceeds maxBody. Never throws.
    int Get(const std::string& uri, std::string& body, std::string& error) const;

    const std::string& SocketPath() const { return socketPath_; }

private:
    std::string socketPath_;
    int timeoutMs_;
    size_t maxBody_;
};

}  // namespace Engine
