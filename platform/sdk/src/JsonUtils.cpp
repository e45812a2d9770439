#include "sdk/JsonUtils.h"

#include <charconv>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <system_error>

namespace SDK {

namespace {
// Length of the well-formed UTF-8 sequence at `p` (no overlong forms, no surrogates, nothing
// above U+10FFFF), 0 when there is none.
std::size_t Utf8SequenceAt(const unsigned char* p, const unsigned char* end) {
    const unsigned char lead = *p;
    if (lead < 0x80) return 1;
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (static_cast<std::size_t>(end - p) < length) return 0;
    if (p[1] < low || p[1] > high) return 0;
    for (std::size_t k = 2; k < length; ++k) {
        if (p[k] < 0x80 || p[k] > 0xBF) return 0;
    }
    return length;
}

uint32_t DecodeUtf8(const unsigned char* p, std::size_t length) {
    static const unsigned char kLeadBits[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    uint32_t codepoint = p[0] & kLeadBits[length];
    for (std::size_t k = 1; k < length; ++k) codepoint = (codepoint << 6) | (p[k] & 0x3F);
    return codepoint;
}

void AppendUnicodeEscape(std::string& out, uint32_t unit) {
    static const char kHex[] = "0123456789abcdef";
    const char escape[6] = {'\\',
                            'u',
                            kHex[(unit >> 12) & 0xF],
                            kHex[(unit >> 8) & 0xF],
                            kHex[(unit >> 4) & 0xF],
                            kHex[unit & 0xF]};
    out.append(escape, sizeof(escape));
}

void AppendCodepoint(std::string& out, uint32_t codepoint) {
    if (codepoint < 0x10000) {
        AppendUnicodeEscape(out, codepoint);
        return;
    }
    AppendUnicodeEscape(out, 0xD800 + ((codepoint - 0x10000) >> 10));
    AppendUnicodeEscape(out, 0xDC00 + ((codepoint - 0x10000) & 0x3FF));
}

// A JSON string of ASCII only, escaped the way JsonCpp escapes (control characters and
// everything beyond ASCII as \u escapes, surrogate pairs above U+FFFF). File names and other
// text from containers need not be UTF-8; JsonCpp would escape such bytes as if they were and
// so write a different, plausible character instead: an alarm must rather show plainly that a
// byte could not be written, as U+FFFD.
void AppendQuoted(std::string& out, const char* text, const char* textEnd) {
    const auto* p = reinterpret_cast<const unsigned char*>(text);
    const auto* end = reinterpret_cast<const unsigned char*>(textEnd);
    out += '"';
    const unsigned char* plain = p;  // start of bytes copied as they are
    while (p < end) {
        const unsigned char c = *p;
        if (c >= 0x20 && c < 0x80 && c != '"' && c != '\\') {
            ++p;
            continue;
        }
        out.append(reinterpret_cast<const char*>(plain), static_cast<std::size_t>(p - plain));
        std::size_t length = 1;
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    AppendUnicodeEscape(out, c);
                    break;
                }
                length = Utf8SequenceAt(p, end);
                if (length == 0) {
                    AppendUnicodeEscape(out, 0xFFFD);
                    length = 1;
                    break;
                }
                AppendCodepoint(out, DecodeUtf8(p, length));
        }
        p += length;
        plain = p;
    }
    out.append(reinterpret_cast<const char*>(plain), static_cast<std::size_t>(p - plain));
    out += '"';
}

bool IsValidUtf8(const char* text, const char* textEnd) {
    const auto* p = reinterpret_cast<const unsigned char*>(text);
    const auto* end = reinterpret_cast<const unsigned char*>(textEnd);
    while (p < end) {
        const std::size_t length = Utf8SequenceAt(p, end);
        if (length == 0) return false;
        p += length;
    }
    return true;
}

// `text` with U+FFFD for every byte that is not part of a well-formed sequence.
std::string ValidUtf8(const char* text, const char* textEnd) {
    const auto* p = reinterpret_cast<const unsigned char*>(text);
    const auto* end = reinterpret_cast<const unsigned char*>(textEnd);
    std::string out;
    while (p < end) {
        const std::size_t length = Utf8SequenceAt(p, end);
        if (length == 0) {
            out += "\xEF\xBF\xBD";
            ++p;
            continue;
        }
        out.append(reinterpret_cast<const char*>(p), length);
        p += length;
    }
    return out;
}

// The object as it reads back once its names are written: members under their repaired names,
// in the order of those names, the last of two that became alike winning.
Json::Value WithRepairedNames(const Json::Value& object) {
    Json::Value out(Json::objectValue);
    for (auto it = object.begin(); it != object.end(); ++it) {
        const char* end = nullptr;
        const char* name = it.memberName(&end);
        out[ValidUtf8(name, end)] = *it;
    }
    return out;
}

template <typename Integer>
void AppendInteger(std::string& out, Integer value) {
    char digits[24];
    const auto result = std::to_chars(digits, digits + sizeof(digits), value);
    out.append(digits, result.ptr);
}

// Compact JSON, member order and number forms as JsonCpp's writers give them, appended
// straight to one string: JsonCpp's own writers copy every member name into a list and look
// each member up again, which made serialising an alarm cost more than building it.
void AppendValue(std::string& out, const Json::Value& value) {
    switch (value.type()) {
        case Json::nullValue:
            out += "null";
            return;
        case Json::intValue:
            AppendInteger(out, value.asLargestInt());
            return;
        case Json::uintValue:
            AppendInteger(out, value.asLargestUInt());
            return;
        case Json::realValue:
            out += Json::valueToString(value.asDouble());
            return;
        case Json::stringValue: {
            const char* begin = nullptr;
            const char* end = nullptr;
            if (!value.getString(&begin, &end)) begin = end = "";
            AppendQuoted(out, begin, end);
            return;
        }
        case Json::booleanValue:
            out += value.asBool() ? "true" : "false";
            return;
        case Json::arrayValue: {
            out += '[';
            const Json::ArrayIndex size = value.size();
            for (Json::ArrayIndex i = 0; i < size; ++i) {
                if (i > 0) out += ',';
                AppendValue(out, value[i]);
            }
            out += ']';
            return;
        }
        case Json::objectValue: {
            const std::size_t start = out.size();
            out += '{';
            bool first = true;
            const auto end = value.end();
            for (auto it = value.begin(); it != end; ++it) {
                const char* nameEnd = nullptr;
                const char* name = it.memberName(&nameEnd);
                if (!IsValidUtf8(name, nameEnd)) {
                    // Rare: names that are not UTF-8 change their order, even their number,
                    // once written. Start the object again under its repaired names.
                    out.resize(start);
                    AppendValue(out, WithRepairedNames(value));
                    return;
                }
                if (!first) out += ',';
                first = false;
                AppendQuoted(out, name, nameEnd);
                out += ':';
                AppendValue(out, *it);
            }
            out += '}';
            return;
        }
    }
}

// A strict JSON scanner that builds nothing: each method consumes one construct at pos_.
class ObjectScanner {
public:
    ObjectScanner(const std::string& text, const char* member, std::string* memberText)
        : p_(reinterpret_cast<const unsigned char*>(text.data())),
          end_(p_ + text.size()),
          member_(member),
          memberLength_(member != nullptr ? std::strlen(member) : 0),
          memberText_(memberText) {}

