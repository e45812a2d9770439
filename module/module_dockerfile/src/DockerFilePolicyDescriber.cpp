#include "DockerFilePolicyDescriber.h"

#include <json/json.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <set>

#include "DockerFilePolicy.h"
#include "DockerFileTask.h"
#include "sdk/JsonUtils.h"

namespace Engine {

const char* const DockerFilePolicyDescriber::kPolicyKey = "10001";

namespace {
const std::set<std::string> kDocumentKeys = {"feature_name", "hash", "policy_id", "enabled",
                                             "content"};
const std::set<std::string> kContentKeys = {"rules"};
const std::set<std::string> kRuleKeys = {"image_id", "image_name", "elf_forbidden", "fuzzy_match",
                                         "protect_files"};

std::string TypeName(const Json::Value& value) {
    switch (value.type()) {
        case Json::nullValue:
            return "null";
        case Json::intValue:
        case Json::uintValue:
        case Json::realValue:
            return "a number";
        case Json::stringValue:
            return "a string";
        case Json::booleanValue:
            return "a bool";
        case Json::arrayValue:
            return "an array";
        case Json::objectValue:
            return "an object";
    }
    return "a value";
}

const Json::Value* Member(const Json::Value& object, const char* key) {
    if (!object.isObject()) return nullptr;
    return object.find(key, key + std::strlen(key));
}

// The first line of the JSON reader's complaint, for a document the parser refused.
std::string ParseError(const std::string& document) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["stackLimit"] = SDK::JsonUtils::kMaxDepth;
    builder["failIfExtra"] = true;
    std::string errors;
    try {
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value ignored;
        if (reader->parse(document.data(), document.data() + document.size(), &ignored, &errors)) {
            return "refused by the parser";
        }
    } catch (const std::exception&) {
        return "nested deeper than " + std::to_string(SDK::JsonUtils::kMaxDepth) + " levels";
    }
    std::string text;
    for (char c : errors) {
        if (c == '\n') {
            if (!text.empty() && text.back() != ' ') text += ' ';
            continue;
        }
        if (c == '*' && text.empty()) continue;
        text += c;
    }
    while (!text.empty() && text.back() == ' ') text.pop_back();
    while (!text.empty() && text.front() == ' ') text.erase(text.begin());
    return text.empty() ? "not JSON" : text;
}

// One walk over a document, collecting findings with their lines.
class Walk {
public:
    Walk(const std::string& document, Framework::PolicyDescription& out) : out_(out) {
        for (std::size_t i = 0; i < document.size(); ++i) {
            if (document[i] == '\n') lineStarts_.push_back(i + 1);
        }
        size_ = document.size();
    }

    void Note(const Json::Value* at, const std::string& where, const std::string& reason) {
        out_.findings.push_back({where, at ? LineOf(*at) : 0, reason});
    }
    // The policy protects nothing; the reason is also a finding, with its line.
    void Nothing(const Json::Value* at, const std::string& where, const std::string& reason) {
        Note(at, where, reason);
        if (out_.protectsNothing.empty()) out_.protectsNothing = where + " " + reason;
    }
    // A member of the wrong type, which the parser replaces by its default.
    void ExpectType(const Json::Value& object, const std::string& where, const char* key,
                    Json::ValueType type, const char* fallback) {
        const Json::Value* member = Member(object, key);
        if (member == nullptr || member->type() == type) return;
        const std::string wanted = type == Json::stringValue ? "a string" : "a bool";
        Note(member, Path(where, key),
             "is " + TypeName(*member) + ", not " + wanted + "; " + fallback);
    }
    void UnknownKeys(const Json::Value& object, const std::string& where,
                     const std::set<std::string>& known) {
        for (const auto& name : object.getMemberNames()) {
            if (known.count(name) != 0) continue;
            Note(Member(object, name.c_str()), Path(where, name), "is not a known key; ignored");
        }
    }
    static std::string Path(const std::string& where, const std::string& key) {
        return where.empty() ? key : where + "." + key;
    }

