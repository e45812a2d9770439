#pragma once

#include <string>

#include "framework/PolicyDescription.h"

namespace Engine {

class DockerFilePolicy;

/// Tells an operator what a policy document of key "10001" puts in force and what in it the
/// parser ignores or reads otherwise than written. The rules come from a parsed
/// DockerFilePolicy, so they are exactly what the task would use; the findings come from a
/// walk over the document that follows the parser's reading and logs nothing. Stateless.
class DockerFilePolicyDescriber {
public:
    /// The policy key this module takes its documents under.
    static const char* const kPolicyKey;

    /// Fills `out` from `policy` (built from `document`) and from `document` itself.
    static void Describe(const DockerFilePolicy& policy, const std::string& document,
                         Framework::PolicyDescription& out);
};

}  // namespace Engine
