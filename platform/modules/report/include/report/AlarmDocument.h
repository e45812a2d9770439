#pragma once

#include <string>

namespace Report {

/// Checks one alarm document without building it: true when `text` is a single JSON object
/// (strict JSON: no comments, nothing after it, strings of valid UTF-8 without raw control
/// characters, nesting at most kMaxDepth). `alarmClass` is then its top-level
/// "event_classid" when that is one of the classes the agent raises, and "other" for anything
/// else, so that a sender cannot grow the set of counters. Never throws.
bool ReadAlarmClass(const std::string& text, std::string& alarmClass);

constexpr int kMaxAlarmDepth = 64;

}  // namespace Report
