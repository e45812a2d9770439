#include "FakeEngine.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace Engine {
namespace Testing {

namespace {
bool WriteAll(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

std::string Chunk(const std::string& data) {
    char size[32];
    std::snprintf(size, sizeof size, "%zx\r\n", data.size());
    return size + data + "\r\n";
}
}  // namespace

FakeEngine::FakeEngine(Responder responder) : responder_(std::move(responder)) {
    socketPath_ = dir_ / "docker.sock";
    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socketPath_.c_str(), sizeof(addr.sun_path) - 1);
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listenFd_, 16) != 0 || ::pipe(wakePipe_) != 0) {
        return;
    }
    thread_ = std::thread([this] { Serve(); });
}

FakeEngine::~FakeEngine() {
    if (wakePipe_[1] >= 0) (void)!::write(wakePipe_[1], "x", 1);
    if (thread_.joinable()) thread_.join();
    DropEventStreams();
    for (int fd : {listenFd_, wakePipe_[0], wakePipe_[1]}) {
        if (fd >= 0) ::close(fd);
    }
}

void FakeEngine::Serve() {
    for (;;) {
        pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) continue;
        if (fds[1].revents != 0) return;
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) HandleConnection(fd);
    }
}

void FakeEngine::HandleConnection(int fd) {
    std::string request;
    char buf[4096];
    while (request.find("\r\n\r\n") == std::string::npos) {
        pollfd p = {fd, POLLIN, 0};
        if (::poll(&p, 1, 2000) <= 0) break;
        const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) break;
        request.append(buf, static_cast<size_t>(n));
    }
    const size_t start = request.find(' ');
    const size_t end = request.find(' ', start + 1);
    const std::string path =
        start == std::string::npos ? "" : request.substr(start + 1, end - start - 1);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(path);
    }
    if (path.rfind("/events", 0) == 0) {
        WriteAll(fd,
                 "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
                 "Transfer-Encoding: chunked\r\n\r\n");
        std::lock_guard<std::mutex> lock(mutex_);
        streams_.push_back(fd);
        return;
    }
    WriteAll(fd, responder_(path));
    ::close(fd);
}

void FakeEngine::PushEvent(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int fd : streams_) WriteAll(fd, Chunk(line + "\n"));
}

void FakeEngine::DropEventStreams() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int fd : streams_) ::close(fd);
    streams_.clear();
}

size_t FakeEngine::OpenEventStreams() {
    std::lock_guard<std::mutex> lock(mutex_);
    return streams_.size();
}

std::vector<std::string> FakeEngine::Requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

std::string FakeEngine::Answer(int status, const std::string& body) {
    return "HTTP/1.1 " + std::to_string(status) +
           " X\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string FakeEngine::ChunkedAnswer(const std::string& body, size_t chunkSize) {
    std::string out =
        "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
        "Transfer-Encoding: chunked\r\n\r\n";
    for (size_t i = 0; i < body.size(); i += chunkSize) out += Chunk(body.substr(i, chunkSize));
    return out + "0\r\n\r\n";
}

}  // namespace Testing
}  // namespace Engine
