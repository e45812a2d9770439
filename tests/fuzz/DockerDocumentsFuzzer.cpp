// One document from the Docker engine (or anything that answers on its socket) through the
// inspect, list and event mappers. Ids end up in request paths and names in watch paths, so
// whatever a mapper accepts must carry a plain container id.
#include "FuzzCheck.h"
#include "container/DockerDocuments.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    Engine::ContainerInfo info;
    int pid = -1;
    std::string error;
    if (Engine::ParseContainerInspect(text, info, pid, error)) {
        FUZZ_CHECK(Engine::IsContainerId(info.id) && pid >= 0);
        for (const auto& port : info.ports)
            FUZZ_CHECK(port.containerPort >= 0 && port.containerPort <= 65535 &&
                       port.hostPort >= 0 && port.hostPort <= 65535);
    } else {
        FUZZ_CHECK(!error.empty());
    }

    std::vector<std::string> ids{"untouched"};
    error.clear();
    if (Engine::ParseContainerList(text, ids, error)) {
        for (const auto& id : ids) FUZZ_CHECK(Engine::IsContainerId(id));
    } else {
        // All or nothing: a refused list leaves the caller's ids alone.
        FUZZ_CHECK(!error.empty() && ids.size() == 1 && ids[0] == "untouched");
    }

    Engine::ContainerEvent event;
    error.clear();
    const Engine::EventLineResult result = Engine::ParseContainerEvent(text, event, error);
    if (result == Engine::EventLineResult::kMalformed) FUZZ_CHECK(!error.empty());
    if (result == Engine::EventLineResult::kEvent) FUZZ_CHECK(Engine::IsContainerId(event.id));
    return 0;
}
