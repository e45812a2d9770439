#pragma once

#include <string>
#include <vector>

namespace TestSupport {

/// Whole-file reads and writes for setting up and checking test files.
class FileText {
public:
    /// The file's bytes; "" when it cannot be read.
    static std::string Read(const std::string& path);
    /// The file's lines without their newlines; none when it cannot be read.
    static std::vector<std::string> Lines(const std::string& path);
    /// Replaces the file's content with `text`; false when it could not be written.
    static bool Write(const std::string& path, const std::string& text);
    /// Adds `text` at the file's end, creating it; false when it could not be written.
    static bool Append(const std::string& path, const std::string& text);
};

}  // namespace TestSupport
