#include "sdk/JsonUtils.h"

#include <cstring>
#include <exception>
#include <memory>

namespace SDK {

namespace {
const char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

// Length of the well-formed UTF-8 sequence at `i` (no overlong forms, no surrogates, nothing
// above U+10FFFF), 0 when there is none.
std::size_t Utf8SequenceAt(const std::string& text, std::size_t i) {
    const auto byte = [&text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char lead = byte(i);
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
    if (text.size() - i < length) return 0;
    if (byte(i + 1) < low || byte(i + 1) > high) return 0;
    for (std::size_t k = 2; k < length; ++k) {
        if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
    }
    return length;
}

// File names and other text from containers need not be UTF-8. JsonCpp escapes such bytes as if
// they were, and so writes a different, plausible character (or a lone surrogate) instead; an
// alarm must rather show plainly that a byte could not be written: U+FFFD for each of them.
std::string ValidUtf8(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = Utf8SequenceAt(text, i);
        if (length == 0) {
            out += kReplacement;
            ++i;
            continue;
        }
        out.append(text, i, length);
        i += length;
    }
    return out;
}

bool IsValidUtf8(const std::string& text) {
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = Utf8SequenceAt(text, i);
        if (length == 0) return false;
        i += length;
    }
    return true;
}

// `value` with every string and member name made valid UTF-8; untouched when all are.
bool NeedsRepair(const Json::Value& value) {
    if (value.isString()) return !IsValidUtf8(value.asString());
    if (value.isArray()) {
        for (const auto& item : value) {
            if (NeedsRepair(item)) return true;
        }
        return false;
    }
    if (!value.isObject()) return false;
    for (auto it = value.begin(); it != value.end(); ++it) {
        if (!IsValidUtf8(it.name()) || NeedsRepair(*it)) return true;
    }
    return false;
}

Json::Value Repaired(const Json::Value& value) {
    if (value.isString()) return Json::Value(ValidUtf8(value.asString()));
    if (value.isArray()) {
        Json::Value out(Json::arrayValue);
        for (const auto& item : value) out.append(Repaired(item));
        return out;
    }
    if (!value.isObject()) return value;
    Json::Value out(Json::objectValue);
    for (auto it = value.begin(); it != value.end(); ++it)
        out[ValidUtf8(it.name())] = Repaired(*it);
    return out;
}

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

std::string JsonUtils::JsonToString(const Json::Value& value) {
    // JsonCpp's FastWriter appends straight to a string and writes the same compact text as a
    // StreamWriter without indentation, at a third of the cost; every alarm passes here.
    thread_local Json::FastWriter writer = [] {
        Json::FastWriter fast;
        fast.omitEndingLineFeed();
        return fast;
    }();
    if (NeedsRepair(value)) return writer.write(Repaired(value));
    return writer.write(value);
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