    bool Document() {
        SkipSpace();
        if (!Object(1, true)) return false;
        SkipSpace();
        return p_ == end_;
    }

private:
    bool At(unsigned char c) const { return p_ < end_ && *p_ == c; }
    void SkipSpace() {
        while (p_ < end_ && (*p_ == ' ' || *p_ == '\t' || *p_ == '\n' || *p_ == '\r')) ++p_;
    }

    bool Value(int depth) {
        if (p_ == end_) return false;
        switch (*p_) {
            case '{':
                return depth < JsonUtils::kMaxDepth && Object(depth + 1, false);
            case '[':
                return depth < JsonUtils::kMaxDepth && Array(depth + 1);
            case '"':
                return String(nullptr);
            case 't':
                return Word("true");
            case 'f':
                return Word("false");
            case 'n':
                return Word("null");
            default:
                return Number();
        }
    }

    bool Object(int depth, bool top) {
        if (!At('{')) return false;
        ++p_;
        SkipSpace();
        if (At('}')) {
            ++p_;
            return true;
        }
        for (;;) {
            const unsigned char* name = p_ + 1;
            if (!String(nullptr)) return false;
            const auto nameLength = static_cast<std::size_t>(p_ - 1 - name);
            const bool wanted = top && member_ != nullptr && nameLength == memberLength_ &&
                                std::memcmp(name, member_, nameLength) == 0;
            SkipSpace();
            if (!At(':')) return false;
            ++p_;
            SkipSpace();
            if (wanted && At('"')) {
                if (!String(memberText_)) return false;
            } else if (!Value(depth)) {
                return false;
            }
            SkipSpace();
            if (At('}')) {
                ++p_;
                return true;
            }
            if (!At(',')) return false;
            ++p_;
            SkipSpace();
        }
    }