    std::set<std::string> ids;    // image ids that have a rule so far
    std::set<std::string> names;  // image names that have a rule so far

private:
    int LineOf(const Json::Value& value) const {
        const auto offset = static_cast<std::size_t>(value.getOffsetStart());
        if (offset > size_) return 0;
        return static_cast<int>(std::upper_bound(lineStarts_.begin(), lineStarts_.end(), offset) -
                                lineStarts_.begin()) +
               1;
    }

    Framework::PolicyDescription& out_;
    std::vector<std::size_t> lineStarts_;
    std::size_t size_ = 0;
};

void ExamineFiles(const Json::Value& rule, const std::string& where, bool elfForbidden,
                  Walk& walk) {
    const Json::Value* files = Member(rule, "protect_files");
    const std::string path = Walk::Path(where, "protect_files");
    std::size_t taken = 0;
    if (files != nullptr && !files->isArray()) {
        walk.Note(files, path, "is " + TypeName(*files) + ", not an array; no file is protected");
    } else if (files != nullptr) {
        for (Json::ArrayIndex k = 0; k < files->size(); ++k) {
            const Json::Value& entry = (*files)[k];
            const std::string at = path + "[" + std::to_string(k) + "]";
            if (!entry.isString()) {
                walk.Note(&entry, at, "is " + TypeName(entry) + ", not a string; skipped");
                continue;
            }
            if (taken == DockerFilePolicy::kMaxFilesPerRule) {
                walk.Note(&entry, at,
                          "and what follows it are not protected: a rule protects at most " +
                              std::to_string(DockerFilePolicy::kMaxFilesPerRule) + " files");
                break;
            }
            ++taken;
            const std::string file = entry.asString();
            if (file.empty()) {
                walk.Note(&entry, at, "is empty");
            } else if (file[0] != '/') {
                walk.Note(&entry, at, "is not an absolute path");
            }
        }
    }
    if (taken == 0 && !elfForbidden) {
        walk.Note(&rule, where, "protects no file and does not forbid executables");
    }
}

void ExamineRule(const Json::Value& rule, const std::string& where, Walk& walk) {
    if (!rule.isObject()) {
        walk.Note(&rule, where, "is " + TypeName(rule) + ", not a rule object; dropped");
        return;
    }
    walk.UnknownKeys(rule, where, kRuleKeys);
    walk.ExpectType(rule, where, "image_id", Json::stringValue, "ignored");
    walk.ExpectType(rule, where, "image_name", Json::stringValue, "ignored");
    walk.ExpectType(rule, where, "elf_forbidden", Json::booleanValue, "taken as false");
    const std::string id = SDK::JsonUtils::GetStringValue(rule, "image_id", "");
    const std::string name = SDK::JsonUtils::GetStringValue(rule, "image_name", "");
    const bool elfForbidden = SDK::JsonUtils::GetBoolValue(rule, "elf_forbidden", false);
    if (id.empty() && name.empty()) {
        walk.Note(&rule, where, "has no image_id or image_name; dropped");
        return;
    }
    if (!id.empty()) {
        if (!name.empty()) {
            walk.Note(&rule, where, "has both image_id and image_name; only the id is used");
        }
        if (SDK::JsonUtils::GetBoolValue(rule, "fuzzy_match", false)) {
            walk.Note(Member(rule, "fuzzy_match"), Walk::Path(where, "fuzzy_match"),
                      "has no effect on a rule by image id");
        }
        if (!walk.ids.insert(id).second) {
            walk.Note(&rule, where, "image id " + id + " has a rule earlier; this one is dropped");
            return;
        }
    } else {
        walk.ExpectType(rule, where, "fuzzy_match", Json::booleanValue, "taken as false");
        if (!walk.names.insert(name).second) {
            walk.Note(&rule, where,
                      "image name " + name + " has a rule earlier; this one is dropped");
            return;
        }
    }
    ExamineFiles(rule, where, elfForbidden, walk);
}

void Examine(const std::string& document, Framework::PolicyDescription& out) {
    Walk walk(document, out);
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(document, root) != 0) {
        out.valid = false;
        walk.Nothing(nullptr, "the document", "is not JSON: " + ParseError(document));
        return;
    }
    out.valid = true;
    if (!root.isObject()) {
        walk.Nothing(&root, "the document", "is " + TypeName(root) + ", not a JSON object");
        return;
    }
    walk.UnknownKeys(root, "", kDocumentKeys);
    for (const char* key : {"feature_name", "hash", "policy_id"}) {
        walk.ExpectType(root, "", key, Json::stringValue, "taken as \"\"");
    }
    walk.ExpectType(root, "", "enabled", Json::booleanValue, "taken as true");
    const Json::Value* enabled = Member(root, "enabled");
    if (enabled != nullptr && enabled->isBool() && !enabled->asBool()) {
        walk.Note(enabled, "enabled", "is false, but the rules apply all the same");
    }
    const Json::Value* content = Member(root, "content");
    if (content == nullptr) {
        walk.Nothing(&root, "the document", "has no \"content\" object");
        return;
    }
    if (!content->isObject()) {
        walk.Nothing(content, "content",
                     "is " + TypeName(*content) + ", not an object" +
                         (content->isString() ? " (the rules go in it as JSON, not as text)" : ""));
        return;
    }
    walk.UnknownKeys(*content, "content", kContentKeys);
    const Json::Value* rules = Member(*content, "rules");
    if (rules == nullptr) {
        walk.Nothing(content, "content", "has no \"rules\" array");
        return;
    }
    if (!rules->isArray()) {
        walk.Nothing(rules, "content.rules", "is " + TypeName(*rules) + ", not an array");
        return;
    }
    if (rules->empty()) {
        walk.Nothing(rules, "content.rules", "is empty");
        return;
    }
    for (Json::ArrayIndex i = 0; i < rules->size(); ++i) {
        ExamineRule((*rules)[i], "content.rules[" + std::to_string(i) + "]", walk);
    }
}
}  // namespace

