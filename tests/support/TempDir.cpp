#include "support/TempDir.h"

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace fs = std::filesystem;

namespace TestSupport {

TempDir::TempDir(const std::string& prefix) : path_("/tmp/" + prefix + "-XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + path_);
    }
}

TempDir::~TempDir() { RemoveTree(path_); }

std::string TempDir::File(const std::string& name, const std::string& content) const {
    const std::string path = *this / name;
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    return path;
}

std::string TempDir::Dir(const std::string& name) const {
    const std::string path = *this / name;
    std::error_code ec;
    fs::create_directories(path, ec);
    return path;
}

bool TempDir::RemoveTree(const std::string& path) {
    std::error_code ec;
    const fs::file_type type = fs::symlink_status(path, ec).type();
    if (ec || type == fs::file_type::not_found) return true;
    // remove_all cannot empty a directory its owner made read-only or unsearchable: each
    // directory is given back to its owner before the walk enters it. Links are not followed,
    // so nothing outside the tree changes mode.
    if (type == fs::file_type::directory) {
        std::error_code ignored;
        fs::permissions(path, fs::perms::owner_all, fs::perm_options::add, ignored);
        for (fs::recursive_directory_iterator it(path, ec), end; !ec && it != end;
             it.increment(ec)) {
            if (it->symlink_status(ignored).type() != fs::file_type::directory) continue;
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
        }
    }
    fs::remove_all(path, ec);
    return !ec && !fs::exists(fs::symlink_status(path, ec));
}

}  // namespace TestSupport