    bool Array(int depth) {
        ++p_;  // '['
        SkipSpace();
        if (At(']')) {
            ++p_;
            return true;
        }
        for (;;) {
            if (!Value(depth)) return false;
            SkipSpace();
            if (At(']')) {
                ++p_;
                return true;
            }
            if (!At(',')) return false;
            ++p_;
            SkipSpace();
        }
    }

    // Four hex digits at p_ as a number, or -1.
    long Hex4() {
        if (end_ - p_ < 4) return -1;
        long value = 0;
        for (int i = 0; i < 4; ++i) {
            const unsigned char c = p_[i];
            const int digit = c >= '0' && c <= '9'   ? c - '0'
                              : c >= 'a' && c <= 'f' ? c - 'a' + 10
                              : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                     : -1;
            if (digit < 0) return -1;
            value = value * 16 + digit;
        }
        p_ += 4;
        return value;
    }

    // After "\u": a code unit, and its low half when it is a high surrogate.
    bool UnicodeEscape() {
        const long unit = Hex4();
        if (unit < 0 || (unit >= 0xDC00 && unit <= 0xDFFF)) return false;
        if (unit < 0xD800 || unit > 0xDBFF) return true;
        if (end_ - p_ < 2 || p_[0] != '\\' || p_[1] != 'u') return false;
        p_ += 2;
        const long low = Hex4();
        return low >= 0xDC00 && low <= 0xDFFF;
    }

    bool String(std::string* capture) {
        if (!At('"')) return false;
        const unsigned char* start = ++p_;
        while (p_ < end_) {
            const unsigned char c = *p_;
            if (c == '"') {
                if (capture != nullptr) {
                    capture->assign(reinterpret_cast<const char*>(start),
                                    static_cast<std::size_t>(p_ - start));
                }
                ++p_;
                return true;
            }
            if (c < 0x20) return false;
            if (c == '\\') {
                if (++p_ == end_) return false;
                const unsigned char e = *p_++;
                if (e == 'u') {
                    if (!UnicodeEscape()) return false;
                } else if (std::strchr("\"\\/bfnrt", e) == nullptr || e == 0) {
                    return false;
                }
                continue;
            }
            const std::size_t length = Utf8SequenceAt(p_, end_);
            if (length == 0) return false;
            p_ += length;
        }
        return false;
    }

    bool Digits() {
        const unsigned char* start = p_;
        while (p_ < end_ && *p_ >= '0' && *p_ <= '9') ++p_;
        return p_ > start;
    }

