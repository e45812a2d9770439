#pragma once

#include <json/json.h>

#include <map>
#include <string>
#include <vector>

#include "framework/FeaturePolicy.h"

namespace Engine {

/// The policy of feature "dockerfile_feature": which files of which container images are
/// protected, and whether new executables are forbidden in them. Filled once by Parse, then
/// only read.
class DockerFilePolicy : public Framework::FeaturePolicy {
public:
    struct Image_Id_Rule_Node {
        std::string imageId;
        bool elfForbidden = false;
        std::vector<std::string> protectFiles;
    };
    struct Image_Name_Rule_Node {
        std::string imageName;
        bool fuzzyMatch = false;
        bool elfForbidden = false;
        std::vector<std::string> protectFiles;
    };

    /// The most protected files a rule takes; later ones are ignored.
    static constexpr std::size_t kMaxFilesPerRule = 20;

    /// `name` is the policy name until the document's "feature_name" replaces it.
    explicit DockerFilePolicy(const std::string& name);
    ~DockerFilePolicy() override;

    /// 1 when the document's "content" held a "rules" array, 0 otherwise (not JSON, no content).
    int Parse(const std::string& document) override;
    /// One rule object into the id or the name table; a rule with neither is dropped.
    void ParsePolicyRule(const Json::Value& rule);

    /// Stores an id rule; the first rule for an id wins, later ones are dropped.
    void InsertImageIdRulesList(const Image_Id_Rule_Node& node);
    /// Stores a name rule; the first rule for a name wins, fuzzy or exact alike.
    void InsertImageNameRulesList(const Image_Name_Rule_Node& node);

    /// The rule for a container's image: id rules first, then the first name rule in key order
    /// that matches. On true the rule's files are appended to `files` and `elfForbidden` is set;
    /// on false neither is touched.
    bool GetImageFileRule(const std::string& imageId, const std::string& imageName,
                          std::vector<std::string>& files, bool& elfForbidden) const;

    /// The tables as parsed, for describing the policy to an operator.
    const std::map<std::string, Image_Id_Rule_Node>& GetImageIdRules() const {
        return imageIdRules;
    }
    const std::map<std::string, Image_Name_Rule_Node>& GetImageNameRules() const {
        return imageNameRules;
    }

private:
    std::map<std::string, Image_Id_Rule_Node> imageIdRules;
    std::map<std::string, Image_Name_Rule_Node> imageNameRules;
};

/// Appends the string entries of the rule's "protect_files" (at most 20 per rule).
void parseFilesList(const Json::Value& rule, std::vector<std::string>& files);

}  // namespace Engine
