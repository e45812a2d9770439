#pragma once

#include <string>
#include <vector>

namespace Framework {

class Policy;

/// What one policy document puts in force, as the module that owns its key reads it. Filled by
/// a module library's DescribePolicy export (below) for operators' checks and for the agent's
/// warning about policies that protect nothing; plain data, no module types in it.
struct PolicyDescription {
    /// One rule in force.
    struct Rule {
        bool byId = false;   ///< true: matches the image id; false: the image name
        std::string image;   ///< the image id, or the image name (a fragment when fuzzy)
        bool fuzzy = false;  ///< name rules: the name may occur anywhere in the image name
        bool elfForbidden = false;
        std::vector<std::string> files;  ///< protected paths inside the container
    };
    /// Something in the document that the module ignores or takes otherwise than written.
    struct Finding {
        std::string where;  ///< position in the document, e.g. "content.rules[2]"
        int line = 0;       ///< line in the document (1-based), 0 when unknown
        std::string reason;
    };

    std::string key;     ///< the policy key the module takes the document under
    bool valid = false;  ///< false: the module's parser refuses the document outright
    /// Whether the module hands the policy to its tasks; false: they keep the one they had.
    bool applied = false;
    std::string feature;
    std::string policyId;
    std::string hash;
    bool enabled = true;
    std::vector<Rule> rules;
    std::vector<Finding> findings;
    /// Empty when the policy protects something; otherwise why it protects nothing.
    std::string protectsNothing;
};

}  // namespace Framework

extern "C" {
/// Optional export `DescribePolicy` of a module library. Describes a document of policy `key`
/// ("" for the module's own key) into `out` without touching any module or task state, on any
/// thread. With `parsed` null the module parses `document` with its own parser, logging what
/// that parser logs; otherwise `parsed` is the policy the module built from `document` and is
/// described as it is, without a second parse or log line. 1: described; 0: the module has no
/// policy of that key; -1: `parsed` is not this module's policy.
typedef int (*DescribePolicyFunc)(const char* key, const char* document, unsigned long length,
                                  const Framework::Policy* parsed,
                                  Framework::PolicyDescription* out);
}
