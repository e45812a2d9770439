#pragma once

#include <string>

namespace SDK {

class PathUtils {
public:
    /// The last component of a path ("a/b/c.cpp" -> "c.cpp"; "c.cpp" -> "c.cpp").
    static std::string GetFileNameFromPath(const std::string& path);
    /// realpath() of a path that exists; empty when it does not or cannot be resolved.
    static std::string GetExistedCanonicalizePath(const std::string& path);
    /// The path without the slashes it ends with ("/a/b//" -> "/a/b"); "/" stays "/".
    static std::string StripTrailingSlashes(std::string path);
};

}  // namespace SDK