void DockerFilePolicyDescriber::Describe(const DockerFilePolicy& policy,
                                         const std::string& document,
                                         Framework::PolicyDescription& out) {
    out.key = kPolicyKey;
    out.applied = !policy.GetTaskNames().empty();
    Examine(document, out);
    if (!out.valid) return;
    out.feature = policy.GetPolicyName();
    out.policyId = policy.GetPolicyId();
    out.hash = policy.GetHash();
    out.enabled = policy.IsEnabled();
    // Id rules are looked up first, then name rules in this (key) order.
    for (const auto& entry : policy.GetImageIdRules()) {
        const auto& node = entry.second;
        out.rules.push_back({true, node.imageId, false, node.elfForbidden, node.protectFiles});
    }
    for (const auto& entry : policy.GetImageNameRules()) {
        const auto& node = entry.second;
        out.rules.push_back(
            {false, node.imageName, node.fuzzyMatch, node.elfForbidden, node.protectFiles});
    }
    if (!out.protectsNothing.empty()) return;
    const bool protects = std::any_of(out.rules.begin(), out.rules.end(), [](const auto& rule) {
        return rule.elfForbidden || !rule.files.empty();
    });
    if (protects) return;
    out.protectsNothing = out.rules.empty() ? "no rule names an image by image_id or image_name"
                                            : "no rule protects a file or forbids executables";
}

}  // namespace Engine

extern "C" int DescribePolicy(const char* key, const char* document, unsigned long length,
                              const Framework::Policy* parsed, Framework::PolicyDescription* out) {
    using Engine::DockerFilePolicyDescriber;
    if (key == nullptr || document == nullptr || out == nullptr) return -1;
    if (*key != '\0' && std::strcmp(key, DockerFilePolicyDescriber::kPolicyKey) != 0) return 0;
    try {
        const std::string text(document, length);
        if (parsed != nullptr) {
            const auto* policy = dynamic_cast<const Engine::DockerFilePolicy*>(parsed);
            if (policy == nullptr) return -1;
            DockerFilePolicyDescriber::Describe(*policy, text, *out);
            return 1;
        }
        // The parser the task gets its policies from, logging as it does then.
        Engine::DockerFilePolicy policy(Engine::DockerFileTask::kTaskName);
        policy.Parse(text);
        DockerFilePolicyDescriber::Describe(policy, text, *out);
        return 1;
    } catch (const std::exception&) {
        return -1;
    }
}
