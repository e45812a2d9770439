#include "sdk/FileUtils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include <openssl/evp.h>

namespace SDK {

namespace {
constexpr size_t kReadChunk = 64 * 1024;

struct FdCloser {
    int fd;
    ~FdCloser() {
        if (fd >= 0) close(fd);
    }
};

struct MdCtxFree {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

std::string ToHex(const unsigned char* data, unsigned int len) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(len * 2);
    for (unsigned int i = 0; i < len; ++i) {
        out.push_back(kDigits[data[i] >> 4]);
        out.push_back(kDigits[data[i] & 0x0f]);
    }
    return out;
}
}  // namespace

int FileUtils::OpenRegularFileForRead(const std::string& path) {
    // O_NONBLOCK: opening a FIFO that a hostile writer swapped in must not wait for a writer.
    // O_NOFOLLOW: callers pass canonical paths, so a symbolic link found at the last component
    // was swapped in after they resolved it, and must not lead the read to another file.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return -1;
    }
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    return fd;
}

bool FileUtils::GetFileSha256(const std::string& path, std::string& sha256, long maxSize) {
    FdCloser file{OpenRegularFileForRead(path)};
    if (file.fd < 0) return false;
    struct stat st;
    if (fstat(file.fd, &st) != 0) return false;
    if (maxSize >= 0 && st.st_size > maxSize) return false;

    std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) return false;
    std::unique_ptr<unsigned char[]> buffer(new unsigned char[kReadChunk]);
    long total = 0;
    for (;;) {
        const ssize_t n = read(file.fd, buffer.get(), kReadChunk);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) break;
        total += n;
        // The file may grow while it is read; never hash more than the caller allowed.
        if (maxSize >= 0 && total > maxSize) return false;
        if (EVP_DigestUpdate(ctx.get(), buffer.get(), static_cast<size_t>(n)) != 1) return false;
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLen = 0;
    if (EVP_DigestFinal_ex(ctx.get(), digest, &digestLen) != 1) return false;
    sha256 = ToHex(digest, digestLen);
    return true;
}

}  // namespace SDK
