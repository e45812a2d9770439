#pragma once

#include <sys/resource.h>

#include <csignal>
#include <string>

namespace ReportTest {

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

/// A small alarm-like JSON document numbered n.
inline std::string Doc(int n, std::size_t pad = 0) {
    return "{\"n\":" + std::to_string(n) + ",\"pad\":\"" + std::string(pad, 'x') + "\"}";
}

}  // namespace ReportTest
