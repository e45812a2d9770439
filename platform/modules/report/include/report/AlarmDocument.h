#pragma once

#include <string>

namespace Report {

/// Checks one alarm document without building it: true when `text` is a single JSON object
/// (SDK::JsonUtils::IsJsonObject). `alarmClass` is then its top-level "event_classid" when
/// that is one of the classes the agent raises, and "other" for anything else, so that a
/// sender cannot grow the set of counters. Never throws.
bool ReadAlarmClass(const std::string& text, std::string& alarmClass);

}  // namespace Report
