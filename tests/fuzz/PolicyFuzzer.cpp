// A policy document through the module's own policy hook, the entry every document of the
// policy directory takes, then the image lookups a container start makes with it.
#include <Poco/AutoPtr.h>
#include <Poco/Message.h>
#include <Poco/NullChannel.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "DockerFileModule.h"
#include "DockerFilePolicy.h"
#include "FuzzCheck.h"
#include "sdk/JsonUtils.h"
#include "sdk/LoggerUtils.h"

namespace {
constexpr std::size_t kMaxFilesPerRule = 20;

Engine::DockerFileModule& Module() {
    static Engine::DockerFileModule module;
    return module;
}

bool Lookup(const Engine::DockerFilePolicy& policy, const std::string& id,
            const std::string& name) {
    std::vector<std::string> files;
    bool elfForbidden = false;
    if (!policy.GetImageFileRule(id, name, files, elfForbidden)) {
        FUZZ_CHECK(files.empty());
        return false;
    }
    FUZZ_CHECK(files.size() <= kMaxFilesPerRule);
    return true;
}

// Every rule the document names is found again by its own image id or name.
void LookupOwnRules(const Engine::DockerFilePolicy& policy, const std::string& document) {
    Json::Value root;
    Json::Value content;
    Json::Value rules;
    if (SDK::JsonUtils::ParseJsonStr(document, root) != 0 ||
        !SDK::JsonUtils::GetSubobjectValue(root, "content", content) ||
        !SDK::JsonUtils::GetArrayValue(content, "rules", rules)) {
        return;
    }
    for (const auto& rule : rules) {
        const std::string id = SDK::JsonUtils::GetStringValue(rule, "image_id", "");
        const std::string name = SDK::JsonUtils::GetStringValue(rule, "image_name", "");
        if (!id.empty()) {
            FUZZ_CHECK(Lookup(policy, id, ""));
        } else if (!name.empty()) {
            FUZZ_CHECK(Lookup(policy, "", name));
        }
    }
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Log at the finest level into nothing, so that every log line's formatting runs too.
    Poco::AutoPtr<Poco::NullChannel> sink(new Poco::NullChannel);
    SDK::LoggerUtils::GetInstance()->Configure(sink.get(), Poco::Message::PRIO_TRACE);
    SDK::LoggerUtils::GetInstance()->GetModuleLogger("dockerfile_module", true);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string document(reinterpret_cast<const char*>(data), size);
    Framework::Policy* current = nullptr;
    std::unique_ptr<Framework::Policy> policy(
        Module().RefreshFeaturePolicy("dockerfile_feature", document, current));
    FUZZ_CHECK(policy != nullptr);
    const auto* parsed = dynamic_cast<const Engine::DockerFilePolicy*>(policy.get());
    FUZZ_CHECK(parsed != nullptr);
    Lookup(*parsed, "", "");
    Lookup(*parsed, "sha256:0123", "nginx");
    Lookup(*parsed, "sha256:0123", "tarnwick/busybox:latest");
    LookupOwnRules(*parsed, document);
    return 0;
}
