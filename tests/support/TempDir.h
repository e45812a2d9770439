#pragma once

#include <string>

namespace TestSupport {

/// A fresh directory under /tmp, removed with everything in it when the object goes. Made in
/// the constructor, which throws std::system_error when it cannot (a test must never go on to
/// write below an empty path). Not copyable: one owner removes the tree.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "tarnwick");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return path_; }
    /// Path() + "/" + name; creates nothing.
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    /// Writes `content` to the file `name` below the directory; its full path.
    std::string File(const std::string& name, const std::string& content) const;
    /// Creates the directory `name` below the directory, with its parents; its full path.
    std::string Dir(const std::string& name) const;

    /// Removes `path` and everything below it, even directories left without write or search
    /// permission; links are removed, never followed. True when nothing is left.
    static bool RemoveTree(const std::string& path);

private:
    std::string path_;
};

}  // namespace TestSupport
