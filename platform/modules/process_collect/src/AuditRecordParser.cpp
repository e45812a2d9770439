#include "process_collect/AuditRecordParser.h"

#include <cctype>

namespace Engine {

namespace {
const char kHeaderPrefix[] = "audit(";

bool IsDigits(const std::string& text) {
    if (text.empty()) return false;
    for (char c : text) {
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    }
    return true;
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// "audit(1795391830.115:2): " -> timestamp and serial; `pos` ends after the header.
bool ParseHeader(const std::string& text, std::size_t& pos, AuditRecord& out, std::string& error) {
    if (text.compare(0, sizeof(kHeaderPrefix) - 1, kHeaderPrefix) != 0) {
        error = "no audit( header";
        return false;
    }
    const std::size_t start = sizeof(kHeaderPrefix) - 1;
    const std::size_t close = text.find(')', start);
    if (close == std::string::npos) {
        error = "unterminated header";
        return false;
    }
    const std::string stamp = text.substr(start, close - start);
    const std::size_t colon = stamp.find(':');
    const std::size_t dot = stamp.find('.');
    if (colon == std::string::npos || dot == std::string::npos || dot > colon) {
        error = "bad header stamp";
        return false;
    }
    const std::string seconds = stamp.substr(0, dot);
    const std::string millis = stamp.substr(dot + 1, colon - dot - 1);
    const std::string serial = stamp.substr(colon + 1);
    if (!IsDigits(seconds) || !IsDigits(millis) || !IsDigits(serial) || serial.size() > 19) {
        error = "bad header stamp";
        return false;
    }
    out.timestamp = seconds + "." + millis;
    out.serial = std::stoull(serial);
    pos = close + 1;
    if (pos < text.size() && text[pos] == ':') ++pos;
    return true;
}

// Reads one value starting at `pos`: "quoted", 'quoted' (kept with its quotes) or bare.
bool ReadValue(const std::string& text, std::size_t& pos, std::string& value, std::string& error) {
    const char first = pos < text.size() ? text[pos] : ' ';
    if (first == '"' || first == '\'') {
        const std::size_t end = text.find(first, pos + 1);
        if (end == std::string::npos) {
            error = "unterminated quoted value";
            return false;
        }
        value = text.substr(pos, end - pos + 1);
        pos = end + 1;
        return true;
    }
    std::size_t end = pos;
    while (end < text.size() && text[end] != ' ') ++end;
    value = text.substr(pos, end - pos);
    pos = end;
    return true;
}
}  // namespace

bool AuditRecordParser::Parse(int type, const char* data, std::size_t len, AuditRecord& out,
                              std::string& error) {
    if (data == nullptr || len == 0) {
        error = "empty record";
        return false;
    }
    if (len > kMaxTextLength) {
        error = "record too long";
        return false;
    }
    // The kernel pads records with NULs and newlines; they carry nothing.
    while (len > 0 && (data[len - 1] == '\0' || data[len - 1] == '\n')) --len;
    const std::string text(data, len);
    if (text.find('\0') != std::string::npos) {
        error = "NUL inside record";
        return false;
    }
    out = AuditRecord();
    out.type = type;
    std::size_t pos = 0;
    if (!ParseHeader(text, pos, out, error)) return false;
    while (pos < text.size()) {
        if (text[pos] == ' ') {
            ++pos;
            continue;
        }
        std::size_t nameEnd = pos;
        while (nameEnd < text.size() && text[nameEnd] != '=' && text[nameEnd] != ' ') ++nameEnd;
        if (nameEnd >= text.size() || text[nameEnd] == ' ') {
            pos = nameEnd;  // a bare word (some record types have them): not a field
            continue;
        }
        if (nameEnd == pos) {
            error = "field without a name";
            return false;
        }
        std::string name = text.substr(pos, nameEnd - pos);
        pos = nameEnd + 1;
        std::string value;
        if (!ReadValue(text, pos, value, error)) return false;
        if (out.fields.size() >= kMaxFields) {
            error = "too many fields";
            return false;
        }
        out.fields.emplace_back(std::move(name), std::move(value));
    }
    return true;
}

std::string AuditRecordParser::DecodeUntrusted(const std::string& raw, bool* isNull) {
    if (isNull != nullptr) *isNull = false;
    if (raw == "(null)") {
        if (isNull != nullptr) *isNull = true;
        return std::string();
    }
    if (raw.size() >= 2 && raw.front() == '"' && raw.back() == '"') {
        return raw.substr(1, raw.size() - 2);
    }
    std::string decoded;
    if (HexDecode(raw, decoded)) return decoded;
    return raw;
}

bool AuditRecordParser::HexDecode(const std::string& hex, std::string& out) {
    if (hex.empty() || hex.size() % 2 != 0) return false;
    std::string bytes;
    bytes.reserve(hex.size() / 2);
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const int hi = HexValue(hex[i]);
        const int lo = HexValue(hex[i + 1]);
        if (hi < 0 || lo < 0) return false;
        bytes.push_back(static_cast<char>(hi * 16 + lo));
    }
    out.swap(bytes);
    return true;
}

}  // namespace Engine
