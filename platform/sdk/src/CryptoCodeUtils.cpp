#include "sdk/CryptoCodeUtils.h"

#include <Poco/UUIDGenerator.h>
#include <sys/random.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace SDK {

namespace {
constexpr std::size_t kUuidBytes = 16;
// Random bytes are fetched for many UUIDs at a time: one getrandom(2) per 256 alarms instead of
// opening, reading and closing /dev/urandom for every one.
constexpr std::size_t kPoolBytes = 256 * kUuidBytes;

struct RandomPool {
    unsigned char bytes[kPoolBytes];
    std::size_t next = kPoolBytes;

    bool Take(unsigned char* out) {
        if (next == kPoolBytes && !Refill()) return false;
        for (std::size_t i = 0; i < kUuidBytes; ++i) out[i] = bytes[next + i];
        next += kUuidBytes;
        return true;
    }

    bool Refill() {
        std::size_t filled = 0;
        while (filled < kPoolBytes) {
            const ssize_t n = getrandom(bytes + filled, kPoolBytes - filled, 0);
            if (n < 0) {
                if (errno == EINTR) continue;
                return false;
            }
            filled += static_cast<std::size_t>(n);
        }
        next = 0;
        return true;
    }
};

std::string FormatVersion4(unsigned char* b) {
    static const char kHex[] = "0123456789abcdef";
    b[6] = static_cast<unsigned char>((b[6] & 0x0f) | 0x40);  // version 4
    b[8] = static_cast<unsigned char>((b[8] & 0x3f) | 0x80);  // RFC 4122 variant
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < kUuidBytes; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += kHex[b[i] >> 4];
        text += kHex[b[i] & 0x0f];
    }
    return text;
}
}  // namespace

std::string CryptoCodeUtils::GenerateUUID() {
    // One pool per thread: no lock, and no two threads ever hand out the same bytes.
    thread_local RandomPool pool;
    unsigned char bytes[kUuidBytes];
    if (pool.Take(bytes)) return FormatVersion4(bytes);
    return Poco::UUIDGenerator::defaultGenerator().createRandom().toString();
}

}  // namespace SDK
