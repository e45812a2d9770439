#include "support/TempDir.h"

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

namespace fs = std::filesystem;

namespace TestSupport {

namespace {

// remove_all cannot empty a directory its owner made read-only or unsearchable: give every
// directory of the tree back to its owner first. Links are left alone, so nothing outside the
// tree changes mode.
void OpenUp(const fs::path& dir) {
    std::error_code ec;
    fs::permissions(dir, fs::perms::owner_all, fs::perm_options::add, ec);
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->symlink_status(ec).type() == fs::file_type::directory) OpenUp(it->path());
    }
}

}  // namespace

TempDir::TempDir(const std::string& prefix) {
    std::string templ = "/tmp/" + prefix + "-XXXXXX";
    std::vector<char> buffer(templ.begin(), templ.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + templ);
    }
    path_ = buffer.data();
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
    const fs::file_status status = fs::symlink_status(path, ec);
    if (ec || status.type() == fs::file_type::not_found) return true;
    if (status.type() == fs::file_type::directory) OpenUp(path);
    fs::remove_all(path, ec);
    return !ec && !fs::exists(fs::symlink_status(path, ec));
}

}  // namespace TestSupport
