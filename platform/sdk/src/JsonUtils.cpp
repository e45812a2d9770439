#include "sdk/JsonUtils.h"

#include <cstring>
#include <exception>
#include <memory>

namespace SDK {

namespace {
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
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["commentStyle"] = "None";
    return Json::writeString(builder, value);
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
