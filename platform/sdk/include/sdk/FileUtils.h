#pragma once

#include <string>

namespace SDK {

class FileUtils {
public:
    /// Lower-case hex SHA-256 of a regular file, read in chunks (OpenSSL EVP). The file is opened
    /// non-blocking and checked after opening, so a FIFO or device swapped in at the path is
    /// refused instead of blocking. Refuses files larger than maxSize (maxSize < 0: no limit).
    /// Returns true and sets sha256 on success; false leaves sha256 unchanged.
    static bool GetFileSha256(const std::string& path, std::string& sha256, long maxSize);
    /// Opens a canonical path for reading without blocking and without following it to anything
    /// but a regular file (a symbolic link at the last component is refused): returns the fd
    /// (O_CLOEXEC, blocking mode restored) or -1.
    static int OpenRegularFileForRead(const std::string& path);
};

}  // namespace SDK
