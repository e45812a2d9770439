#pragma once

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace TestSupport {

/// Whole-file reads and writes for setting up and checking test files.
class FileText {
public:
    /// The file's bytes; "" when it cannot be read.
    static std::string Read(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    /// The file's lines without their newlines; none when it cannot be read.
    static std::vector<std::string> Lines(const std::string& path) {
        std::ifstream in(path);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }
    /// Replaces the file's content with `text`; false when it could not be written.
    static bool Write(const std::string& path, const std::string& text) {
        return Put(path, text, std::ios::trunc);
    }
    /// Adds `text` at the file's end, creating it; false when it could not be written.
    static bool Append(const std::string& path, const std::string& text) {
        return Put(path, text, std::ios::app);
    }

private:
    static bool Put(const std::string& path, const std::string& text, std::ios::openmode mode) {
        std::ofstream out(path, std::ios::binary | mode);
        out << text;
        out.close();  // a full disk shows when the last bytes are written out
        return out.good();
    }
};

}  // namespace TestSupport
