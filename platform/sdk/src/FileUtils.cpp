#include "sdk/FileUtils.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "sdk/ContainerRoot.h"
#include "sdk/RootConfinement.h"
#include "sdk/UniqueFd.h"

namespace SDK {

namespace {
// Read in chunks that stay in the L2 cache while they are hashed, few enough system calls per
// megabyte that the digest, not the reading, sets the pace.
constexpr size_t kReadChunk = 256 * 1024;

struct MdCtxFree {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

// The digest fetched once: an implicit fetch by EVP_sha256() looks the provider up every call.
const EVP_MD* Sha256() {
    static const EVP_MD* md = [] {
        const EVP_MD* fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
        return fetched != nullptr ? fetched : EVP_sha256();
    }();
    return md;
}

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

int FileUtils::OpenPathNoFollow(const std::string& path) {
    if (const std::string* root = RootConfinement::Current()) {
        const ContainerRoot container(*root);
        std::string inner;
        if (!container.IsOpen() || !container.InnerOf(path, inner)) {
            errno = EXDEV;
            return -1;
        }
        return container.Open(inner, O_PATH, false);
    }
    return open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
}

int FileUtils::ReopenForRead(int pathFd) {
    // Reopening through /proc reaches the very inode the O_PATH descriptor holds, whatever the
    // path names by now.
    const std::string link = "/proc/self/fd/" + std::to_string(pathFd);
    return open(link.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC);
}

int FileUtils::OpenRegularFileForRead(const std::string& path) {
    // O_PATH first: nothing is opened for reading until it is known to be a regular file, so
    // a FIFO never blocks and a device is never opened. Callers pass canonical paths, so a
    // symbolic link found at the last component was swapped in after they resolved it and is
    // refused rather than followed.
    UniqueFd handle(OpenPathNoFollow(path));
    if (!handle.Valid()) return -1;
    struct stat st;
    if (fstat(handle.Get(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
    return ReopenForRead(handle.Get());
}

bool FileUtils::GetFileSha256(const std::string& path, std::string& sha256, long maxSize) {
    UniqueFd file(OpenRegularFileForRead(path));
    if (!file.Valid()) return false;
    struct stat st;
    if (fstat(file.Get(), &st) != 0) return false;
    if (maxSize >= 0 && st.st_size > maxSize) return false;

    std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), Sha256(), nullptr) != 1) return false;
    (void)posix_fadvise(file.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    // One buffer per hashing thread, kept: a fresh one this large would be mapped and faulted
    // in on every call.
    thread_local std::unique_ptr<unsigned char[]> buffer(new unsigned char[kReadChunk]);
    long total = 0;
    for (;;) {
        const ssize_t n = read(file.Get(), buffer.get(), kReadChunk);
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

bool FileUtils::MakeDirs(const std::string& dir) {
    for (std::size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
        const std::string part = dir.substr(0, slash);
        if (!part.empty() && ::mkdir(part.c_str(), 0750) != 0 && errno != EEXIST) return false;
        if (slash == std::string::npos) return true;
    }
}

bool FileUtils::MakeParentDirs(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0) return true;
    return MakeDirs(path.substr(0, slash));
}

std::string FileUtils::ErrnoText(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

}  // namespace SDK
