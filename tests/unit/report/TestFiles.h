#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace ReportTest {

/// A scratch directory removed with everything in it.
class TempDir {
public:
    TempDir() {
        char templ[] = "/tmp/tarnwick-report-XXXXXX";
        const char* made = ::mkdtemp(templ);
        path_ = made != nullptr ? made : "";
    }
    ~TempDir() {
        if (!path_.empty()) std::system(("rm -rf '" + path_ + "'").c_str());
    }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

/// Caps the size of files this process writes (RLIMIT_FSIZE), the way a full disk cuts a
/// write short, without root; the limit goes back on destruction.
class FileSizeCap {
public:
    explicit FileSizeCap(rlim_t bytes) {
        ::signal(SIGXFSZ, SIG_IGN);  // EFBIG instead of the signal
        ::getrlimit(RLIMIT_FSIZE, &saved_);
        rlimit cap = saved_;
        cap.rlim_cur = bytes;
        ::setrlimit(RLIMIT_FSIZE, &cap);
    }
    ~FileSizeCap() { ::setrlimit(RLIMIT_FSIZE, &saved_); }

private:
    rlimit saved_{};
};

inline std::vector<std::string> ReadLines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

inline std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

/// Polls `condition` until it holds or `seconds` pass.
inline bool WaitFor(const std::function<bool()>& condition, int seconds = 10) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

/// A small alarm-like JSON document numbered n.
inline std::string Doc(int n, std::size_t pad = 0) {
    return "{\"n\":" + std::to_string(n) + ",\"pad\":\"" + std::string(pad, 'x') + "\"}";
}

}  // namespace ReportTest
