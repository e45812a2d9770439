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
    /// Opens a canonical path for reading when it is a regular file: never blocks, never opens
    /// a device or FIFO, refuses a symbolic link at the last component. Returns the fd
    /// (O_CLOEXEC) or -1. Inside a RootConfinement the path must lie below its root.
    static int OpenRegularFileForRead(const std::string& path);
    /// An O_PATH descriptor of `path` itself (a link at the last component is not followed),
    /// or -1. Inside a RootConfinement the path is resolved within its root, else refused.
    static int OpenPathNoFollow(const std::string& path);
    /// Opens the inode that the O_PATH descriptor `pathFd` holds for reading; fd or -1.
    static int ReopenForRead(int pathFd);
    /// Creates `dir` and the directories above it that are missing (mode 0750, like mkdir -p);
    /// false with errno set when one cannot be made.
    static bool MakeDirs(const std::string& dir);
    /// MakeDirs for the directory `path` lies in.
    static bool MakeParentDirs(const std::string& path);
    /// "<what>: <strerror(errno)>", for errors that name the failing call's subject.
    static std::string ErrnoText(const std::string& what);
};

}  // namespace SDK
