#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "report/Spool.h"

namespace ReportTest {

using Lines = std::vector<std::string>;

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

/// Doc(from, pad) .. Doc(to - 1, pad).
inline Lines Docs(int from, int to, std::size_t pad = 0) {
    Lines docs;
    for (int n = from; n < to; ++n) docs.push_back(Doc(n, pad));
    return docs;
}

/// A spool opened in `dir`; the test fails when it cannot be opened.
inline std::unique_ptr<Report::Spool> OpenSpool(const std::string& dir,
                                                uint64_t maxBytes = 1 << 20) {
    auto spool = std::make_unique<Report::Spool>(dir, maxBytes);
    std::string error;
    EXPECT_TRUE(spool->Open(error)) << error;
    return spool;
}

}  // namespace ReportTest
