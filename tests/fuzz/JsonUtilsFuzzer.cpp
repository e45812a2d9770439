// Any text through the JSON helpers: parsing never throws or recurses without bound, and what
// JsonToString writes (an alarm is one line of it) is one line that parses again, and the
// same text JsonCpp's own writer gives; what IsJsonObject takes, JsonCpp reads as an object.
#include <algorithm>

#include "FuzzCheck.h"
#include "sdk/JsonUtils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string classId;
    const bool object = SDK::JsonUtils::IsJsonObject(text, "event_classid", &classId);
    Json::Value value;
    if (SDK::JsonUtils::ParseJsonStr(reinterpret_cast<const char*>(data), size, value) != 0) {
        // What the strict scan takes, JsonCpp reads too, unless nested past its stack limit.
        const auto opens =
            std::count(text.begin(), text.end(), '[') + std::count(text.begin(), text.end(), '{');
        FUZZ_CHECK(!object || opens >= SDK::JsonUtils::kMaxDepth - 2);
        return 0;
    }
    FUZZ_CHECK(!object || value.isObject());
    if (object && value["event_classid"].isString() && classId.find('\\') == std::string::npos) {
        FUZZ_CHECK(value["event_classid"].asString() == classId);
    }
    // The accessors on whatever came: the ones that hand out a member check its kind.
    for (const char* key : {"", "a", "content", "rules", "Id"}) {
        SDK::JsonUtils::GetStringValue(value, key, "default");
        SDK::JsonUtils::GetBoolValue(value, key, true);
        SDK::JsonUtils::GetIntValue(value, key, -1);
        Json::Value member;
        if (SDK::JsonUtils::GetSubobjectValue(value, key, member)) FUZZ_CHECK(member.isObject());
        if (SDK::JsonUtils::GetArrayValue(value, key, member)) FUZZ_CHECK(member.isArray());
    }
    FUZZ_CHECK(SDK::JsonUtils::GetStringValue(value, "\x01missing", nullptr).empty());
    const std::string line = SDK::JsonUtils::JsonToString(value);
    FUZZ_CHECK(line.find('\n') == std::string::npos);
    Json::Value again;
    FUZZ_CHECK(SDK::JsonUtils::ParseJsonStr(line, again) == 0);
    FUZZ_CHECK(SDK::JsonUtils::JsonToString(again) == line);
    // Where every string is ASCII by construction, the agent's writer and JsonCpp's agree to
    // the byte (a \u escape can spell a lone surrogate, which the agent writes as U+FFFD).
    if (std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; }) &&
        text.find("\\u") == std::string::npos) {
        Json::FastWriter reference;
        reference.omitEndingLineFeed();
        FUZZ_CHECK(reference.write(value) == line);
    }
    return 0;
}
