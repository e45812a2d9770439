// SHA-256 throughput of the agent's own file hashing (SDK::FileUtils::GetFileSha256) on one
// file, hot cache: the file is read once before timing, then hashed REPEAT times.
//   hash_bench FILE [REPEAT]
// Prints the digest, the best and the median MB/s (10^6 bytes per second, like openssl speed).
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "sdk/FileUtils.h"

namespace {

int Usage() {
    std::fprintf(stderr, "usage: hash_bench FILE [REPEAT]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) return Usage();
    const std::string path = argv[1];
    const int repeat = argc == 3 ? std::atoi(argv[2]) : 5;
    if (repeat < 1) return Usage();
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        std::fprintf(stderr, "hash_bench: %s is not a regular file\n", path.c_str());
        return 2;
    }

    std::string digest;
    // Warm-up: brings the file into the page cache, so that the timed runs measure hashing.
    if (!SDK::FileUtils::GetFileSha256(path, digest, -1)) {
        std::fprintf(stderr, "hash_bench: cannot hash %s\n", path.c_str());
        return 1;
    }
    std::vector<double> rates;
    for (int i = 0; i < repeat; ++i) {
        const auto start = std::chrono::steady_clock::now();
        if (!SDK::FileUtils::GetFileSha256(path, digest, -1)) return 1;
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        rates.push_back(static_cast<double>(st.st_size) / took.count() / 1e6);
    }
    std::sort(rates.begin(), rates.end());
    std::printf("sha256 %s\nbytes %lld runs %d best %.1f MB/s median %.1f MB/s\n", digest.c_str(),
                static_cast<long long>(st.st_size), repeat, rates.back(), rates[rates.size() / 2]);
    return 0;
}
