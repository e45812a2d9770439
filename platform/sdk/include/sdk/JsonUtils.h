#pragma once

#include <json/json.h>

#include <string>

namespace SDK {

class JsonUtils {
public:
    /// Deepest nesting a parsed document may have; deeper documents are refused.
    static constexpr int kMaxDepth = 64;

    /// Parses `len` bytes of JSON text; 0 on success, non-zero on failure (syntax, nesting
    /// deeper than kMaxDepth, trailing garbage). Never throws.
    static int ParseJsonStr(const char* text, unsigned long len, Json::Value& out);
    static int ParseJsonStr(const std::string& text, Json::Value& out);
    /// True when `text` is exactly one JSON object, checked without building it: strict JSON
    /// (no comments, nothing after it, strings of valid UTF-8 without raw control characters
    /// or unpaired surrogate escapes, numbers a double can hold, nesting at most kMaxDepth).
    /// When `member` is given and the object has a top-level string member of that name,
    /// `memberText` receives the string as written between its quotes. Never throws.
    static bool IsJsonObject(const std::string& text, const char* member = nullptr,
                             std::string* memberText = nullptr);
    /// Compact one-line JSON text.
    static std::string JsonToString(const Json::Value& value);

    /// Member accessors: the member's value, or the default when absent or of another type.
    static std::string GetStringValue(const Json::Value& obj, const char* key, const char* def);
    static bool GetBoolValue(const Json::Value& obj, const char* key, bool def);
    static int64_t GetIntValue(const Json::Value& obj, const char* key, int64_t def);
    /// Copy the object/array member into out; false when absent or of another type.
    static bool GetSubobjectValue(const Json::Value& obj, const char* key, Json::Value& out);
    static bool GetArrayValue(const Json::Value& obj, const char* key, Json::Value& out);
};

}  // namespace SDK
