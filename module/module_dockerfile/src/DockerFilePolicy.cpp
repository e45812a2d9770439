#include "DockerFilePolicy.h"

#include "DockerFileModule.h"
#include "framework/TaskPolicy.h"
#include "sdk/JsonUtils.h"
#include "sdk/Log.h"

namespace Engine {

namespace {
void AppendFiles(const std::vector<std::string>& from, std::vector<std::string>& to) {
    to.insert(to.end(), from.begin(), from.end());
}
}  // namespace

void parseFilesList(const Json::Value& rule, std::vector<std::string>& files) {
    Json::Value list;
    if (!SDK::JsonUtils::GetArrayValue(rule, "protect_files", list)) return;
    std::size_t taken = 0;
    for (const auto& entry : list) {
        if (!entry.isString()) continue;
        files.push_back(entry.asString());
        if (++taken == DockerFilePolicy::kMaxFilesPerRule) {
            TW_LOG(DockerFileModule::GetLoggerPtr(), PRIO_WARNING,
                   "Docker monitor file conut reach limit.");
            return;
        }
    }
}

DockerFilePolicy::DockerFilePolicy(const std::string& name) : Framework::FeaturePolicy(name) {}

DockerFilePolicy::~DockerFilePolicy() = default;

int DockerFilePolicy::Parse(const std::string& document) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(document.c_str(), document.size(), root) != 0) return 0;
    SetPolicyName(SDK::JsonUtils::GetStringValue(root, "feature_name", ""));
    SetHash(SDK::JsonUtils::GetStringValue(root, "hash", ""));
    SetPolicyId(SDK::JsonUtils::GetStringValue(root, "policy_id", ""));
    SetEnabled(SDK::JsonUtils::GetBoolValue(root, "enabled", true));

    Json::Value content;
    if (!SDK::JsonUtils::GetSubobjectValue(root, "content", content)) return 0;
    TW_LOG(DockerFileModule::GetLoggerPtr(), PRIO_INFORMATION,
           "Docker file module parse policy: name(%s),hash(%s),id(%s),enable(%b)", GetPolicyName(),
           GetHash(), GetPolicyId(), IsEnabled());

    Json::Value rules;
    const bool hasRules = SDK::JsonUtils::GetArrayValue(content, "rules", rules);
    if (hasRules) {
        for (const auto& rule : rules) ParsePolicyRule(rule);
    }
    Add(new Framework::TaskPolicy("dockerfile_task"));
    return hasRules ? 1 : 0;
}

void DockerFilePolicy::ParsePolicyRule(const Json::Value& rule) {
    const std::string imageId = SDK::JsonUtils::GetStringValue(rule, "image_id", "");
    const std::string imageName = SDK::JsonUtils::GetStringValue(rule, "image_name", "");
    const bool elfForbidden = SDK::JsonUtils::GetBoolValue(rule, "elf_forbidden", false);
    if (!imageId.empty()) {
        Image_Id_Rule_Node node;
        node.imageId = imageId;
        node.elfForbidden = elfForbidden;
        parseFilesList(rule, node.protectFiles);
        InsertImageIdRulesList(node);
        return;
    }
    if (!imageName.empty()) {
        Image_Name_Rule_Node node;
        node.imageName = imageName;
        node.fuzzyMatch = SDK::JsonUtils::GetBoolValue(rule, "fuzzy_match", false);
        node.elfForbidden = elfForbidden;
        parseFilesList(rule, node.protectFiles);
        InsertImageNameRulesList(node);
        return;
    }
    TW_LOG(DockerFileModule::GetLoggerPtr(), PRIO_WARNING,
           "Docker file get invalid rules content.");
}

void DockerFilePolicy::InsertImageIdRulesList(const Image_Id_Rule_Node& node) {
    TW_LOG(DockerFileModule::GetLoggerPtr(), PRIO_DEBUG,
           "Docker file insert  id rules list: id(%s), filesNum(%lu), elfForbidden(%b)",
           node.imageId, static_cast<unsigned long>(node.protectFiles.size()), node.elfForbidden);
    imageIdRules.emplace(node.imageId, node);  // the first rule for an id wins
}

void DockerFilePolicy::InsertImageNameRulesList(const Image_Name_Rule_Node& node) {
    TW_LOG(DockerFileModule::GetLoggerPtr(), PRIO_DEBUG,
           "Docker file module insert name rules list: name(%s), fuzzyMatch(%b), filesNum(%lu), "
           "elfForbidden(%b)",
           node.imageName, node.fuzzyMatch, static_cast<unsigned long>(node.protectFiles.size()),
           node.elfForbidden);
    imageNameRules.emplace(node.imageName, node);
}

bool DockerFilePolicy::GetImageFileRule(const std::string& imageId, const std::string& imageName,
                                        std::vector<std::string>& files, bool& elfForbidden) const {
    if (!imageIdRules.empty()) {
        const auto byId = imageIdRules.find(imageId);
        if (byId != imageIdRules.end()) {
            TW_LOG(DockerFileModule::GetLoggerPtr(), PRIO_DEBUG,
                   "Docker file match image by id: name(%s), id(%s)", imageName, imageId);
            elfForbidden = byId->second.elfForbidden;
            AppendFiles(byId->second.protectFiles, files);
            return true;
        }
    }
    if (imageNameRules.empty()) return false;
    // Key order decides between several matching rules, fuzzy or exact alike.
    for (const auto& entry : imageNameRules) {
        const Image_Name_Rule_Node& rule = entry.second;
        if (rule.fuzzyMatch) {
            if (imageName.find(rule.imageName) == std::string::npos) continue;
            TW_LOG(DockerFileModule::GetLoggerPtr(), PRIO_DEBUG,
                   "Docker file match image by fuzzy name: name(%s), id(%s)", imageName, imageId);
        } else {
            if (imageName != rule.imageName) continue;
            TW_LOG(DockerFileModule::GetLoggerPtr(), PRIO_DEBUG,
                   "Docker file match image by full name: name(%s), id(%s)", imageName, imageId);
        }
        elfForbidden = rule.elfForbidden;
        AppendFiles(rule.protectFiles, files);
        return true;
    }
    return false;
}

}  // namespace Engine
