#include "report/AlarmDocument.h"

#include "sdk/JsonUtils.h"

namespace Report {

namespace {
const char* const kKnownClasses[] = {"dockerfile_001", "dockerfile_002"};
}  // namespace

bool ReadAlarmClass(const std::string& text, std::string& alarmClass) {
    std::string classId;
    if (!SDK::JsonUtils::IsJsonObject(text, "event_classid", &classId)) return false;
    alarmClass = "other";
    for (const char* known : kKnownClasses) {
        if (classId == known) alarmClass = known;
    }
    return true;
}

}  // namespace Report
