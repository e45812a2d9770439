// A policy document through the module's own policy hook, the entry every document of the
// policy directory takes, then the image lookups a container start makes with it.
#include <Poco/AutoPtr.h>
#include <Poco/Message.h>
#include <Poco/NullChannel.h>

#include <memory>

#include "DockerFileModule.h"
#include "DockerFilePolicy.h"
#include "FuzzCheck.h"
#include "sdk/JsonUtils.h"
#include "sdk/LoggerUtils.h"

static bool Lookup(const Engine::DockerFilePolicy& policy, const std::string& id,
                   const std::string& name) {
    std::vector<std::string> files;
    bool elfForbidden = false;
    const bool found = policy.GetImageFileRule(id, name, files, elfForbidden);
    FUZZ_CHECK(found ? files.size() <= 20 : files.empty());  // at most 20 files a rule
    return found;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Log at the finest level into nothing, so that every log line's formatting runs too.
    Poco::AutoPtr<Poco::NullChannel> sink(new Poco::NullChannel);
    SDK::LoggerUtils::GetInstance()->Configure(sink.get(), Poco::Message::PRIO_TRACE);
    SDK::LoggerUtils::GetInstance()->GetModuleLogger("dockerfile_module", true);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static Engine::DockerFileModule module;
    const std::string document(reinterpret_cast<const char*>(data), size);
    Framework::Policy* current = nullptr;
    std::unique_ptr<Framework::Policy> policy(
        module.RefreshFeaturePolicy("dockerfile_feature", document, current));
    const auto* parsed = dynamic_cast<const Engine::DockerFilePolicy*>(policy.get());
    FUZZ_CHECK(parsed != nullptr);
    for (const char* name : {"", "nginx", "tarnwick/busybox:latest"})
        Lookup(*parsed, *name != '\0' ? "sha256:0123" : "", name);
    // Every rule the document names is found again by its own image id or name.
    Json::Value root, content, rules;
    if (SDK::JsonUtils::ParseJsonStr(document, root) != 0 ||
        !SDK::JsonUtils::GetSubobjectValue(root, "content", content) ||
        !SDK::JsonUtils::GetArrayValue(content, "rules", rules))
        return 0;
    for (const auto& rule : rules) {
        const std::string id = SDK::JsonUtils::GetStringValue(rule, "image_id", "");
        const std::string name = SDK::JsonUtils::GetStringValue(rule, "image_name", "");
        if (!id.empty() || !name.empty()) FUZZ_CHECK(Lookup(*parsed, id, id.empty() ? name : ""));
    }
    return 0;
}
