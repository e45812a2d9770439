// One document from the Docker engine (or anything that answers on its socket) through the
// inspect, list and event mappers. Ids end up in request paths and names in watch paths, so
// whatever a mapper accepts must carry a plain container id.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "container/DockerDocuments.h"

namespace {
void Inspect(const std::string& text) {
    Engine::ContainerInfo info;
    int pid = -1;
    std::string error;
    if (!Engine::ParseContainerInspect(text, info, pid, error)) {
        FUZZ_CHECK(!error.empty());
        return;
    }
    FUZZ_CHECK(Engine::IsContainerId(info.id));
    FUZZ_CHECK(pid >= 0);
    for (const auto& port : info.ports) {
        FUZZ_CHECK(port.containerPort >= 0 && port.containerPort <= 65535);
        FUZZ_CHECK(port.hostPort >= 0 && port.hostPort <= 65535);
    }
}

void List(const std::string& text) {
    std::vector<std::string> ids{"untouched"};
    std::string error;
    if (!Engine::ParseContainerList(text, ids, error)) {
        FUZZ_CHECK(!error.empty());
        // All or nothing: a refused list leaves the caller's ids alone.
        FUZZ_CHECK(ids.size() == 1 && ids[0] == "untouched");
        return;
    }
    for (const auto& id : ids) FUZZ_CHECK(Engine::IsContainerId(id));
}

void Event(const std::string& line) {
    Engine::ContainerEvent event;
    std::string error;
    const Engine::EventLineResult result = Engine::ParseContainerEvent(line, event, error);
    if (result == Engine::EventLineResult::kMalformed) FUZZ_CHECK(!error.empty());
    if (result == Engine::EventLineResult::kEvent) FUZZ_CHECK(Engine::IsContainerId(event.id));
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    Inspect(text);
    List(text);
    Event(text);
    return 0;
}
