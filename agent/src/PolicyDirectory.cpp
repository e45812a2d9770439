#include "agent/PolicyDirectory.h"

#include <dirent.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

namespace Agent {

namespace {
bool ReadWhole(const std::string& path, std::string& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) return false;
    out = text.str();
    return true;
}
}  // namespace

std::string PolicyDirectory::KeyOf(const std::string& fileName) {
    static const std::string kSuffix = ".json";
    if (fileName.size() <= kSuffix.size() || fileName[0] == '.') return std::string();
    if (fileName.compare(fileName.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0) {
        return std::string();
    }
    return fileName.substr(0, fileName.size() - kSuffix.size());
}

std::vector<PolicyDirectory::Change> PolicyDirectory::Scan(std::vector<Problem>& problems) {
    std::map<std::string, std::string> files;  // key -> path
    if (DIR* d = opendir(dir_.c_str())) {
        while (struct dirent* entry = readdir(d)) {
            const std::string key = KeyOf(entry->d_name);
            if (!key.empty()) files[key] = dir_ + "/" + entry->d_name;
        }
        closedir(d);
    }
    std::vector<Change> changes;
    for (const auto& file : files) {
        struct stat st;
        if (stat(file.second.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        Seen& seen = seen_[file.first];
        const int64_t mtime =
            static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
        if (seen.mtimeNs == mtime && seen.size == st.st_size) continue;
        seen.mtimeNs = mtime;
        seen.size = st.st_size;
        std::string document;
        if (static_cast<size_t>(st.st_size) > kMaxDocumentBytes) {
            problems.push_back({file.second, "larger than 16 MiB"});
            continue;
        }
        if (!ReadWhole(file.second, document)) {
            problems.push_back({file.second, "cannot be read"});
            continue;
        }
        // A touch without a change of content is not a new policy.
        if (seen.delivered && document == seen.document) continue;
        seen.document = document;
        seen.delivered = true;
        changes.push_back({file.first, file.second, document});
    }
    return changes;
}

}  // namespace Agent