    bool Number() {
        const unsigned char* start = p_;
        if (At('-')) ++p_;
        if (At('0')) {
            ++p_;
        } else if (!Digits()) {
            return false;
        }
        bool plainInteger = true;
        if (At('.')) {
            ++p_;
            if (!Digits()) return false;
            plainInteger = false;
        }
        if (At('e') || At('E')) {
            ++p_;
            if (At('+') || At('-')) ++p_;
            if (!Digits()) return false;
            plainInteger = false;
        }
        if (plainInteger) return true;  // any length: read as a double at worst, never out of range
        double value = 0;
        const auto result = std::from_chars(reinterpret_cast<const char*>(start),
                                            reinterpret_cast<const char*>(p_), value);
        return result.ec == std::errc();
    }

    bool Word(const char* word) {
        const std::size_t length = std::strlen(word);
        if (static_cast<std::size_t>(end_ - p_) < length || std::memcmp(p_, word, length) != 0) {
            return false;
        }
        p_ += length;
        return true;
    }

    const unsigned char* p_;
    const unsigned char* const end_;
    const char* const member_;
    const std::size_t memberLength_;
    std::string* const memberText_;
};

std::unique_ptr<Json::CharReader> MakeReader() {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["stackLimit"] = JsonUtils::kMaxDepth;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = false;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}
}  // namespace

int JsonUtils::ParseJsonStr(const char* text, unsigned long len, Json::Value& out) {
    if (text == nullptr) return -1;
    try {
        std::unique_ptr<Json::CharReader> reader = MakeReader();
        Json::Value value;
        std::string errors;
        if (!reader->parse(text, text + len, &value, &errors)) return -1;
        out.swap(value);
        return 0;
    } catch (const std::exception&) {
        // JsonCpp throws when the nesting exceeds stackLimit.
        return -1;
    }
}

int JsonUtils::ParseJsonStr(const std::string& text, Json::Value& out) {
    return ParseJsonStr(text.data(), text.size(), out);
}

bool JsonUtils::IsJsonObject(const std::string& text, const char* member, std::string* memberText) {
    return ObjectScanner(text, member, memberText).Document();
}

std::string JsonUtils::JsonToString(const Json::Value& value) {
    std::string out;
    out.reserve(512);  // an alarm fits
    AppendValue(out, value);
    return out;
}

std::string JsonUtils::GetStringValue(const Json::Value& obj, const char* key, const char* def) {
    if (!obj.isObject()) return def ? def : "";
    const Json::Value* member = obj.find(key, key + std::strlen(key));
    if (member == nullptr || !member->isString()) return def ? def : "";
    return member->asString();
}

bool JsonUtils::GetBoolValue(const Json::Value& obj, const char* key, bool def) {
    if (!obj.isObject()) return def;
    const Json::Value* member = obj.find(key, key + std::strlen(key));
    if (member == nullptr || !member->isBool()) return def;
    return member->asBool();
}

int64_t JsonUtils::GetIntValue(const Json::Value& obj, const char* key, int64_t def) {
    if (!obj.isObject()) return def;
    const Json::Value* member = obj.find(key, key + std::strlen(key));
    if (member == nullptr || !member->isInt64()) return def;
    return member->asInt64();
}

namespace {
// Copies obj[key] into out when obj is an object and the member has the wanted type.
bool CopyMember(const Json::Value& obj, const char* key, Json::ValueType type, Json::Value& out) {
    if (!obj.isObject()) return false;
    const Json::Value* member = obj.find(key, key + std::strlen(key));
    if (member == nullptr || member->type() != type) return false;
    out = *member;
    return true;
}
}  // namespace

bool JsonUtils::GetSubobjectValue(const Json::Value& obj, const char* key, Json::Value& out) {
    return CopyMember(obj, key, Json::objectValue, out);
}

bool JsonUtils::GetArrayValue(const Json::Value& obj, const char* key, Json::Value& out) {
    return CopyMember(obj, key, Json::arrayValue, out);
}

}  // namespace SDK
